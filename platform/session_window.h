// The hidden window through which session and power notifications reach the
// agent, what the agent sees of them, and the pump that drives the window on
// the agent's notification thread.
#pragma once

#include <cstdint>

namespace lindqvar {

class CEvent;

// A notification the window passed on. The session-change kinds keep the
// system's codes 1 to 8; kResume is the resume from sleep.
enum class NotificationKind : uint32_t {
  kConsoleConnect = 1,
  kConsoleDisconnect,
  kRemoteConnect,
  kRemoteDisconnect,
  kSessionLogon,
  kSessionLogoff,
  kSessionLock,
  kSessionUnlock,
  kResume,
};

struct SessionNotification {
  NotificationKind kind;
  uint32_t session = 0;  // the session concerned; 0 for kResume
};

// Receives the notifications on the thread that pumps the window.
class ISessionNotificationSink {
 public:
  virtual ~ISessionNotificationSink() = default;
  virtual void OnNotification(const SessionNotification& notification) = 0;
};

// How a wait of the pumping thread ended.
enum class PumpWait { kStop, kMessage, kTimeout, kFailed };

// The window itself; the messages it does not pass on stay with the system.
class ISessionWindow {
 public:
  virtual ~ISessionWindow() = default;
  // Registers the window class and creates the hidden window, passing its
  // notifications to `sink`. False when no window could be created.
  virtual bool Create(ISessionNotificationSink& sink) = 0;
  // WTSRegisterSessionNotification(window, NOTIFY_FOR_ALL_SESSIONS).
  virtual bool RegisterNotifications() = 0;
  // Dispatches every queued message.
  virtual void Drain() = 0;
  // Waits up to `milliseconds` (kInfinite for no limit) until `stop` is set
  // or a message for the pumping thread is waiting. kStop wins when both are.
  virtual PumpWait WaitForStopOrMessage(CEvent& stop, uint32_t milliseconds) = 0;
  // DestroyWindow, then WTSUnRegisterSessionNotification with that handle.
  virtual void DestroyAndUnregister() = 0;
};

// The notification thread's routine: creates the window, registers for
// session notifications (retried every round until it succeeds: the session
// service may come up after the agent) and dispatches messages until `stop`
// is set, then destroys the window. 0 when no window could be created, else
// 1. Until registered it comes back every `pumpIntervalMs` to try again;
// after that it sleeps until a message arrives or the agent stops.
uint32_t RunNotificationPump(ISessionWindow& window, ISessionNotificationSink& sink, CEvent& stop,
                             uint32_t pumpIntervalMs);

}  // namespace lindqvar
