// The agent: one CSessionManager for the life of the process. It owns the
// settings, the reachability state, the worker threads and their events,
// and (as they are added) the session table, the address lists and the
// delivery to the authentication servers.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "agent/settings.h"
#include "platform/event.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "platform/worker_thread.h"
#include "session/vir_window.h"

namespace lindqvar {

// Window messages the manager handles.
inline constexpr uint32_t kWmDestroy = 0x0002;
inline constexpr uint32_t kWmPowerBroadcast = 0x0218;
inline constexpr uint32_t kWmWtsSessionChange = 0x02B1;

class CSessionManager : public CVirWindow {
 public:
  // The worker threads, in the order Start creates them.
  enum ThreadIndex : size_t {
    kNotificationThread = 0,
    kAddressWatchThread,
    kAddressHandlerThread,
    kKeepAliveThread,
    kResendThread,
    kPendingSessionThread,
    kThreadCount
  };

  explicit CSessionManager(const Platform& platform);
  ~CSessionManager() override;
  CSessionManager(const CSessionManager&) = delete;
  CSessionManager& operator=(const CSessionManager&) = delete;

  int64_t WindowProc(uint32_t message, uint64_t wParam, int64_t lParam) override;
  // Opens the log, runs Init and starts the six worker threads. Returns 0.
  virtual uint32_t Start();
  // Signals the threads, waits for all of them, closes the log and releases
  // the lists. Returns 0.
  virtual uint32_t Stop();

  // The start-up sequence. 1 when the settings key opened and the sequence
  // ran to its end, else 0.
  uint32_t Init();

  // The settings re-read of the control loop: the change test, then the
  // apply step whatever its result. Returns the change test's result.
  uint32_t ReloadSettings();

  uint32_t State() const { return m_dwState.load(); }
  // Sets the state and writes it through to the registry.
  void SetState(uint32_t state);

  uint32_t KeepAliveInterval() const { return m_dwKeepAliveInterval.load(); }
  const CAgentSettings& Settings() const { return m_settings; }
  const std::string& HostName() const { return m_hostName; }
  const std::string& DomainName() const { return m_domainName; }
  uint32_t IPv4Count() const { return m_count; }
  uint32_t IPv6Count() const { return m_count6; }
  uint32_t ThreadExitCode(ThreadIndex i) const { return m_threads[i].ExitCode(); }

  // The list of sessions whose user is not yet known.
  void AddPendingSession(uint32_t session);
  void RemovePendingSession(uint32_t session);
  void ClearPendingSessions();
  size_t PendingSessionCount();

 private:
  struct PendingSession {
    uint32_t session;
    uint32_t tries;
  };

  uint32_t NotificationThread();
  uint32_t AddressWatchThread();
  uint32_t AddressHandlerThread();
  uint32_t KeepAliveThread();
  uint32_t ResendThread();
  uint32_t PendingSessionThread();
  void SendKeepAliveEvent();
  void ResendLogonEvent();
  void RetryPendingSessions();
  void CollectHostAddresses();
  void ReadComputerDomain();
  void StopWorkers();

  Platform m_platform;
  ISupportLibrary& m_support;
  IRegistry& m_registry;
  INetwork& m_network;
  CLog m_log;

  Event m_stopEvent{Event::ResetPolicy::kManual, Event::InitialState::kNotSignaled};
  Event m_addressEvent{Event::ResetPolicy::kAutomatic, Event::InitialState::kNotSignaled};
  std::array<WorkerThread, kThreadCount> m_threads;

  // The session-table lock (held for every whole send), the pending-list
  // lock, and the lock of the address-resolution state. The pending-list
  // lock may be held while the table lock is taken, never the reverse.
  std::recursive_mutex m_csSessions;
  std::recursive_mutex m_csPending;
  std::recursive_mutex m_csResolve;

  std::atomic<uint32_t> m_dwState{0};
  std::atomic<uint32_t> m_dwKeepAliveInterval{180};
  std::atomic<uint32_t> m_bNotifyRegistered{0};
  uint32_t m_bModeFlag = 1;
  uint32_t m_bLogTickCount = 1;
  uint32_t m_bLogon = 0;
  uint32_t m_dwCurrentSession = 0;
  std::atomic<uint32_t> m_bResendPending{0};
  std::atomic<uint32_t> m_dwResendTries{0};

  CAgentSettings m_settings;
  std::string m_hostName;
  std::string m_domainName;
  std::array<uint32_t, 4> m_IPv4{};
  uint32_t m_count = 0;
  std::array<std::array<uint8_t, 16>, 4> m_IPv6{};
  uint32_t m_count6 = 0;

  std::list<std::unique_ptr<PendingSession>> m_pending;
};

}  // namespace lindqvar
