// The reports the agent repeats on its own: the keep-alive, the re-send of a
// failed logon report, and the report of changed addresses. All of them are
// for the session reported as logged on.
#include "platform/os.h"
#include "protocol/ip_address.h"
#include "session/session_events.h"

namespace lindqvar {

namespace {
uint16_t FirstWord(const IPv6Address& a) { return static_cast<uint16_t>(a[0] << 8 | a[1]); }
}  // namespace

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
  const CTerminalSession* entry = m.table.FindSession(session);
  if (!entry) return;

  const bool changed = AddressesChanged(now);
  const WorkstationFacts machine = Machine();
  CEncoder event(kEventEncoderCapacity);
  event.begin_message(MSG_EVENT);
  if (changed && (m_last.ipv4[0] != 0 || FirstWord(now.ipv6[0]) != 0))
    build_session_record(event, *entry, machine, m_last.ipv4, m_last.ipv6, 0);
  build_session_record(event, *entry, machine, now.ipv4, now.ipv6, 1);
  event.end_group(MSG_EVENT);
  const bool delivered = m.host.DeliverEvent(session, event, resend);
  if (delivered && changed) m_last = now;
  // A re-send writes no delivery record.
  if (!resend) WriteSessionLog(kActionKeepAlive, *entry, delivered);
}

void CSessionEvents::CheckAddressChange() {
  m.addresses.BuildVirtualAdapterList();
  const AddressSet now = GatherAddresses();
  AddressSet last;
  uint32_t session = 0;
  CTerminalSession entry;
  bool known = false;
  {
    // The exchange below runs without the table lock; what it needs is
    // copied under it, so a logoff meanwhile cannot pull the entry away.
    std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
    last = m_last;
    session = m_dwCurrentSession.load();
    if (m.table.Allocated()) {
      if (const CTerminalSession* e = m.table.FindSession(session)) {
        entry = *e;
        known = true;
      }
    }
  }
  const bool changed = AddressesChanged(now);
  if (!changed || now.count4 == 0) {
    // Only an IPv6 address (or none) is left: nothing is reported, the
    // re-send timer tries again.
    if (changed) m.host.RequestResend();
    return;
  }
  if (!known) return;

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
  logAddresses("old ip address:%s", last);
  logAddresses("new ip address:%s", now);

  const WorkstationFacts machine = Machine();
  CEncoder event(kEventEncoderCapacity);
  event.begin_message(MSG_EVENT);
  if (last.ipv4[0] != 0 || FirstWord(last.ipv6[0]) != 0)
    build_session_record(event, entry, machine, last.ipv4, last.ipv6, 0);
  build_session_record(event, entry, machine, now.ipv4, now.ipv6, 1);
  event.end_group(MSG_EVENT);
  if (!m.host.DeliverEvent(session, event, false)) return;  // the next round tries again
  {
    std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
    m_last = now;
  }
  WriteSessionLog(kActionAddressChange, entry, true);
}

}  // namespace lindqvar
