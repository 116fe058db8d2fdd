// The agent: one CSessionManager for the life of the process. It owns the
// settings, the reachability state, the worker threads and their events,
// the session table, the local addresses and identifiers, and the delivery
// to the authentication servers. The algorithms live in the classes it
// owns; this class wires them together and runs the threads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "agent/settings.h"
#include "identity/address_discovery.h"
#include "identity/identifiers.h"
#include "platform/event.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "platform/worker_thread.h"
#include "protocol/delivery/authenticator_client.h"
#include "protocol/ntlm/ntlm_package.h"
#include "protocol/ntlm/ntlm_relay.h"
#include "session/session_events.h"
#include "session/session_table.h"
#include "session/vir_window.h"

namespace lindqvar {

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
  // apply step whatever its result. Returns the change test's result. Never
  // waits for a delivery: passes keep the snapshot they started with.
  uint32_t ReloadSettings();

  // When a settings change ends the process: signals the workers and waits
  // up to `graceMs` for them. True when all ended (the manager can then be
  // destroyed); false when one is still busy, e.g. inside a send, and is
  // left for the end of the process to take.
  bool EndWorkers(uint32_t graceMs);

  uint32_t State() const { return m_dwState.load(); }
  // Sets the state and writes it through to the registry; nothing once the
  // final state is written.
  void SetState(uint32_t state);
  // Writes NOT_CONFIGURED as this process's last state, on every way out:
  // a send that ends afterwards does not overwrite it.
  void WriteFinalState();

  // Sends one session event (see CSessionEvents). 1 when acknowledged.
  uint32_t SendSessionEvent(uint32_t session, uint32_t logon, uint32_t wakeup) {
    return m_events.SendSessionEvent(session, logon, wakeup);
  }

  uint32_t KeepAliveInterval() const { return m_delivery.KeepAliveInterval(); }
  // The keep-alive thread's wait for a server interval of `seconds`: the
  // interval kept within 1 s and kMaxKeepAliveSeconds, times the unit, in
  // 64 bits and never reaching an unlimited wait.
  static uint32_t KeepAliveWaitMs(uint32_t seconds, uint32_t unitMs);
  static constexpr uint32_t kMaxKeepAliveSeconds = 86400;
  const CAuthenticatorClient& Delivery() const { return m_delivery; }
  const CAgentSettings& Settings() const { return m_settings; }
  const std::string& HostName() const { return m_hostName; }
  const std::string& DomainName() const { return m_domainName; }
  uint32_t IPv4Count() const { return m_count; }
  uint32_t IPv6Count() const { return m_count6; }
  uint32_t ThreadExitCode(ThreadIndex i) const { return m_threads[i].ExitCode(); }
  CSessionTable& Sessions() { return m_sessions; }
  // Null when the platform gives no NTLM package.
  CNtlmPackage* NtlmPackage() { return m_ntlmPackage.get(); }
  CNtlmRelay* NtlmRelay() { return m_ntlmRelay.get(); }
  CSessionEvents& Events() { return m_events; }

 private:
  uint32_t NotificationThread();
  uint32_t AddressWatchThread();
  uint32_t AddressHandlerThread();
  uint32_t KeepAliveThread();
  uint32_t ResendThread();
  uint32_t PendingSessionThread();
  void CollectHostAddresses();
  void ReadComputerDomain();
  // Reads ExcludedUsers and hands the list to the session table; problems
  // with its entries are logged when the value has changed since the last
  // read.
  void ApplyUserExclusions();
  void EnumerateSessions();
  void StopWorkers();
  // A failed wait of an address-change thread: logged once per run of
  // failures, then a pause of the retry interval. False when the agent
  // stops meanwhile.
  bool PauseAfterFailedWait(const char* thread, uint32_t& failures);
  // Closes a run of failed waits with one line.
  void EndFailedWaits(const char* thread, uint32_t& failures);

  // Hands what the settings and the start-up found to the delivery and the
  // event sender.
  void PublishSettings();
  void PublishWorkstation();

  Platform m_platform;
  IWaits m_plainWaits;
  IWaits& m_waits;
  ISupportLibrary& m_support;
  IRegistry& m_registry;
  INetwork& m_network;
  CLog m_log;

  Event m_stopEvent{Event::ResetPolicy::kManual, Event::InitialState::kNotSignaled};
  Event m_addressEvent{Event::ResetPolicy::kAutomatic, Event::InitialState::kNotSignaled};
  std::array<WorkerThread, kThreadCount> m_threads;

  std::atomic<uint32_t> m_dwState{0};
  std::mutex m_stateLock;  // orders the state writes against the final one
  bool m_finalState = false;
  std::atomic<uint32_t> m_bNotifyRegistered{0};
  uint32_t m_bModeFlag = 1;

  CAgentSettings m_settings;
  // Set by Init before any worker runs, read by them afterwards.
  std::string m_hostName;
  std::string m_domainName;
  bool m_exclusionsRead = false;
  std::vector<uint8_t> m_exclusionsValue;  // as last read
  // The first address collection; guarded by its own lock.
  std::mutex m_csAddresses;
  std::array<uint32_t, 4> m_IPv4{};
  uint32_t m_count = 0;
  std::array<std::array<uint8_t, 16>, 4> m_IPv6{};
  uint32_t m_count6 = 0;

  CAddressDiscovery m_addresses;
  CIdentifiers m_identifiers;
  CAuthenticatorClient m_delivery;
  // The NTLM client operations (one table for the process) and the relay
  // that uses them.
  std::unique_ptr<CNtlmPackage> m_ntlmPackage;
  std::unique_ptr<CNtlmRelay> m_ntlmRelay;
  CSessionTable m_sessions;
  CSessionEvents m_events;
};

}  // namespace lindqvar
