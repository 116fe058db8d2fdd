// Posts a session notification to the agent's hidden session-detector
// window, as the system does on a real machine (Wine never sends them):
//   session_post [--wait SECONDS] <event code> <session id>
// e.g. "session_post 5 1" for WTS_SESSION_LOGON of session 1. The window is
// looked for on the caller's desktop and then on every desktop of every
// window station, since an agent started by a service lives on the
// service's. Waits up to --wait seconds (default 30) for the window. Exits 0
// when posted, 1 when no window was found, 2 on bad usage.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/win32/windows_include.h"

namespace {

constexpr wchar_t kDetectorClass[] =
    L"244AD2FA-BD34-4EE9-9C06-54D337C8ED71_session_detector_class";
constexpr UINT kSessionChange = 0x2B1;  // WM_WTSSESSION_CHANGE

BOOL CALLBACK AddName(LPWSTR name, LPARAM names) {
  reinterpret_cast<std::vector<std::wstring>*>(names)->push_back(name);
  return TRUE;
}

// Finds the window on the current desktop, else on the other desktops.
HWND FindDetector(std::wstring& where) {
  if (HWND w = ::FindWindowW(kDetectorClass, nullptr)) {
    where = L"own desktop";
    return w;
  }
  std::vector<std::wstring> stations;
  ::EnumWindowStationsW(AddName, reinterpret_cast<LPARAM>(&stations));
  for (const auto& station : stations) {
    HWINSTA ws = ::OpenWindowStationW(station.c_str(), FALSE, WINSTA_ENUMDESKTOPS);
    if (!ws) continue;
    std::vector<std::wstring> desktops;
    ::EnumDesktopsW(ws, AddName, reinterpret_cast<LPARAM>(&desktops));
    HWINSTA previous = ::GetProcessWindowStation();
    if (::SetProcessWindowStation(ws)) {
      for (const auto& name : desktops) {
        HDESK desk = ::OpenDesktopW(name.c_str(), 0, FALSE, DESKTOP_READOBJECTS);
        if (!desk) continue;
        HWND w = nullptr;
        if (::SetThreadDesktop(desk)) w = ::FindWindowW(kDetectorClass, nullptr);
        ::CloseDesktop(desk);
        if (w) {
          where = station + L"\\" + name;
          return w;  // the handle stays valid for PostMessage from any desktop
        }
      }
      ::SetProcessWindowStation(previous);
    }
    ::CloseWindowStation(ws);
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  int waitSeconds = 30;
  int i = 1;
  if (argc > 2 && std::string(argv[1]) == "--wait") {
    waitSeconds = std::atoi(argv[2]);
    i = 3;
  }
  if (argc - i != 2) {
    std::fprintf(stderr, "usage: session_post [--wait SECONDS] <event code> <session id>\n");
    return 2;
  }
  const WPARAM code = std::strtoul(argv[i], nullptr, 0);
  const LPARAM session = static_cast<LPARAM>(std::strtoul(argv[i + 1], nullptr, 0));
  for (int tries = 0; tries <= waitSeconds * 4; ++tries) {
    std::wstring where;
    if (HWND w = FindDetector(where)) {
      if (!::PostMessageW(w, kSessionChange, code, session)) {
        std::fprintf(stderr, "session_post: PostMessage failed: %lu\n", ::GetLastError());
        return 1;
      }
      std::printf("posted 0x%x (%lu, %ld) to the window on %ls\n", kSessionChange,
                  static_cast<unsigned long>(code), static_cast<long>(session), where.c_str());
      return 0;
    }
    ::Sleep(250);
  }
  std::fprintf(stderr, "session_post: no session-detector window\n");
  return 1;
}
