#include "platform/win32/session_window_win32.h"

#include <wtsapi32.h>

#include "platform/event.h"

namespace lindqvar::win32 {

bool CSessionWindowWin32::Create(ISessionNotificationSink& sink) {
  m_instance = ::GetModuleHandleW(nullptr);
  m_sink = &sink;

  WNDCLASSEXW wc = {};
  wc.cbSize = sizeof wc;
  wc.style = CS_HREDRAW | CS_VREDRAW;
  wc.lpfnWndProc = &CSessionWindowWin32::StaticWindowProc;
  wc.cbClsExtra = 0;
  wc.cbWndExtra = 0;
  wc.hInstance = m_instance;
  wc.hIcon = ::LoadIconW(nullptr, IDI_APPLICATION);
  wc.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
  // The brush value 6: system colour COLOR_WINDOW + 1, the window colour.
  wc.hbrBackground = reinterpret_cast<HBRUSH>(static_cast<INT_PTR>(COLOR_WINDOW + 1));
  wc.lpszMenuName = nullptr;
  wc.lpszClassName = kDetectorClassName;
  wc.hIconSm = nullptr;
  ::RegisterClassExW(&wc);  // a class already registered is not an error here

  m_window =
      ::CreateWindowExW(0, kDetectorClassName, kDetectorWindowName, WS_OVERLAPPEDWINDOW,
                        CW_USEDEFAULT, 0, CW_USEDEFAULT, 0, nullptr, nullptr, m_instance, this);
  if (!m_window) return false;
  ::ShowWindow(m_window, SW_HIDE);
  ::UpdateWindow(m_window);
  return true;
}

bool CSessionWindowWin32::RegisterNotifications() {
  return ::WTSRegisterSessionNotification(m_window, NOTIFY_FOR_ALL_SESSIONS) != FALSE;
}

void CSessionWindowWin32::Drain() {
  MSG msg;
  while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
    ::TranslateMessage(&msg);
    ::DispatchMessageW(&msg);
  }
}

PumpWait CSessionWindowWin32::WaitForStopOrMessage(CEvent& stop, uint32_t milliseconds) {
  HANDLE handle = stop.native_handle();
  // MWMO_INPUTAVAILABLE: a message already queued ends the wait too, not
  // only one that arrives after it began.
  switch (
      ::MsgWaitForMultipleObjectsEx(1, &handle, milliseconds, QS_ALLINPUT, MWMO_INPUTAVAILABLE)) {
    case WAIT_OBJECT_0: return PumpWait::kStop;
    case WAIT_OBJECT_0 + 1: return PumpWait::kMessage;
    case WAIT_TIMEOUT: return PumpWait::kTimeout;
    default: return PumpWait::kFailed;
  }
}

void CSessionWindowWin32::DestroyAndUnregister() {
  // Unregistering with the handle of the window just destroyed keeps the
  // order the session service has always seen from the agent.
  HWND window = m_window;
  ::DestroyWindow(window);
  ::WTSUnRegisterSessionNotification(window);
  m_window = nullptr;
}

LRESULT CALLBACK CSessionWindowWin32::StaticWindowProc(HWND hwnd, UINT message, WPARAM wParam,
                                                       LPARAM lParam) {
  auto* self = reinterpret_cast<CSessionWindowWin32*>(::GetWindowLongPtrW(hwnd, GWLP_USERDATA));
  if (message == WM_NCCREATE) {
    self =
        static_cast<CSessionWindowWin32*>(reinterpret_cast<CREATESTRUCTW*>(lParam)->lpCreateParams);
    self->m_window = hwnd;
    ::SetWindowLongPtrW(hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(self));
  } else if (message == WM_DESTROY) {
    // Later messages go to the default procedure; this one still ends the
    // pumping thread's loop below.
    ::SetWindowLongPtrW(hwnd, GWLP_USERDATA, 0);
  }
  if (!self || !self->m_sink) return ::DefWindowProcW(hwnd, message, wParam, lParam);
  // The agent's notifications; Windows numbers end here.
  static_assert(static_cast<UINT>(NotificationKind::kConsoleConnect) == WTS_CONSOLE_CONNECT &&
                static_cast<UINT>(NotificationKind::kSessionUnlock) == WTS_SESSION_UNLOCK);
  try {
    switch (message) {
      case WM_DESTROY: ::PostQuitMessage(0); return 0;
      case WM_POWERBROADCAST:
        // Other power messages are swallowed, not passed on.
        if (wParam == PBT_APMRESUMESUSPEND)
          self->m_sink->OnNotification({NotificationKind::kResume});
        return 0;
      case WM_WTSSESSION_CHANGE:
        // Codes outside the eight the agent knows are ignored.
        if (wParam >= WTS_CONSOLE_CONNECT && wParam <= WTS_SESSION_UNLOCK)
          self->m_sink->OnNotification(
              {static_cast<NotificationKind>(wParam), static_cast<uint32_t>(lParam)});
        return 0;
      default: return ::DefWindowProcW(hwnd, message, wParam, lParam);
    }
  } catch (...) {
    // No exception may unwind through the system's dispatch.
    return 0;
  }
}

}  // namespace lindqvar::win32
