#include "session/session_notifications.h"

#include "platform/os.h"

namespace lindqvar {

namespace {

constexpr int kResumeAttempts = 5;

}  // namespace

void CSessionNotifications::LogReceived(const char* name, uint32_t session, uint32_t tid) {
  if (m_events.TickLogging())
    m_log.Debug("Received message %s, session id:%d, TICC:%d, TID:%d", name,
                static_cast<int>(session), static_cast<int>(TickCount()), static_cast<int>(tid));
  else
    m_log.Debug("Received message %s, session id:%d, TID:%d", name, static_cast<int>(session),
                static_cast<int>(tid));
}

void CSessionNotifications::LogBeforeAfter(const char* when, const char* name) {
  m_log.Debug("%s processing %s, m_bLogon:%d, m_dwCurrentSession:%d", when, name,
              static_cast<int>(m_events.Logon()), static_cast<int>(m_events.CurrentSession()));
}

void CSessionNotifications::WithdrawCurrent() {
  if (m_events.Logon() == 1) m_events.SendSessionEvent(m_events.CurrentSession(), 0, 0);
}

void CSessionNotifications::OnNotification(const SessionNotification& notification) {
  const uint32_t tid = CurrentThreadId();
  const uint32_t session = notification.session;
  switch (notification.kind) {
    case NotificationKind::kConsoleConnect: {
      constexpr char kName[] = "WTS_CONSOLE_CONNECT";
      LogBeforeAfter("Before", kName);
      if (session == m_sessions.ActiveConsoleSession()) {
        LogReceived(kName, session, tid);
        // An excluded user's session changes nothing (kExcluded).
        const uint32_t r = m_events.SetAsideIfExcluded(session) ? CSessionTable::kExcluded
                           : m_table.FindSession(session)       ? 1
                                                                : m_table.AddSession(session);
        if (r == 1 || r == 2)
          m_events.SendSessionEvent(session, 1, 0);
        else if (r == 0)
          WithdrawCurrent();
      }
      LogBeforeAfter("After", kName);
      return;
    }
    case NotificationKind::kRemoteConnect:
    case NotificationKind::kSessionUnlock: {
      // One handler for both codes, logged with the unlock texts around it.
      LogBeforeAfter("Before", "WTS_SESSION_UNLOCK");
      LogReceived(notification.kind == NotificationKind::kRemoteConnect ? "WTS_REMOTE_CONNECT"
                                                                        : "WTS_SESSION_UNLOCK",
                  session, tid);
      // A session that is not ready yet (2) is reported all the same.
      const uint32_t r = m_events.SetAsideIfExcluded(session) ? CSessionTable::kExcluded
                                                              : m_table.AddSession(session);
      if (r == 1 || r == 2)
        m_events.SendSessionEvent(session, 1, 0);
      else if (r == 0)
        WithdrawCurrent();
      LogBeforeAfter("After", "WTS_SESSION_UNLOCK");
      return;
    }
    case NotificationKind::kRemoteDisconnect:
      LogReceived("WTS_REMOTE_DISCONNECT", session, tid);
      return;
    case NotificationKind::kSessionLock: LogReceived("WTS_SESSION_LOCK", session, tid); return;
    case NotificationKind::kSessionLogon: {
      constexpr char kName[] = "WTS_SESSION_LOGON";
      LogBeforeAfter("Before", kName);
      LogReceived(kName, session, tid);
      const uint32_t r = m_events.SetAsideIfExcluded(session) ? CSessionTable::kExcluded
                                                              : m_table.AddSession(session);
      if (r == 1) {
        m_events.SendSessionEvent(session, 1, 0);
      } else if (r != CSessionTable::kExcluded) {
        if (r == 2) {
          // Parked for the retry thread, which sends the logon once the
          // user is known.
          m_table.AddPendingSession(session);
          if (m_events.TickLogging())
            m_log.Debug(
                "GetUserNameBySessionID(), session is not ready, session id:%d, TICC:%d, TID:%d",
                static_cast<int>(session), static_cast<int>(TickCount()), static_cast<int>(tid));
          else
            m_log.Debug("GetUserNameBySessionID(), session is not ready, session:%d, TID:%d",
                        static_cast<int>(session), static_cast<int>(tid));
        }
        WithdrawCurrent();
      }
      LogBeforeAfter("After", kName);
      return;
    }
    case NotificationKind::kSessionLogoff: {
      LogReceived("WTS_SESSION_LOGOFF", session, tid);
      {
        // Sent before the entry goes, so that the event still carries its
        // user, and in the same hold of the table lock as the removal: a
        // report that took the lock between them would find the entry and
        // announce the departed user again.
        std::lock_guard<std::recursive_mutex> lock(m_table.Lock());
        m_events.SendSessionEvent(session, 0, 0);
        m_table.RemoveSession(session);
      }
      // After the table lock is left: the pending-list lock is never taken
      // inside it.
      m_table.RemovePendingSession(session);
      return;
    }
    case NotificationKind::kResume: OnResume(tid); return;
    case NotificationKind::kConsoleDisconnect:  // nothing at all
      return;
  }
}

void CSessionNotifications::OnResume(uint32_t tid) {
  const uint32_t session = m_sessions.ActiveConsoleSession();
  if (!m_table.FindSession(session) || m_events.SetAsideIfExcluded(session)) return;
  for (int attempt = 0; attempt < kResumeAttempts; ++attempt) {
    if (m_events.SendSessionEvent(session, 1, 1)) return;
    SleepMs(m_timings.wakeupRetryMs);
  }
  if (m_events.TickLogging())
    m_log.Debug(
        "Failed to  send logon event when computer is recovering from sleep, TICC:%d, TID:%d",
        static_cast<int>(TickCount()), static_cast<int>(tid));
  else
    m_log.Debug("Failed to  send logon event when computer is recovering from sleep, TID:%d",
                static_cast<int>(tid));
}

}  // namespace lindqvar
