#include "agent/session_manager.h"

#include <cstring>

#include "agent/catalogue.h"
#include "agent/state.h"
#include "agent/verification_settings.h"
#include "platform/os.h"
#include "protocol/transport/tls_client.h"

namespace lindqvar {

namespace {
constexpr char16_t kLogName[] = u"FA_LINDQ";
// Re-send passes after a failure before the timer gives up until an
// ordinary pass resets the count.
constexpr uint32_t kMaxResendTries = 20;

bool IsLoopbackOrLinkLocalV4(const uint8_t* a) {
  return a[0] == 127 || (a[0] == 169 && a[1] == 254);
}
uint16_t FirstGroup(const uint8_t* a) { return static_cast<uint16_t>(a[0] << 8 | a[1]); }
}  // namespace

CSessionManager::CSessionManager(const Platform& platform)
    : m_platform(platform),
      m_waits(platform.waits ? *platform.waits : m_plainWaits),
      m_support(*platform.support),
      m_registry(*platform.registry),
      m_network(*platform.network),
      m_log(*platform.support),
      m_addresses(m_log, *platform.network, *platform.adapters, *platform.hyperv, std::string(), 0),
      m_identifiers(m_log, *platform.support, *platform.registry),
      m_delivery(m_log, *platform.support, *platform.network, m_platform.timings),
      m_sessions(m_log,
                 [this](CTerminalSession& record, uint32_t session) {
                   const UserLookup system{*m_platform.accounts, *m_platform.registry,
                                           *m_platform.console, m_platform.timings};
                   return LoadSessionUser(system, record, session, m_log,
                                          m_settings.PreferAzure());
                 }),
      m_events(SessionEventParts{m_log, *platform.support, *platform.sessions, *platform.window,
                                 m_platform.timings, m_sessions, m_addresses, m_identifiers,
                                 m_delivery}) {
  m_delivery.SetReachabilityCallback([this](uint32_t state) { SetState(state); });
  if (platform.securityPackage && platform.impersonation) {
    m_ntlmPackage = std::make_unique<CNtlmPackage>(*platform.securityPackage);
    m_ntlmRelay = std::make_unique<CNtlmRelay>(m_log, *platform.support, *platform.impersonation,
                                               *m_ntlmPackage);
    m_delivery.SetNtlmRelay(m_ntlmRelay.get());
  }
  SetState(kNotConfigured);
}

CSessionManager::~CSessionManager() {
  // When a settings change ends the process, Stop has not run and the
  // workers are still going. The process is about to end; stopping them here
  // (quietly: no catalogue event, no log release) lets the manager be torn
  // down without a worker touching freed members.
  StopWorkers();
  WriteFinalState();
}

void CSessionManager::SetState(uint32_t state) {
  std::lock_guard<std::mutex> lock(m_stateLock);
  if (m_finalState) return;
  m_dwState.store(state);
  WriteState(m_registry, m_log, state);
}

void CSessionManager::WriteFinalState() {
  std::lock_guard<std::mutex> lock(m_stateLock);
  m_finalState = true;
  m_dwState.store(kNotConfigured);
  WriteState(m_registry, m_log, kNotConfigured);
}

uint32_t CSessionManager::Start() {
  if (LogHandle old = m_log.Handle()) {
    m_support.log_deinitialize(old);
    m_log.SetHandle(nullptr);
  }
  m_log.SetHandle(m_support.log_initialize(kLogName));
  // The start event's text has a version insert, but none is passed.
  m_support.LogW(kEventStarting, nullptr);

  Init();

  m_threads[kNotificationThread].Start([this] { return NotificationThread(); });
  m_threads[kAddressWatchThread].Start([this] { return AddressWatchThread(); });
  m_threads[kAddressHandlerThread].Start([this] { return AddressHandlerThread(); });
  m_threads[kKeepAliveThread].Start([this] { return KeepAliveThread(); });
  m_threads[kResendThread].Start([this] { return ResendThread(); });
  m_threads[kPendingSessionThread].Start([this] { return PendingSessionThread(); });
  return 0;
}

uint32_t CSessionManager::Stop() {
  m_stopEvent.Set();
  // Waited for in this order, each without a time limit.
  for (ThreadIndex i : {kNotificationThread, kKeepAliveThread, kResendThread, kAddressWatchThread,
                        kAddressHandlerThread, kPendingSessionThread}) {
    WorkerThread& t = m_threads[i];
    if (!t.Started()) continue;
    while (t.ExitCode() == WorkerThread::kStillActive) SleepMs(m_platform.timings.threadExitPollMs);
    t.Join();
  }
  m_support.LogW(kEventStopping, nullptr);
  if (LogHandle h = m_log.Handle()) {
    m_log.SetHandle(nullptr);
    m_support.log_deinitialize(h);
  }
  m_sessions.ClearPendingSessions();
  m_settings.ClearServers();
  m_delivery.SetConfiguration(m_settings.Delivery());
  m_network.Cleanup();
  return 0;
}

void CSessionManager::StopWorkers() {
  m_stopEvent.Set();
  for (WorkerThread& t : m_threads) t.Join();
}

bool CSessionManager::EndWorkers(uint32_t graceMs) {
  m_stopEvent.Set();
  const uint32_t start = TickCount();
  for (;;) {
    bool running = false;
    for (const WorkerThread& t : m_threads)
      running = running || (t.Started() && t.ExitCode() == WorkerThread::kStillActive);
    if (!running) break;
    if (TickCount() - start >= graceMs) return false;
    SleepMs(m_platform.timings.threadExitPollMs);
  }
  for (WorkerThread& t : m_threads) t.Join();
  return true;
}

uint32_t CSessionManager::Init() {
  SleepMs(m_platform.timings.startupDelayMs);
  m_network.Startup();
  // The process entry has initialised OpenSSL already, without its
  // configuration file; this repeats it for a manager built elsewhere.
  InitTlsLibrary();
  if (m_ntlmPackage) m_ntlmPackage->PreparePackage();  // its result is not checked

  m_hostName = m_network.HostName();
  if (m_hostName.size() > 255) m_hostName.resize(255);
  m_addresses.SetHostName(m_hostName);

  m_addresses.LoadHyperVExternalPorts();
  m_addresses.BuildVirtualAdapterList();
  CollectHostAddresses();
  m_log.Debug("m_count:%d, m_count6:%d", static_cast<int>(m_count), static_cast<int>(m_count6));
  PublishWorkstation();

  std::unique_ptr<IRegistryKey> key;
  if (m_registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath, reg_access::kRead, key) !=
          kErrorSuccess ||
      !key) {
    m_log.Debug("Failed to open registry %s", kAgentKeyPathA);
    return 0;
  }

