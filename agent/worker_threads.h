// The agent's six worker threads: what each waits for and does, the stop
// event they all wait on, and the order in which they are stopped.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "platform/event.h"
#include "platform/network.h"
#include "platform/worker_thread.h"
#include "session/session_notifications.h"

namespace lindqvar {

class CWorkerThreads {
 public:
  // The threads, in the order Start creates them.
  enum Index : size_t {
    kNotificationThread = 0,
    kAddressWatchThread,
    kAddressHandlerThread,
    kKeepAliveThread,
    kResendThread,
    kPendingSessionThread,
    kThreadCount
  };

  struct Parts {
    CLog& log;
    INetwork& network;
    IWaits& waits;
    ISessionWindow& window;
    const Timings& timings;
    CSessionTable& table;
    CSessionEvents& events;
    CSessionNotifications& notifications;
    // The keep-alive interval in seconds that the servers gave last.
    std::function<uint32_t()> keepAliveInterval;
  };

  explicit CWorkerThreads(Parts parts) : m_parts(std::move(parts)) {}
  // Stops the threads that still run (quietly, see Join).
  ~CWorkerThreads() { Join(); }
  CWorkerThreads(const CWorkerThreads&) = delete;
  CWorkerThreads& operator=(const CWorkerThreads&) = delete;

  void Start();
  // Signals the stop event and waits for every thread, in the stop order,
  // each without a time limit.
  void Stop();
  // Signals the stop event and waits up to `graceMs` for the threads. True
  // when all ended; false when one is still busy, e.g. inside a send.
  bool End(uint32_t graceMs);
  // Signals the stop event and joins every thread.
  void Join();

  uint32_t ExitCode(Index i) const { return m_threads[i].ExitCode(); }

  // The keep-alive thread's wait for a server interval of `seconds`: the
  // interval kept within 1 s and kMaxKeepAliveSeconds, times the unit, in
  // 64 bits and never reaching an unlimited wait.
  static uint32_t KeepAliveWaitMs(uint32_t seconds, uint32_t unitMs);
  static constexpr uint32_t kMaxKeepAliveSeconds = 86400;
  // Re-send passes after a failure before the timer gives up until an
  // ordinary pass resets the count.
  static constexpr uint32_t kMaxResendTries = CSessionEvents::kResendTries;

 private:
  uint32_t AddressWatchThread();
  uint32_t AddressHandlerThread();
  uint32_t KeepAliveThread();
  uint32_t ResendThread();
  uint32_t PendingSessionThread();
  // A failed wait of an address-change thread: logged once per run of
  // failures, then a pause of the retry interval. False when the agent
  // stops meanwhile.
  bool PauseAfterFailedWait(const char* thread, uint32_t& failures);
  // Closes a run of failed waits with one line.
  void EndFailedWaits(const char* thread, uint32_t& failures);

  Parts m_parts;
  CEvent m_stopEvent{CEvent::ResetPolicy::kManual, CEvent::InitialState::kNotSignaled};
  CEvent m_addressEvent{CEvent::ResetPolicy::kAutomatic, CEvent::InitialState::kNotSignaled};
  std::array<CWorkerThread, kThreadCount> m_threads;
};

}  // namespace lindqvar
