#include "platform/win32/console_runner_win32.h"

#include <vector>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

namespace {

#ifdef _WIN64
static_assert(sizeof(SECURITY_ATTRIBUTES) == 24 && sizeof(STARTUPINFOA) == 104);
#endif

// The read end of the pipe. Neither this end nor the write end is ever
// closed: with the write end open in this process the pipe never reports a
// broken pipe, so the reader always ends by its idle rule, which fixes the
// timing of every lookup. Both handles are kept open on purpose.
class CConsolePipeWin32 : public IConsolePipe {
 public:
  explicit CConsolePipeWin32(HANDLE read) : m_read(read) {}

  bool Peek(uint32_t& available) override {
    DWORD bytes = 0;
    if (!::PeekNamedPipe(m_read, nullptr, 0, nullptr, &bytes, nullptr)) return false;
    available = bytes;
    return true;
  }

  bool Read(char* buffer, uint32_t size, uint32_t& read) override {
    DWORD bytes = 0;
    const BOOL ok = ::ReadFile(m_read, buffer, size, &bytes, nullptr);
    read = bytes;
    return ok != FALSE;
  }

 private:
  HANDLE m_read;
};

}  // namespace

ConsoleStart CConsoleRunnerWin32::Start(IUserToken* token, const std::string& commandLine,
                                        std::unique_ptr<IConsolePipe>& pipe) {
  SECURITY_ATTRIBUTES attributes = {};
  attributes.nLength = sizeof attributes;
  attributes.lpSecurityDescriptor = nullptr;
  attributes.bInheritHandle = TRUE;

  // Raw handles, not owners: the pipe's ends stay open on every path,
  // failures included (see CConsolePipeWin32).
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &attributes, 0)) {
    return {ConsoleStartFailure::kPipe, ::GetLastError()};
  }
  // Only the write end goes to the child.
  if (!::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0)) {
    return {ConsoleStartFailure::kInheritance, ::GetLastError()};
  }

  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  startup.hStdOutput = writeEnd;
  startup.hStdError = writeEnd;
  startup.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  startup.wShowWindow = SW_HIDE;

  std::vector<char> command(commandLine.begin(), commandLine.end());
  command.push_back('\0');
  PROCESS_INFORMATION process = {};
  HANDLE user = token ? static_cast<HANDLE>(token->native()) : nullptr;
  if (!::CreateProcessAsUserA(user, nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                              nullptr, &startup, &process)) {
    return {ConsoleStartFailure::kProcess, ::GetLastError()};
  }
  // The process is neither waited for nor ended.
  ScopedHandle processHandle(process.hProcess);
  ScopedHandle threadHandle(process.hThread);

  pipe = std::make_unique<CConsolePipeWin32>(readEnd);
  return {};
}

}  // namespace lindqvar::win32