  m_settings.Load(m_support, m_log);
  PublishSettings();
  m_delivery.SetServerVerification(ReadServerVerification(m_registry));
  ApplyUserExclusions();
  SetState(m_settings.Servers().empty() ? kNotConfigured : kConfiguredUnreachable);
  m_identifiers.LoadClientUuid();
  ReadComputerDomain();
  PublishWorkstation();
  EnumerateSessions();
  return 1;
}

void CSessionManager::EnumerateSessions() {
  uint32_t current = kNoSession;
  std::vector<SessionInfo> sessions;
  ISessions& wts = *m_platform.sessions;
  if (!wts.Enumerate(sessions)) {
    m_log.Debug("failed to call WTSEnumerateSessions");
  } else {
    m_log.Debug("Succeeded to call WTSEnumerateSessions, dwSICount:%d",
                static_cast<int>(sessions.size()));
    for (const SessionInfo& info : sessions) {
      const uint32_t r = m_sessions.AddSession(info.id);
      if (r == 0)
        m_log.Debug("failed to add session %d", static_cast<int>(info.id));
      else if (r != CSessionTable::kExcluded)  // which AddSession has logged
        m_log.Debug("Succeede to add session %d", static_cast<int>(info.id));
      if (info.state == SessionState::kActive) {
        // A later active session replaces an earlier one.
        current = info.id;
        m_log.Debug("Found current user, session ID: %d", static_cast<int>(current));
      }
    }
  }
  if (current == kNoSession) {
    current = wts.ActiveConsoleSession();
    m_log.Debug("call WTSGetActiveConsoleSessionId, session ID: %d", static_cast<int>(current));
  }
  if (current == kNoSession) return;
  m_log.Debug("current active session %d", static_cast<int>(current));
  if (!m_sessions.FindSession(current)) {
    m_log.Debug("Did not find current logon session %d in session list", static_cast<int>(current));
    return;
  }
  m_log.Debug("Found current logon session %d in session list", static_cast<int>(current));
  m_events.SendSessionEvent(current, 1, 0);
}

