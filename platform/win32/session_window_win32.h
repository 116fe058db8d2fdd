// The hidden session-detector window: its class, creation, the message pump's
// calls, session-notification registration, and the translation of the
// window's messages into the agent's notifications.
#pragma once

#include "platform/session_window.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

inline constexpr wchar_t kDetectorClassName[] =
    L"244AD2FA-BD34-4EE9-9C06-54D337C8ED71_session_detector_class";
inline constexpr wchar_t kDetectorWindowName[] = L"session_detector";

class CSessionWindowWin32 : public ISessionWindow {
 public:
  bool Create(ISessionNotificationSink& sink) override;
  bool RegisterNotifications() override;
  void Drain() override;
  PumpWait WaitForStopOrMessage(CEvent& stop, uint32_t milliseconds) override;
  void DestroyAndUnregister() override;

  HWND Window() const { return m_window; }

 private:
  // Translates the window's messages into the agent's notifications.
  static LRESULT CALLBACK StaticWindowProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);

  HINSTANCE m_instance = nullptr;
  // Set by the create call and again on WM_NCCREATE; owned by the pumping
  // thread, which destroys it in DestroyAndUnregister.
  HWND m_window = nullptr;
  ISessionNotificationSink* m_sink = nullptr;
};

}  // namespace lindqvar::win32
