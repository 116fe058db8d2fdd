// The agent: one CSessionManager for the life of the process. It builds
// the parts and wires them together once: the settings and the reachability
// state, the local addresses and identifiers, the delivery to the
// authentication servers, the session table, the event sender with the
// handling of notifications, and the worker threads that drive them. A
// notification then flows down through those parts and never back here;
// the one way back is the delivery's reachability callback, wired to the
// state.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "agent/settings.h"
#include "agent/worker_threads.h"
#include "platform/platform.h"
#include "protocol/delivery/authenticator_client.h"
#include "protocol/ntlm/ntlm_package.h"
#include "protocol/ntlm/ntlm_relay.h"

namespace lindqvar {

class CSessionManager {
 public:
  explicit CSessionManager(const Platform& platform);
  ~CSessionManager();
  CSessionManager(const CSessionManager&) = delete;
  CSessionManager& operator=(const CSessionManager&) = delete;

  // Opens the log, runs Init and starts the worker threads. Returns 0.
  uint32_t Start();
  // Stops the threads, closes the log and releases the lists. Returns 0.
  uint32_t Stop();

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
  bool EndWorkers(uint32_t graceMs) { return m_workers.End(graceMs); }

  uint32_t State() const { return m_dwState.load(); }
  // Sets the state and writes it through to the registry; nothing once the
  // final state is written.
  void SetState(uint32_t state);
  // Writes NOT_CONFIGURED as this process's last state, on every way out:
  // a send that ends afterwards does not overwrite it.
  void WriteFinalState();

  const CAgentSettings& Settings() const { return m_settings; }
  const std::string& DomainName() const { return m_domainName; }
  uint32_t ThreadExitCode(CWorkerThreads::Index i) const { return m_workers.ExitCode(i); }
  CSessionTable& Sessions() { return m_sessions; }
  // Null when the platform gives no NTLM package.
  CNtlmPackage* NtlmPackage() { return m_ntlmPackage.get(); }
  CSessionEvents& Events() { return m_events; }
  CSessionNotifications& Notifications() { return m_notifications; }

 private:
  // gethostname, for the addresses and the records.
  void TakeHostName();
  void ReadComputerDomain();
  // Reads ExcludedUsers and hands the list to the session table; problems
  // with its entries are logged when the value has changed since the last
  // read.
  void ApplyUserExclusions();
  void EnumerateSessions();
  // Hands what the settings and the start-up found to the parts that use it.
  void PublishSettings();
  void PublishWorkstation();

  Platform m_platform;
  IWaits m_plainWaits;
  ISupportLibrary& m_support;
  IRegistry& m_registry;
  INetwork& m_network;
  CLog m_log;

  std::atomic<uint32_t> m_dwState{0};
  std::mutex m_stateLock;  // orders the state writes against the final one
  bool m_finalState = false;

  CAgentSettings m_settings;
  // Set by Init before any worker runs, read by them afterwards.
  std::string m_hostName;
  std::string m_domainName;
  bool m_exclusionsRead = false;
  std::vector<uint8_t> m_exclusionsValue;  // as last read
  // The first address collection, made by Init on the control thread.
  IPv4List m_IPv4{};
  uint32_t m_count = 0;
  IPv6List m_IPv6{};
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
  CSessionNotifications m_notifications;
  // Last: destroyed first, so no worker outlives the parts it uses.
  CWorkerThreads m_workers;
};

}  // namespace lindqvar
