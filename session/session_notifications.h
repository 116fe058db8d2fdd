// What the agent does with each session and power notification of its
// hidden window: the table's entries, and the events they send.
#pragma once

#include "platform/session_window.h"
#include "platform/sessions.h"
#include "platform/timings.h"
#include "session/session_events.h"

namespace lindqvar {

class CSessionNotifications : public ISessionNotificationSink {
 public:
  CSessionNotifications(CLog& log, ISessions& sessions, const Timings& timings,
                        CSessionTable& table, CSessionEvents& events)
      : m_log(log), m_sessions(sessions), m_timings(timings), m_table(table), m_events(events) {}

  // Runs on the notification thread.
  void OnNotification(const SessionNotification& notification) override;

 private:
  void OnResume(uint32_t tid);
  // The "Received message <name>, session id:..." line in its variant.
  void LogReceived(const char* name, uint32_t session, uint32_t tid);
  void LogBeforeAfter(const char* when, const char* name);
  // Logoff of the session reported as logged on, when there is one.
  void WithdrawCurrent();

  CLog& m_log;
  ISessions& m_sessions;
  const Timings& m_timings;
  CSessionTable& m_table;
  CSessionEvents& m_events;
};

}  // namespace lindqvar