void CSessionManager::CollectHostAddresses() {
  std::lock_guard<std::mutex> lock(m_csAddresses);
  m_IPv4 = {};
  m_IPv6 = {};
  m_count = 0;
  m_count6 = 0;
  std::vector<ResolvedAddress> addresses;
  if (m_network.Resolve(m_hostName, addresses) != 0) return;
  for (const ResolvedAddress& a : addresses) {
    if (a.family == kFamilyIPv4) {
      if (IsLoopbackOrLinkLocalV4(a.bytes.data())) continue;
      if (m_count < 4 && m_addresses.IsAddressAllowed(a)) {
        uint32_t v;
        std::memcpy(&v, a.bytes.data(), 4);  // stays in network byte order
        m_IPv4[m_count++] = v;
      }
    } else if (a.family == kFamilyIPv6) {
      const uint16_t first = FirstGroup(a.bytes.data());
      if (first == 0 || m_count6 >= 4) continue;
      if (!m_addresses.IsAddressAllowed(a) || (first & 0xffc0) == 0xfe80) continue;
      std::memcpy(m_IPv6[m_count6++].data(), a.bytes.data(), 16);
    }
  }
}

void CSessionManager::ReadComputerDomain() {
  m_domainName.clear();
  std::u16string domain;
  uint32_t error = 0;
  if (!m_network.PhysicalDnsDomain(domain, error)) {
    m_log.Error("Failed to get computer domain name\n");
    return;
  }
  if (domain.empty()) {
    m_log.Error("Failed to get computer domain name, dwSize = 0\n");
    return;
  }
  m_domainName = WideToAnsi(domain);
  if (m_domainName.size() > 255) m_domainName.resize(255);
}

void CSessionManager::ApplyUserExclusions() {
  std::vector<uint8_t> value = ReadUserExclusions(m_registry);
  // Unchanged since the last read: nothing to parse, nothing to log again.
  if (m_exclusionsRead && value == m_exclusionsValue) return;
  m_exclusionsRead = true;
  m_exclusionsValue = std::move(value);
  std::vector<std::string> problems;
  CUserExclusions exclusions = CUserExclusions::Parse(m_exclusionsValue, problems);
  for (const std::string& problem : problems) m_log.Error("%s", problem.c_str());
  if (!exclusions.Empty())
    m_log.Debug("ExcludedUsers: %d pattern(s)", static_cast<int>(exclusions.Patterns().size()));
  m_sessions.SetExclusions(std::move(exclusions));
}

uint32_t CSessionManager::ReloadSettings() {
  const uint32_t changed = m_settings.IsChanged(m_support);
  // Swaps in a new snapshot; a pass in progress keeps the one it took.
  m_settings.Apply(m_support, m_log);
  PublishSettings();
  PublishWorkstation();
  // Server verification is not part of the change test: it applies from the
  // next connection on without ending the agent.
  m_delivery.SetServerVerification(ReadServerVerification(m_registry));
  // Nor is the exclusion list: each session meets the new list at its next
  // event.
  ApplyUserExclusions();
  if (m_settings.Servers().empty()) SetState(kNotConfigured);
  return changed;
}

int64_t CSessionManager::WindowProc(uint32_t message, uint64_t wParam, int64_t lParam) {
  return m_events.WindowProc(message, wParam, lParam);
}

void CSessionManager::PublishSettings() {
  m_addresses.SetAddressCategory(m_settings.AddressCategory());
  // Passes that start from now on take the new servers and key.
  m_delivery.SetConfiguration(m_settings.Delivery());
}

void CSessionManager::PublishWorkstation() {
  WorkstationSnapshot w;
  w.facts.computerName = m_hostName;
  w.facts.dnsDomain = m_domainName;
  w.facts.preferAzure = m_settings.PreferAzure();
  IpAddress local;
  {
    std::lock_guard<std::mutex> lock(m_csAddresses);
    w.localIPv4 = m_IPv4[0];
    // The connection log line names the first IPv4 address, or the first
    // IPv6 one when there is no IPv4 address.
    if (m_count == 0 && m_count6 != 0)
      local.SetIPv6(m_IPv6[0].data());
    else
      local.SetIPv4(m_IPv4[0]);
  }
  m_delivery.SetLocalAddress(local);
  m_events.SetWorkstation(w);
}

uint32_t CSessionManager::NotificationThread() {
  ISessionWindow& window = *m_platform.window;
  if (!window.Create(*this)) return 0;
  if (window.RegisterNotifications()) m_bNotifyRegistered = 1;
  for (;;) {
    // The session service may come up after the agent: retry every round.
    if (m_bNotifyRegistered == 0 && window.RegisterNotifications()) m_bNotifyRegistered = 1;
    window.Drain();
    // Until registered, come back after the pump interval to try again;
    // then sleep until a message arrives or the agent stops, so an idle
    // agent does not wake 100 times a second.
    const uint32_t interval = m_platform.timings.pumpIntervalMs;
    const PumpWait r =
        window.WaitForStopOrMessage(m_stopEvent, m_bNotifyRegistered ? kInfinite : interval);
    if (r == PumpWait::kStop) break;
    // A wait that cannot include the queue falls back to polling it.
    if (r == PumpWait::kFailed && m_stopEvent.Wait(interval) == WaitResult::kSignaled) break;
  }
  window.DestroyAndUnregister();
  return 1;
}

