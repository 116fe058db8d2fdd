// The hidden window through which session and power notifications reach the
// agent, driven by the agent's notification thread.
#pragma once

#include <cstdint>

namespace lindqvar {

class Event;

// How a wait of the pumping thread ended.
enum class PumpWait { kStop, kMessage, kTimeout, kFailed };

// Receives the window's messages on the thread that pumps them.
class IWindowMessageSink {
 public:
  virtual ~IWindowMessageSink() = default;
  virtual int64_t WindowProc(uint32_t message, uint64_t wParam, int64_t lParam) = 0;
};

class ISessionWindow {
 public:
  virtual ~ISessionWindow() = default;
  // Registers the window class and creates the hidden window, delivering its
  // messages to `sink`. False when no window could be created.
  virtual bool Create(IWindowMessageSink& sink) = 0;
  // WTSRegisterSessionNotification(window, NOTIFY_FOR_ALL_SESSIONS).
  virtual bool RegisterNotifications() = 0;
  // Dispatches every queued message.
  virtual void Drain() = 0;
  // Waits up to `milliseconds` (kInfinite for no limit) until `stop` is set
  // or a message for the pumping thread is waiting. kStop wins when both are.
  virtual PumpWait WaitForStopOrMessage(Event& stop, uint32_t milliseconds) = 0;
  // DestroyWindow, then WTSUnRegisterSessionNotification with that handle.
  virtual void DestroyAndUnregister() = 0;
  // PostQuitMessage(0) on the pumping thread.
  virtual void PostQuit() = 0;
  // DefWindowProcW for messages the agent does not handle.
  virtual int64_t DefaultProc(uint32_t message, uint64_t wParam, int64_t lParam) = 0;
};

}  // namespace lindqvar
