// bare_agent.exe: the footprint baseline for lindqvar-agent.exe. A Windows
// program with what the agent cannot do without and nothing else: Winsock
// started, a hidden top-level window registered for session notifications
// and pumped on a thread of its own, five more threads waiting on one stop
// event, and a main thread waiting on a named control event, as the agent
// does. No TLS library, no certificates, no registry, no log.
//
//   bare_agent -s <control event name> [--pump-ms N]
//
// Signalling the control event ends it. With --pump-ms the window thread
// polls as a fixed-interval pump would (drain, then wait N ms on the stop
// event), to show what such polling alone costs; without it the thread
// sleeps until a message arrives or the stop event is set.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

#include <wtsapi32.h>

using lindqvar::win32::ScopedHandle;

namespace {

constexpr wchar_t kClassName[] = L"lindqvar_bare_agent_class";
constexpr int kWaitingThreads = 5;

LRESULT CALLBACK WindowProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == WM_DESTROY) {
    ::PostQuitMessage(0);
    return 0;
  }
  return ::DefWindowProcW(hwnd, message, wParam, lParam);
}

void Drain() {
  MSG msg;
  while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
    ::TranslateMessage(&msg);
    ::DispatchMessageW(&msg);
  }
}

// The window thread: the same class and window values as the agent's window,
// under a class name of its own so that nothing aimed at the agent finds it.
void WindowThread(HANDLE stop, int pumpMs) {
  const HINSTANCE instance = ::GetModuleHandleW(nullptr);
  WNDCLASSEXW wc = {};
  wc.cbSize = sizeof wc;
  wc.style = CS_HREDRAW | CS_VREDRAW;
  wc.lpfnWndProc = &WindowProc;
  wc.hInstance = instance;
  wc.hIcon = ::LoadIconW(nullptr, IDI_APPLICATION);
  wc.hCursor = ::LoadCursorW(nullptr, IDC_ARROW);
  wc.hbrBackground = reinterpret_cast<HBRUSH>(static_cast<INT_PTR>(COLOR_WINDOW));
  wc.lpszClassName = kClassName;
  ::RegisterClassExW(&wc);
  HWND window = ::CreateWindowExW(0, kClassName, L"bare_agent", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                                  0, CW_USEDEFAULT, 0, nullptr, nullptr, instance, nullptr);
  if (!window) {
    std::fprintf(stderr, "bare_agent: no window (error %lu)\n", ::GetLastError());
    return;
  }
  ::ShowWindow(window, SW_HIDE);
  ::UpdateWindow(window);
  ::WTSRegisterSessionNotification(window, NOTIFY_FOR_ALL_SESSIONS);
  for (;;) {
    Drain();
    const DWORD r = pumpMs > 0 ? ::WaitForSingleObject(stop, static_cast<DWORD>(pumpMs))
                               : ::MsgWaitForMultipleObjectsEx(1, &stop, INFINITE, QS_ALLINPUT,
                                                               MWMO_INPUTAVAILABLE);
    if (r == WAIT_OBJECT_0) break;
  }
  ::DestroyWindow(window);
  ::WTSUnRegisterSessionNotification(window);
}

}  // namespace

int main(int argc, char** argv) {
  const char* eventName = nullptr;
  int pumpMs = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "-s") == 0 && i + 1 < argc)
      eventName = argv[++i];
    else if (std::strcmp(argv[i], "--pump-ms") == 0 && i + 1 < argc)
      pumpMs = std::atoi(argv[++i]);
  }
  if (!eventName) {
    std::fprintf(stderr, "usage: bare_agent -s <control event name> [--pump-ms N]\n");
    return 2;
  }
  WSADATA wsa;
  if (::WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 1;
  ScopedHandle control(::CreateEventA(nullptr, FALSE, FALSE, eventName));
  ScopedHandle stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!control || !stop) return 1;

  std::vector<std::thread> threads;
  threads.emplace_back(WindowThread, stop.get(), pumpMs);
  for (int i = 0; i < kWaitingThreads; ++i)
    threads.emplace_back([h = stop.get()] { ::WaitForSingleObject(h, INFINITE); });

  ::WaitForSingleObject(control.get(), INFINITE);
  ::SetEvent(stop.get());
  for (std::thread& t : threads) t.join();
  ::WSACleanup();
  return 0;
}
