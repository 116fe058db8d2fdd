#include "session/session_events.h"

#include "platform/os.h"
#include "protocol/transport/ip_address.h"

namespace lindqvar {

uint32_t CSessionEvents::SendSessionEvent(uint32_t session, uint32_t logon, uint32_t wakeup) {
  std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
  const AddressSet now = GatherAddresses();
  m_identifiers.LoadVrxSerial();
  m_identifiers.LoadVrxTenantId();

  if (logon == 1) m_dwCurrentSession = session;
  if (m_table.FindSession(session)) {
    m_bLogon = logon;
    m_log.Debug("Found session:%d in session table, m_bLogon:%d\n", static_cast<int>(session),
                static_cast<int>(m_bLogon.load()));
  } else {
    m_log.Debug("Did not found session:%d in session table, m_bLogon:%d\n",
                static_cast<int>(session), static_cast<int>(m_bLogon.load()));
  }

  if (!m_table.Allocated() || (now.count4 == 0 && now.count6 == 0)) {
    // No address to report: the re-send timer tries again.
    if (m_table.Allocated()) RequestResend();
    return 0;
  }
  const CTerminalSession* entry = m_table.FindSession(session);
  if (!entry) return 0;

  const ReportKind kind =
      wakeup ? ReportKind::kWakeup : logon ? ReportKind::kLogon : ReportKind::kLogoff;
  const DeliveryResult result = Report(kind, session, *entry, now, false);
  WriteSessionLog(kind, *entry, result);
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
