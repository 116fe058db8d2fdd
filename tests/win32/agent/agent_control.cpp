// Plays the endpoint client's service for tests and for a person trying the
// agent by hand:
//   agent_control status <control key> <value>   desired status for component 25
//   agent_control signal <event name>            signal the agent's control event
// Exits 0 on success, 1 on a failure it reports, 2 on bad usage.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/os.h"
#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"

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

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "status") return SetStatus(argv[2], argv[3]);
  if (argc == 3 && std::string(argv[1]) == "signal") return Signal(argv[2]);
  std::fprintf(stderr,
               "usage: agent_control status <control key> <value>\n"
               "       agent_control signal <event name>\n");
  return 2;
}
