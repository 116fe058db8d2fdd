// The reports the agent repeats on its own: the keep-alive, the re-send of a
// failed logon report, and the report of changed addresses. All of them are
// for the session reported as logged on.
#include "platform/os.h"
#include "protocol/transport/ip_address.h"
#include "session/session_events.h"

namespace lindqvar {

void CSessionEvents::SendKeepAliveEvent() {
  SendCurrentSession("CSessionManager::SendKeepAliveEvent", 934, false);
}

void CSessionEvents::ResendLogonEvent() {
  SendCurrentSession("CSessionManager::ResendLogonEvent", 1002, true);
}

void CSessionEvents::SendCurrentSession(const char* routine, int line, bool resend) {
  std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
  const AddressSet now = GatherAddresses();
  const uint32_t session = m_dwCurrentSession.load();
  m.log.Debug("%s:%d, m_bLogon:%d, m_dwCurrentSession:%d", routine, line,
              static_cast<int>(m_bLogon.load()), static_cast<int>(session));
  if (m_bLogon.load() == 0 || !m.table.Allocated() || (now.count4 == 0 && now.count6 == 0)) return;
  // A user the ExcludedUsers list now names is withdrawn, not repeated.
  if (SetAsideIfExcluded(session)) return;
  const CTerminalSession* entry = m.table.FindSession(session);
  if (!entry) return;

  const bool changed = AddressesChanged(now);
  CEncoder event(kEventEncoderCapacity);
  BuildReport(event, ReportPath::kKeepAlive, *entry, now, changed, 1);
  const DeliveryResult result = Deliver(session, event, resend);
  if (result.delivered && changed) m_last = now;
  // A re-send writes no delivery record.
  if (!resend) WriteSessionLog(kActionKeepAlive, *entry, result);
}

void CSessionEvents::CheckAddressChange() {
  m.addresses.BuildVirtualAdapterList();
  // The whole round holds the table lock, its delivery included, as every
  // other report does. So a logoff cannot come between the look at the
  // entry and the report (the servers would map the machine's addresses to
  // a user who has left, and nothing would correct them), and the
  // identifiers and the last sent set are not changed while in use.
  std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
  const AddressSet now = GatherAddresses();
  const bool changed = AddressesChanged(now);
  if (!changed || now.count4 == 0) {
    // Only an IPv6 address (or none) is left: nothing is reported, the
    // re-send timer tries again.
    if (changed) RequestResend();
    return;
  }
  // Nothing while no user is reported as logged on, as for the keep-alive:
  // a locked, disconnected or departed user is not mapped to new addresses.
  if (m_bLogon.load() == 0 || !m.table.Allocated()) return;
  const uint32_t session = m_dwCurrentSession.load();
  if (SetAsideIfExcluded(session)) return;
  const CTerminalSession* entry = m.table.FindSession(session);
  if (!entry) return;

  const auto logAddresses = [this](const char* format, const AddressSet& set) {
    for (uint32_t i = 0; i < set.count4 && i < set.ipv4.size(); ++i) {
      IpAddress a;
      a.SetIPv4(set.ipv4[i]);
      m.log.Debug(format, a.Text());
    }
    for (uint32_t i = 0; i < set.count6 && i < set.ipv6.size(); ++i) {
      IpAddress a;
      a.SetIPv6(set.ipv6[i].data());
      m.log.Debug(format, a.Text());
    }
  };
  logAddresses("old ip address:%s", m_last);
  logAddresses("new ip address:%s", now);

  CEncoder event(kEventEncoderCapacity);
  BuildReport(event, ReportPath::kAddressChange, *entry, now, changed, 1);
  const DeliveryResult result = Deliver(session, event, false);
  if (!result.delivered) return;  // the next round tries again
  m_last = now;
  WriteSessionLog(kActionAddressChange, *entry, result);
}

}  // namespace lindqvar
