#include "agent/session_manager.h"

#include "agent/catalogue.h"
#include "agent/state.h"
#include "agent/verification_settings.h"
#include "platform/os.h"
#include "protocol/transport/tls_client.h"

namespace lindqvar {

namespace {
constexpr char16_t kLogName[] = u"FA_LINDQ";
}  // namespace

CSessionManager::CSessionManager(const Platform& platform)
    : m_platform(platform),
      m_support(*platform.support),
      m_registry(*platform.registry),
      m_network(*platform.network),
      m_log(*platform.support),
      m_addresses(m_log, *platform.network, *platform.adapters, *platform.hyperv, std::string(), 0),
      m_identifiers(m_log, *platform.support, *platform.registry),
      m_delivery(m_log, *platform.support, *platform.network, m_platform.timings),
      m_sessions(m_log, UserLookup{*platform.accounts, *platform.registry, *platform.console,
                                   m_platform.timings}),
      m_events(m_log, *platform.support, m_sessions, m_addresses, m_identifiers, m_delivery),
      m_notifications(m_log, *platform.sessions, m_platform.timings, m_sessions, m_events),
      m_workers({m_log, *platform.network, platform.waits ? *platform.waits : m_plainWaits,
                 *platform.window, m_platform.timings, m_sessions, m_events, m_notifications,
                 [this] { return m_delivery.KeepAliveInterval(); }}) {
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
  m_workers.Join();
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
  m_workers.Start();
  return 0;
}

uint32_t CSessionManager::Stop() {
  // Waited for in their stop order, each without a time limit.
  m_workers.Stop();
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

uint32_t CSessionManager::Init() {
  SleepMs(m_platform.timings.startupDelayMs);
  m_network.Startup();
  // The process entry has initialised OpenSSL already, without its
  // configuration file; this repeats it for a manager built elsewhere.
  InitTlsLibrary();
  if (m_ntlmPackage) m_ntlmPackage->PreparePackage();  // its result is not checked

  TakeHostName();

  m_addresses.LoadHyperVExternalPorts();
  m_addresses.BuildVirtualAdapterList();
  const AddressSet host = m_addresses.HostAddresses();
  m_IPv4 = host.ipv4;
  m_count = host.count4;
  m_IPv6 = host.ipv6;
  m_count6 = host.count6;
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
  m_events.SetResendLogoff(ReadResendLogoff(m_registry));
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

void CSessionManager::ReadComputerDomain() {
  m_domainName = lindqvar::ReadComputerDomain(m_network, m_log);
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

void CSessionManager::TakeHostName() {
  m_hostName = ReadHostName(m_network);
  m_addresses.SetHostName(m_hostName);
}

uint32_t CSessionManager::ReloadSettings() {
  const uint32_t changed = m_settings.IsChanged(m_support);
  // Without a host name (gethostname failed at the start) the agent has no
  // address to report and no workstation name: it is taken again here.
  if (m_hostName.empty()) TakeHostName();
  // Swaps in a new snapshot; a pass in progress keeps the one it took.
  m_settings.Apply(m_support, m_log);
  PublishSettings();
  PublishWorkstation();
  // Server verification is not part of the change test: it applies from the
  // next connection on without ending the agent.
  m_delivery.SetServerVerification(ReadServerVerification(m_registry));
  // Nor are the opt-ins of session reporting: each session meets the new
  // exclusion list at its next event, and logoffs are kept (or the kept
  // ones dropped) from now on.
  ApplyUserExclusions();
  m_events.SetResendLogoff(ReadResendLogoff(m_registry));
  if (m_settings.Servers().empty()) SetState(kNotConfigured);
  return changed;
}

void CSessionManager::PublishSettings() {
  m_addresses.SetAddressCategory(m_settings.AddressCategory());
  m_sessions.SetPreferAzure(m_settings.PreferAzure());
  // Passes that start from now on take the new servers and key.
  m_delivery.SetConfiguration(m_settings.Delivery());
}

void CSessionManager::PublishWorkstation() {
  WorkstationSnapshot w;
  w.facts.computerName = m_hostName;
  w.facts.dnsDomain = m_domainName;
  w.facts.preferAzure = m_settings.PreferAzure();
  w.localIPv4 = m_IPv4[0];
  // The connection log line names the first IPv4 address, or the first
  // IPv6 one when there is no IPv4 address.
  IpAddress local;
  if (m_count == 0 && m_count6 != 0)
    local.SetIPv6(m_IPv6[0].data());
  else
    local.SetIPv4(m_IPv4[0]);
  m_delivery.SetLocalAddress(local);
  m_events.SetWorkstation(w);
}

}  // namespace lindqvar
