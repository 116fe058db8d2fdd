#include "session/session_events.h"

#include "platform/os.h"
#include "platform/sessions.h"
#include "protocol/transport/ip_address.h"
#include "protocol/wire/wide_upper.h"

namespace lindqvar {

namespace {

// "CORP\mlind at 10.0.0.5,fd00::5": a kept logoff in its log lines.
std::string LogoffText(const CTerminalSession& entry, const AddressSet& set) {
  std::string text = entry.Domain() + "\\" + entry.UserName() + " at ";
  const char* separator = "";
  for (uint32_t i = 0; i < set.count4 && i < set.ipv4.size(); ++i, separator = ",") {
    IpAddress a;
    a.SetIPv4(set.ipv4[i]);
    text.append(separator).append(a.Text());
  }
  for (uint32_t i = 0; i < set.count6 && i < set.ipv6.size(); ++i, separator = ",") {
    IpAddress a;
    a.SetIPv6(set.ipv6[i].data());
    text.append(separator).append(a.Text());
  }
  return text;
}

// The names as the servers get them: upper-cased.
std::u16string SentName(const std::string& name) {
  std::u16string out = Utf8ToWide(name);
  for (char16_t& unit : out) unit = WideToUpper(unit);
  return out;
}

bool SameUser(const CTerminalSession& a, const CTerminalSession& b) {
  return SentName(a.UserName()) == SentName(b.UserName()) &&
         SentName(a.Domain()) == SentName(b.Domain());
}

}  // namespace

uint32_t CSessionEvents::SendSessionEvent(uint32_t session, uint32_t logon, uint32_t wakeup) {
  std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
  const AddressSet now = GatherAddresses();
  m_identifiers.LoadVrxSerial();
  m_identifiers.LoadVrxTenantId();

  if (logon == 1) m_dwCurrentSession = session;
  const CTerminalSession* entry = m_table.FindSession(session);
  if (entry) {
    m_bLogon = logon;
    m_log.Debug("Found session:%d in session table, m_bLogon:%d\n", static_cast<int>(session),
                static_cast<int>(m_bLogon.load()));
  } else {
    m_log.Debug("Did not found session:%d in session table, m_bLogon:%d\n",
                static_cast<int>(session), static_cast<int>(m_bLogon.load()));
  }
  const ReportKind kind = wakeup  ? ReportKind::kWakeup
                          : logon ? ReportKind::kLogon
                                  : ReportKind::kLogoff;
  // The user is back: a kept logoff of theirs would now withdraw them.
  if (logon == 1 && entry) DropKeptLogoffs(entry, "the user logged on again");

  if (!m_table.Allocated() || (now.count4 == 0 && now.count6 == 0)) {
    // No address to report: the re-send timer tries again.
    if (m_table.Allocated()) {
      RequestResend();
      // The servers still map the departing user to the addresses they
      // were told last.
      if (kind == ReportKind::kLogoff) KeepLogoff(session, m_last);
    }
    return 0;
  }
  if (!entry) return 0;

  const DeliveryResult result = Report(kind, session, *entry, now, false);
  WriteSessionLog(kind, *entry, result);
  if (kind == ReportKind::kLogoff && !result.delivered) KeepLogoff(session, now);
  return result.delivered ? 1 : 0;
}

void CSessionEvents::SendKeepAliveEvent() {
  SendCurrentSession("CSessionManager::SendKeepAliveEvent", 934, false);
}

void CSessionEvents::ResendLogonEvent() {
  SendCurrentSession("CSessionManager::ResendLogonEvent", 1002, true);
}

void CSessionEvents::SendCurrentSession(const char* routine, int line, bool resend) {
  std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
  const AddressSet now = GatherAddresses();
  const uint32_t session = m_dwCurrentSession.load();
  m_log.Debug("%s:%d, m_bLogon:%d, m_dwCurrentSession:%d", routine, line,
              static_cast<int>(m_bLogon.load()), static_cast<int>(session));
  if (m_bLogon.load() == 0 || !m_table.Allocated() || (now.count4 == 0 && now.count6 == 0)) return;
  // A user the ExcludedUsers list now names is withdrawn, not repeated.
  if (SetAsideIfExcluded(session)) return;
  const CTerminalSession* entry = m_table.FindSession(session);
  if (!entry) return;

  // The re-send repeats the keep-alive's message, and writes no delivery
  // record.
  const DeliveryResult result = Report(ReportKind::kKeepAlive, session, *entry, now, resend);
  if (!resend) WriteSessionLog(ReportKind::kKeepAlive, *entry, result);
}

void CSessionEvents::SetResendLogoff(bool on) {
  if (m_resendLogoff.exchange(on) != on) m_log.Debug("ResendLogoff:%d", on ? 1 : 0);
}

void CSessionEvents::KeepLogoff(uint32_t session, const AddressSet& addresses) {
  if (!m_resendLogoff.load() || (addresses.count4 == 0 && addresses.count6 == 0)) return;
  const CTerminalSession* entry = m_table.FindSession(session);
  if (!entry) return;
  const std::string text = LogoffText(*entry, addresses);
  if (m_table.Excludes(*entry)) {
    m_log.Debug("ResendLogoff: the logoff of %s is not kept: its user is on ExcludedUsers",
                text.c_str());
    return;
  }
  for (auto it = m_keptLogoffs.begin(); it != m_keptLogoffs.end(); ++it) {
    if (SameUser(it->entry, *entry) && !AddressSetChanged(it->addresses, addresses)) {
      m_keptLogoffs.erase(it);
      break;
    }
  }
  if (m_keptLogoffs.size() >= kMaxKeptLogoffs) {
    const KeptLogoff& oldest = m_keptLogoffs.front();
    m_log.Debug("ResendLogoff: dropped the logoff of %s: more than %d kept",
                LogoffText(oldest.entry, oldest.addresses).c_str(),
                static_cast<int>(kMaxKeptLogoffs));
    m_keptLogoffs.pop_front();
  }
  m_keptLogoffs.push_back({session, *entry, addresses, 0});
  m_keptCount = m_keptLogoffs.size();
  m_log.Debug("ResendLogoff: kept the logoff of %s, session %d, that reached no server (%d kept)",
              text.c_str(), static_cast<int>(session), static_cast<int>(m_keptLogoffs.size()));
}

void CSessionEvents::DropKeptLogoffs(const CTerminalSession* user, const char* why) {
  for (auto it = m_keptLogoffs.begin(); it != m_keptLogoffs.end();) {
    if (user && !SameUser(it->entry, *user)) {
      ++it;
      continue;
    }
    m_log.Debug("ResendLogoff: dropped the logoff of %s: %s",
                LogoffText(it->entry, it->addresses).c_str(), why);
    it = m_keptLogoffs.erase(it);
  }
  m_keptCount = m_keptLogoffs.size();
}

void CSessionEvents::ResendLogoffEvents() {
  if (m_keptCount.load() == 0) return;
  std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
  if (!m_resendLogoff.load()) {
    DropKeptLogoffs(nullptr, "ResendLogoff is off");
    return;
  }
  while (!m_keptLogoffs.empty()) {
    KeptLogoff& kept = m_keptLogoffs.front();
    // Delivered directly, not through Report: the logon re-send state and
    // the last sent set belong to the reports of the logged-on user. For no
    // session: a server's request for NTLM proof must not be answered as
    // whoever has the departed user's session number by now.
    CEncoder event(kEventEncoderCapacity);
    BuildEventReport(event, ReportKind::kLogoff, m_last, kept.addresses, kept.entry, Machine());
    const uint32_t tries = ++kept.tries;
    const bool delivered = m_delivery.Deliver(kNoSession, event).delivered;
    const std::string text = LogoffText(kept.entry, kept.addresses);
    m_log.Debug("ResendLogoff: re-sent the logoff of %s, try %d of %d: %s", text.c_str(),
                static_cast<int>(tries), static_cast<int>(kResendTries),
                delivered ? "delivered" : "not delivered");
    if (delivered || tries >= kResendTries) {
      m_log.Debug("ResendLogoff: dropped the logoff of %s: %s", text.c_str(),
                  delivered ? "delivered" : "not delivered after the last try");
      m_keptLogoffs.pop_front();
      m_keptCount = m_keptLogoffs.size();
    }
    // No server answered: the others wait for the next round, without a try.
    if (!delivered) return;
  }
}

void CSessionEvents::CheckAddressChange() {
  m_addresses.BuildVirtualAdapterList();
  // The whole round holds the table lock, its delivery included, as every
  // other report does. So a logoff cannot come between the look at the
  // entry and the report (the servers would map the machine's addresses to
  // a user who has left, and nothing would correct them), and the
  // identifiers and the last sent set are not changed while in use.
  std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
  const AddressSet now = GatherAddresses();
  const bool changed = AddressSetChanged(m_last, now);
  if (!changed || now.count4 == 0) {
    // Only an IPv6 address (or none) is left: nothing is reported, the
    // re-send timer tries again.
    if (changed) RequestResend();
    return;
  }
  // Nothing while no user is reported as logged on, as for the keep-alive:
  // a locked, disconnected or departed user is not mapped to new addresses.
  if (m_bLogon.load() == 0 || !m_table.Allocated()) return;
  const uint32_t session = m_dwCurrentSession.load();
  if (SetAsideIfExcluded(session)) return;
  const CTerminalSession* entry = m_table.FindSession(session);
  if (!entry) return;

  const auto logAddresses = [this](const char* format, const AddressSet& set) {
    for (uint32_t i = 0; i < set.count4 && i < set.ipv4.size(); ++i) {
      IpAddress a;
      a.SetIPv4(set.ipv4[i]);
      m_log.Debug(format, a.Text());
    }
    for (uint32_t i = 0; i < set.count6 && i < set.ipv6.size(); ++i) {
      IpAddress a;
      a.SetIPv6(set.ipv6[i].data());
      m_log.Debug(format, a.Text());
    }
  };
  logAddresses("old ip address:%s", m_last);
  logAddresses("new ip address:%s", now);

  const DeliveryResult result = Report(ReportKind::kAddressChange, session, *entry, now, false);
  // A failed report writes no record; the next round tries again.
  if (result.delivered) WriteSessionLog(ReportKind::kAddressChange, *entry, result);
}

bool CSessionEvents::SetAsideIfExcluded(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
  if (!m_table.IsExcluded(session)) return false;
  // Reported before the list named its user: withdrawn first, so that the
  // servers do not keep the mapping.
  if (m_bLogon.load() == 1 && m_dwCurrentSession.load() == session) SendSessionEvent(session, 0, 0);
  m_table.RemoveSession(session);
  return true;
}

DeliveryResult CSessionEvents::Report(ReportKind kind, uint32_t session,
                                      const CTerminalSession& entry, const AddressSet& now,
                                      bool resend) {
  CEncoder event(kEventEncoderCapacity);
  BuildEventReport(event, kind, m_last, now, entry, Machine());
  if (resend) {
    ++m_dwResendTries;
  } else {
    m_bResendPending = 0;
    m_dwResendTries = 0;
  }
  const DeliveryResult result = m_delivery.Deliver(session, event);
  if (result.delivered) {
    m_bResendPending = 0;
    m_dwResendTries = 0;
    if (AddressSetChanged(m_last, now)) m_last = now;
  } else {
    m_bResendPending = 1;
  }
  return result;
}

void CSessionEvents::RequestResend() {
  m_bResendPending = 1;
  m_dwResendTries = 0;
}

AddressSet CSessionEvents::GatherAddresses() {
  AddressSet now;
  m_addresses.GetIPAddress(&now.ipv4, now.count4, &now.ipv6, now.count6);
  return now;
}

void CSessionEvents::SetWorkstation(const WorkstationSnapshot& workstation) {
  std::lock_guard<std::mutex> lock(m_workstationLock);
  m_workstation = workstation;
}

WorkstationSnapshot CSessionEvents::Workstation() const {
  std::lock_guard<std::mutex> lock(m_workstationLock);
  return m_workstation;
}

WorkstationFacts CSessionEvents::Machine() {
  WorkstationFacts machine = Workstation().facts;
  machine.deviceUuid = m_identifiers.ClientUuid();
  machine.vrxSerial = m_identifiers.VrxSerial();
  machine.tenantId = m_identifiers.VrxTenantId();
  return machine;
}

void CSessionEvents::WriteSessionLog(ReportKind kind, const CTerminalSession& entry,
                                     const DeliveryResult& result) {
  SessionLogRecord r;
  r.action = ReportAction(kind);
  r.domain = entry.Domain();
  r.user = entry.UserName();
  const WorkstationSnapshot workstation = Workstation();
  r.computerName = workstation.facts.computerName;
  r.localIPv4 = workstation.localIPv4;
  r.serverIPv4 = result.serverIPv4;
  r.delivered = result.delivered;
  r.tickLogging = m_bLogTickCount != 0;
  r.tickCount = TickCount();
  r.threadId = CurrentThreadId();
  write_session_log(m_support, r);
}

}  // namespace lindqvar
