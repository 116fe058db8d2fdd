// A stand-in for the system's device-registration tool: prints what the test
// chose, the way the real tool would reach the agent's pipe.
//   LINDQVAR_DSREG_OUTPUT    file whose bytes go to standard output
//   LINDQVAR_DSREG_STDERR    text written to standard error afterwards
//   LINDQVAR_DSREG_ARGS      file that receives the command line, then a line
//                            with this program's own path
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/win32/windows_include.h"

namespace {

std::string Env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

std::vector<char> ReadAll(const std::string& path) {
  std::vector<char> data;
  HANDLE f = ::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                           nullptr);
  if (f == INVALID_HANDLE_VALUE) return data;
  char buffer[4096];
  DWORD n = 0;
  while (::ReadFile(f, buffer, sizeof buffer, &n, nullptr) && n > 0) data.insert(data.end(), buffer, buffer + n);
  ::CloseHandle(f);
  return data;
}

void Write(HANDLE out, const char* data, size_t size) {
  // Pieces of 700 bytes, so that the reader sees several writes.
  while (size > 0) {
    DWORD n = 0;
    const DWORD chunk = static_cast<DWORD>(size < 700 ? size : 700);
    if (!::WriteFile(out, data, chunk, &n, nullptr) || n == 0) return;
    data += n;
    size -= n;
  }
}

}  // namespace

int main() {
  const std::string argsFile = Env("LINDQVAR_DSREG_ARGS");
  if (!argsFile.empty()) {
    HANDLE f = ::CreateFileA(argsFile.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (f != INVALID_HANDLE_VALUE) {
      char self[MAX_PATH] = {};
      const DWORD length = ::GetModuleFileNameA(nullptr, self, MAX_PATH);
      const std::string text = std::string(::GetCommandLineA()) + "\n" + std::string(self, length);
      DWORD n = 0;
      ::WriteFile(f, text.data(), static_cast<DWORD>(text.size()), &n, nullptr);
      ::CloseHandle(f);
    }
  }

  const std::vector<char> output = ReadAll(Env("LINDQVAR_DSREG_OUTPUT"));
  HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  Write(out, output.data(), output.size());

  const std::string err = Env("LINDQVAR_DSREG_STDERR");
  Write(::GetStdHandle(STD_ERROR_HANDLE), err.data(), err.size());
  return 0;
}
