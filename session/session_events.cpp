#include "session/session_events.h"

#include "platform/os.h"

namespace lindqvar {

namespace {

constexpr int kResumeAttempts = 5;

uint16_t FirstWord(const IPv6Address& a) { return static_cast<uint16_t>(a[0] << 8 | a[1]); }

}  // namespace

int64_t CSessionEvents::WindowProc(uint32_t message, uint64_t wParam, int64_t lParam) {
  const uint32_t tid = CurrentThreadId();
  switch (message) {
    case kWmDestroy:
      m.window.PostQuit();
      return 0;
    case kWmPowerBroadcast:
      // Other power messages are swallowed, not passed on.
      if (wParam == kPbtApmResumeSuspend) OnResume(tid);
      return 0;
    case kWmWtsSessionChange:
      if (wParam >= kWtsConsoleConnect && wParam <= kWtsSessionUnlock)
        OnSessionChange(wParam, static_cast<uint32_t>(lParam), tid);
      return 0;
    default:
      return m.window.DefaultProc(message, wParam, lParam);
  }
}

void CSessionEvents::LogReceived(const char* name, uint32_t session, uint32_t tid) {
  if (m_bLogTickCount)
    m.log.Debug("Received message %s, session id:%d, TICC:%d, TID:%d", name,
                static_cast<int>(session), static_cast<int>(TickCount()), static_cast<int>(tid));
  else
    m.log.Debug("Received message %s, session id:%d, TID:%d", name, static_cast<int>(session),
                static_cast<int>(tid));
}

void CSessionEvents::LogBeforeAfter(const char* when, const char* name) {
  m.log.Debug("%s processing %s, m_bLogon:%d, m_dwCurrentSession:%d", when, name,
              static_cast<int>(m_bLogon.load()), static_cast<int>(m_dwCurrentSession.load()));
}

void CSessionEvents::WithdrawCurrent() {
  if (m_bLogon.load() == 1) SendSessionEvent(m_dwCurrentSession.load(), 0, 0);
}

bool CSessionEvents::SetAsideIfExcluded(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
  if (!m.table.IsExcluded(session)) return false;
  // Reported before the list named its user: withdrawn first, so that the
  // servers do not keep the mapping.
  if (m_bLogon.load() == 1 && m_dwCurrentSession.load() == session) SendSessionEvent(session, 0, 0);
  m.table.RemoveSession(session);
  return true;
}

void CSessionEvents::OnSessionChange(uint64_t code, uint32_t session, uint32_t tid) {
  switch (code) {
    case kWtsConsoleConnect: {
      constexpr char kName[] = "WTS_CONSOLE_CONNECT";
      LogBeforeAfter("Before", kName);
      if (session == m.sessions.ActiveConsoleSession()) {
        LogReceived(kName, session, tid);
        // An excluded user's session changes nothing (kExcluded).
        const uint32_t r = SetAsideIfExcluded(session)    ? CSessionTable::kExcluded
                           : m.table.FindSession(session) ? 1
                                                          : m.table.AddSession(session);
        if (r == 1 || r == 2)
          SendSessionEvent(session, 1, 0);
        else if (r == 0)
          WithdrawCurrent();
      }
      LogBeforeAfter("After", kName);
      return;
    }
    case kWtsRemoteConnect:
    case kWtsSessionUnlock: {
      // One handler for both codes, logged with the unlock texts around it.
      LogBeforeAfter("Before", "WTS_SESSION_UNLOCK");
      LogReceived(code == kWtsRemoteConnect ? "WTS_REMOTE_CONNECT" : "WTS_SESSION_UNLOCK", session,
                  tid);
      // A session that is not ready yet (2) is reported all the same.
      const uint32_t r =
          SetAsideIfExcluded(session) ? CSessionTable::kExcluded : m.table.AddSession(session);
      if (r == 1 || r == 2)
        SendSessionEvent(session, 1, 0);
      else if (r == 0)
        WithdrawCurrent();
      LogBeforeAfter("After", "WTS_SESSION_UNLOCK");
      return;
    }
    case kWtsRemoteDisconnect:
      LogReceived("WTS_REMOTE_DISCONNECT", session, tid);
      return;
    case kWtsSessionLock:
      LogReceived("WTS_SESSION_LOCK", session, tid);
      return;
    case kWtsSessionLogon: {
      constexpr char kName[] = "WTS_SESSION_LOGON";
      LogBeforeAfter("Before", kName);
      LogReceived(kName, session, tid);
      const uint32_t r =
          SetAsideIfExcluded(session) ? CSessionTable::kExcluded : m.table.AddSession(session);
      if (r == 1) {
        SendSessionEvent(session, 1, 0);
      } else if (r != CSessionTable::kExcluded) {
        if (r == 2) {
          // Parked for the retry thread, which sends the logon once the
          // user is known.
          m.table.AddPendingSession(session);
          if (m_bLogTickCount)
            m.log.Debug(
                "GetUserNameBySessionID(), session is not ready, session id:%d, TICC:%d, TID:%d",
                static_cast<int>(session), static_cast<int>(TickCount()), static_cast<int>(tid));
          else
            m.log.Debug("GetUserNameBySessionID(), session is not ready, session:%d, TID:%d",
                        static_cast<int>(session), static_cast<int>(tid));
        }
        WithdrawCurrent();
      }
      LogBeforeAfter("After", kName);
      return;
    }
    case kWtsSessionLogoff: {
      LogReceived("WTS_SESSION_LOGOFF", session, tid);
      {
        // Sent before the entry goes, so that the event still carries its
        // user, and in the same hold of the table lock as the removal: a
        // report that took the lock between them would find the entry and
        // announce the departed user again.
        std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
        SendSessionEvent(session, 0, 0);
        m.table.RemoveSession(session);
      }
      // After the table lock is left: the pending-list lock is never taken
      // inside it.
      m.table.RemovePendingSession(session);
      return;
    }
    default:  // console disconnect: nothing at all
      return;
  }
}

void CSessionEvents::OnResume(uint32_t tid) {
  const uint32_t session = m.sessions.ActiveConsoleSession();
  if (!m.table.FindSession(session) || SetAsideIfExcluded(session)) return;
  for (int attempt = 0; attempt < kResumeAttempts; ++attempt) {
    if (SendSessionEvent(session, 1, 1)) return;
    SleepMs(m.timings.wakeupRetryMs);
  }
  if (m_bLogTickCount)
    m.log.Debug("Failed to  send logon event when computer is recovering from sleep, TICC:%d, TID:%d",
                static_cast<int>(TickCount()), static_cast<int>(tid));
  else
    m.log.Debug("Failed to  send logon event when computer is recovering from sleep, TID:%d",
                static_cast<int>(tid));
}

bool CSessionEvents::AddressesChanged(const AddressSet& now) const {
  if (now.count4 != m_last.count4 || now.count6 != m_last.count6) return true;
  // Some new address that the last sent set lacks (order and duplicates do
  // not matter).
  return AddressListsDiffer(now.count4, now.ipv4, m_last.ipv4, now.count6, now.ipv6,
                            m_last.ipv6) != 0;
}

AddressSet CSessionEvents::LastSent() {
  std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
  return m_last;
}

AddressSet CSessionEvents::GatherAddresses() {
  AddressSet now;
  m.addresses.GetIPAddress(&now.ipv4, now.count4, &now.ipv6, now.count6);
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

DeliveryResult CSessionEvents::Deliver(uint32_t session, const CEncoder& event, bool resend) {
  if (resend) {
    ++m_dwResendTries;
  } else {
    m_bResendPending = 0;
    m_dwResendTries = 0;
  }
  const DeliveryResult result = m.delivery.Deliver(session, event);
  if (result.delivered) {
    m_bResendPending = 0;
    m_dwResendTries = 0;
  } else {
    m_bResendPending = 1;
  }
  return result;
}

void CSessionEvents::RequestResend() {
  m_bResendPending = 1;
  m_dwResendTries = 0;
}

WorkstationFacts CSessionEvents::Machine() {
  WorkstationFacts machine = Workstation().facts;
  machine.deviceUuid = m.identifiers.ClientUuid();
  machine.vrxSerial = m.identifiers.VrxSerial();
  machine.tenantId = m.identifiers.VrxTenantId();
  return machine;
}

uint32_t CSessionEvents::SendSessionEvent(uint32_t session, uint32_t logon, uint32_t wakeup) {
  std::lock_guard<std::recursive_mutex> lock(m.table.Lock());
  const AddressSet now = GatherAddresses();
  m.identifiers.LoadVrxSerial();
  m.identifiers.LoadVrxTenantId();

  if (logon == 1) m_dwCurrentSession = session;
  if (m.table.FindSession(session)) {
    m_bLogon = logon;
    m.log.Debug("Found session:%d in session table, m_bLogon:%d\n", static_cast<int>(session),
                static_cast<int>(m_bLogon.load()));
  } else {
    m.log.Debug("Did not found session:%d in session table, m_bLogon:%d\n",
                static_cast<int>(session), static_cast<int>(m_bLogon.load()));
  }

  if (!m.table.Allocated() || (now.count4 == 0 && now.count6 == 0)) {
    // No address to report: the re-send timer tries again.
    if (m.table.Allocated()) RequestResend();
    return 0;
  }
  const CTerminalSession* entry = m.table.FindSession(session);
  if (!entry) return 0;

  const bool changed = AddressesChanged(now);
  CEncoder event(kEventEncoderCapacity);
  BuildReport(event, wakeup || logon ? ReportPath::kLogonOrWakeup : ReportPath::kLogoff, *entry,
              now, changed, logon);

  const DeliveryResult result = Deliver(session, event, false);
  WriteSessionLog(wakeup ? kActionWakeup : logon ? kActionLogon : kActionLogoff, *entry, result);
  if (result.delivered && changed) m_last = now;
  return result.delivered ? 1 : 0;
}

void CSessionEvents::BuildReport(CEncoder& event, ReportPath path, const CTerminalSession& entry,
                                 const AddressSet& now, bool changed, uint32_t logon) {
  // The withdrawing record tells the servers that the user left the last
  // sent addresses. The paths test different lists for it, as the servers
  // expect; the rules stand side by side so that none drifts alone.
  const bool lastIPv4 = m_last.ipv4[0] != 0;
  bool withdraw = false;
  switch (path) {
    case ReportPath::kLogonOrWakeup:  // when the addresses changed: previous IPv4 or NEW IPv6
    case ReportPath::kKeepAlive:      // the same
      withdraw = changed && (lastIPv4 || FirstWord(now.ipv6[0]) != 0);
      break;
    case ReportPath::kLogoff:  // never: the logoff withdraws the user anyway
      break;
    case ReportPath::kAddressChange:  // the change is the event: previous IPv4 or PREVIOUS IPv6
      withdraw = lastIPv4 || FirstWord(m_last.ipv6[0]) != 0;
      break;
  }
  const WorkstationFacts machine = Machine();
  event.begin_message(MSG_EVENT);
  if (withdraw) build_session_record(event, entry, machine, m_last.ipv4, m_last.ipv6, 0);
  build_session_record(event, entry, machine, now.ipv4, now.ipv6, logon);
  event.end_group(MSG_EVENT);
}

void CSessionEvents::WriteSessionLog(uint32_t action, const CTerminalSession& entry,
                                     const DeliveryResult& result) {
  SessionLogRecord r;
  r.action = action;
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
  write_session_log(m.support, r);
}

}  // namespace lindqvar