bool CSessionManager::PauseAfterFailedWait(const char* thread, uint32_t& failures) {
  if (failures++ == 0) {
    m_log.Error("%s: waiting for an address change failed, error %d; trying again every %d ms",
                thread, static_cast<int>(LastErrorCode()),
                static_cast<int>(m_platform.timings.addressWaitRetryMs));
  }
  return m_stopEvent.Wait(m_platform.timings.addressWaitRetryMs) != WaitResult::kSignaled;
}

void CSessionManager::EndFailedWaits(const char* thread, uint32_t& failures) {
  if (failures == 0) return;
  m_log.Debug("%s: waiting for an address change works again after %d failed waits", thread,
              static_cast<int>(failures));
  failures = 0;
}

uint32_t CSessionManager::AddressWatchThread() {
  std::unique_ptr<IAddressChangeWatch> watch = m_network.CreateAddressChangeWatch();
  const uint32_t error = watch ? watch->Arm() : 1u;
  if (error != 0) {
    m_log.Debug("NotifyAddrChange error...%d", static_cast<int>(error));
    return 0;
  }
  uint32_t failures = 0;
  for (;;) {
    const int which = m_waits.WaitAny(m_stopEvent, watch->Changed(), kInfinite);
    if (which == 0) break;
    if (which == 1) {
      EndFailedWaits("address watch", failures);
      watch->Changed().Reset();
      m_addressEvent.Set();
      watch->Rearm();
    } else if (!PauseAfterFailedWait("address watch", failures)) {
      break;
    }
  }
  return 1;
}

uint32_t CSessionManager::AddressHandlerThread() {
  uint32_t failures = 0;
  for (;;) {
    const int which = m_waits.WaitAny(m_stopEvent, m_addressEvent, kInfinite);
    if (which == 0) return 1;
    // A failed wait says nothing about the addresses: no round for it.
    if (which != 1) {
      if (!PauseAfterFailedWait("address handler", failures)) return 1;
      continue;
    }
    EndFailedWaits("address handler", failures);
    // Checks at about 0, 5 and 10 seconds after the change; signals that
    // arrive meanwhile fold into one further check.
    for (int round = 0; round < 3; ++round) {
      m_events.CheckAddressChange();
      if (round < 2 &&
          m_stopEvent.Wait(m_platform.timings.addressRoundWaitMs) == WaitResult::kSignaled)
        return 1;
    }
  }
}

uint32_t CSessionManager::KeepAliveWaitMs(uint32_t seconds, uint32_t unitMs) {
  const uint64_t kept = seconds < 1 ? 1 : (seconds > kMaxKeepAliveSeconds ? kMaxKeepAliveSeconds
                                                                          : seconds);
  const uint64_t ms = kept * unitMs;
  return ms >= kInfinite ? kInfinite - 1 : static_cast<uint32_t>(ms);
}

uint32_t CSessionManager::KeepAliveThread() {
  for (;;) {
    // The server sets the interval; a value whose milliseconds do not fit
    // 32 bits must not wrap into a short wait and a flood of keep-alives.
    const uint32_t waitMs =
        KeepAliveWaitMs(m_delivery.KeepAliveInterval(), m_platform.timings.keepAliveUnitMs);
    const WaitResult r = m_waits.Wait(m_stopEvent, waitMs);
    if (r == WaitResult::kSignaled) return 1;
    if (r == WaitResult::kTimeout) m_events.SendKeepAliveEvent();
  }
}

uint32_t CSessionManager::ResendThread() {
  for (;;) {
    const WaitResult r = m_stopEvent.Wait(m_platform.timings.resendPeriodMs);
    if (r == WaitResult::kSignaled) return 1;
    if (r == WaitResult::kTimeout && m_events.ResendPending() == 1 &&
        m_events.ResendTries() < kMaxResendTries) {
      m_events.ResendLogonEvent();
    }
  }
}

uint32_t CSessionManager::PendingSessionThread() {
  for (;;) {
    const WaitResult r = m_stopEvent.Wait(m_platform.timings.pendingRetryPeriodMs);
    if (r == WaitResult::kSignaled) return 1;
    if (r == WaitResult::kTimeout)
      m_sessions.RetryPendingSessions(
          [this](uint32_t session) { m_events.SendSessionEvent(session, 1, 0); });
  }
}

}  // namespace lindqvar
