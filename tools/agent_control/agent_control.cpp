// Plays the endpoint client's service for tests and for a person trying the
// agent by hand:
//   agent_control status <control key> <value>   desired status for component 25
//   agent_control signal <event name>            signal the agent's control event
//   agent_control post <notification> [session] post a session or power notification to
//                                                 the agent's hidden window: logon, logoff,
//                                                 lock, unlock, remote-connect,
//                                                 remote-disconnect, console-connect,
//                                                 console-disconnect (session default 1),
//                                                 or resume
// Exits 0 on success, 1 on a failure it reports, 2 on bad usage.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/os.h"
#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"

#include <wtsapi32.h>

using namespace lindqvar;
using namespace lindqvar::win32;

namespace {

int SetStatus(const char* key, const char* value) {
  const std::u16string path = std::u16string(kDesiredStatusKey) + u"\\25";
  ScopedRegKey k;
  const LSTATUS rc = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, W(path), 0, nullptr, 0,
                                       KEY_WRITE | KEY_WOW64_64KEY, nullptr, k.receive(), nullptr);
  if (rc != ERROR_SUCCESS) {
    std::fprintf(stderr, "agent_control: cannot create the desired-status key (error %ld)\n", rc);
    return 1;
  }
  const DWORD v = static_cast<DWORD>(std::strtoul(value, nullptr, 10));
  const std::u16string name = AnsiToWide(key);
  if (::RegSetValueExW(k.get(), W(name), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&v),
                       sizeof v) != ERROR_SUCCESS) {
    std::fprintf(stderr, "agent_control: cannot write the desired status\n");
    return 1;
  }
  return 0;
}

int Signal(const char* name) {
  // The agent creates the event before its start-up delay; give it time.
  for (int i = 0; i < 300; ++i) {
    ScopedHandle e(::OpenEventA(EVENT_MODIFY_STATE, FALSE, name));
    if (e) return ::SetEvent(e.get()) ? 0 : 1;
    ::Sleep(100);
  }
  std::fprintf(stderr, "agent_control: no event named %s\n", name);
  return 1;
}

constexpr wchar_t kDetectorClass[] = L"244AD2FA-BD34-4EE9-9C06-54D337C8ED71_session_detector_class";

BOOL CALLBACK AddName(LPWSTR name, LPARAM names) {
  reinterpret_cast<std::vector<std::wstring>*>(names)->push_back(name);
  return TRUE;
}

// The window on this desktop, else on any desktop of any window station: an
// agent started by a service lives on the service's desktop.
HWND FindOnAnyDesktop() {
  if (HWND w = ::FindWindowW(kDetectorClass, L"session_detector")) return w;
  std::vector<std::wstring> stations;
  ::EnumWindowStationsW(AddName, reinterpret_cast<LPARAM>(&stations));
  const HWINSTA own = ::GetProcessWindowStation();
  HWND found = nullptr;
  for (const auto& station : stations) {
    HWINSTA ws = ::OpenWindowStationW(station.c_str(), FALSE, WINSTA_ENUMDESKTOPS);
    if (!ws) continue;
    std::vector<std::wstring> desktops;
    ::EnumDesktopsW(ws, AddName, reinterpret_cast<LPARAM>(&desktops));
    if (::SetProcessWindowStation(ws)) {
      for (size_t i = 0; i < desktops.size() && !found; ++i) {
        if (HDESK desk = ::OpenDesktopW(desktops[i].c_str(), 0, FALSE, DESKTOP_READOBJECTS)) {
          if (::SetThreadDesktop(desk)) found = ::FindWindowW(kDetectorClass, L"session_detector");
          ::CloseDesktop(desk);
        }
      }
      ::SetProcessWindowStation(own);
    }
    ::CloseWindowStation(ws);
    if (found) break;  // the handle is good for PostMessageW from any desktop
  }
  return found;
}

// The agent's hidden window, waited for while the agent starts.
HWND FindDetectorWindow() {
  for (int i = 0; i < 400; ++i) {
    if (HWND w = FindOnAnyDesktop()) return w;
    ::Sleep(100);
  }
  return nullptr;
}

int Post(const std::string& what, const char* sessionText) {
  static const struct {
    const char* name;
    WPARAM code;
  } kCodes[] = {{"console-connect", WTS_CONSOLE_CONNECT},
                {"console-disconnect", WTS_CONSOLE_DISCONNECT},
                {"remote-connect", WTS_REMOTE_CONNECT},
                {"remote-disconnect", WTS_REMOTE_DISCONNECT},
                {"logon", WTS_SESSION_LOGON},
                {"logoff", WTS_SESSION_LOGOFF},
                {"lock", WTS_SESSION_LOCK},
                {"unlock", WTS_SESSION_UNLOCK}};
  UINT message = WM_WTSSESSION_CHANGE;
  WPARAM wParam = 0;
  if (what == "resume") {
    message = WM_POWERBROADCAST;
    wParam = PBT_APMRESUMESUSPEND;
  } else {
    for (const auto& c : kCodes) {
      if (what == c.name) wParam = c.code;
    }
    if (wParam == 0) {
      std::fprintf(stderr, "agent_control: unknown notification %s\n", what.c_str());
      return 2;
    }
  }
  const LPARAM session = sessionText ? std::strtol(sessionText, nullptr, 10) : 1;
  const HWND window = FindDetectorWindow();
  // Without a window PostMessageW(NULL, ...) would post to this thread and
  // still succeed: never post to a null window.
  if (!window) {
    std::fprintf(stderr, "agent_control: the agent's window is not there\n");
    return 1;
  }
  if (!::PostMessageW(window, message, wParam, session)) {
    std::fprintf(stderr, "agent_control: PostMessageW failed (error %lu)\n", ::GetLastError());
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "status") return SetStatus(argv[2], argv[3]);
  if (argc == 3 && std::string(argv[1]) == "signal") return Signal(argv[2]);
  if ((argc == 3 || argc == 4) && std::string(argv[1]) == "post")
    return Post(argv[2], argc == 4 ? argv[3] : nullptr);
  std::fprintf(stderr,
               "usage: agent_control status <control key> <value>\n"
               "       agent_control signal <event name>\n"
               "       agent_control post <notification> [session]\n");
  return 2;
}
