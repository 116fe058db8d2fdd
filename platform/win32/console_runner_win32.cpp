#include "platform/win32/console_runner_win32.h"

#include <utility>
#include <vector>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

namespace {

#ifdef _WIN64
static_assert(sizeof(SECURITY_ATTRIBUTES) == 24 && sizeof(STARTUPINFOA) == 104);
#endif

// The read end of the pipe, owning both ends. The write end stays open in
// this process while the output is read: the pipe then never reports a
// broken pipe, so the reader always ends by its idle rule, which fixes the
// timing of every lookup. Both ends close when the reader releases the pipe.
class CConsolePipeWin32 : public IConsolePipe {
 public:
  CConsolePipeWin32(ScopedHandle read, ScopedHandle write)
      : m_read(std::move(read)), m_write(std::move(write)) {}

  bool Peek(uint32_t& available) override {
    DWORD bytes = 0;
    if (!::PeekNamedPipe(m_read.get(), nullptr, 0, nullptr, &bytes, nullptr)) return false;
    available = bytes;
    return true;
  }

  bool Read(char* buffer, uint32_t size, uint32_t& read) override {
    DWORD bytes = 0;
    const BOOL ok = ::ReadFile(m_read.get(), buffer, size, &bytes, nullptr);
    read = bytes;
    return ok != FALSE;
  }

 private:
  ScopedHandle m_read;
  ScopedHandle m_write;
};

}  // namespace

std::string SystemProgramPath(const std::string& program) {
  char directory[MAX_PATH] = {};
  const UINT length = ::GetSystemDirectoryA(directory, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return {};
  return std::string(directory, length) + "\\" + program;
}

ConsoleStart CConsoleRunnerWin32::Start(IUserToken& token, const std::string& program,
                                        const std::string& arguments,
                                        std::unique_ptr<IConsolePipe>& pipe) {
  // The program is named by its full path as the application name, so no
  // search order (the agent's folder, the current directory, PATH) applies.
  const std::string application = SystemProgramPath(program);
  if (application.empty()) return {ConsoleStartFailure::kProcess, ::GetLastError()};

  SECURITY_ATTRIBUTES attributes = {};
  attributes.nLength = sizeof attributes;
  attributes.lpSecurityDescriptor = nullptr;
  attributes.bInheritHandle = TRUE;

  ScopedHandle readEnd;
  ScopedHandle writeEnd;
  if (!::CreatePipe(readEnd.receive(), writeEnd.receive(), &attributes, 0)) {
    return {ConsoleStartFailure::kPipe, ::GetLastError()};
  }
  // Only the write end goes to the child.
  if (!::SetHandleInformation(readEnd.get(), HANDLE_FLAG_INHERIT, 0)) {
    return {ConsoleStartFailure::kInheritance, ::GetLastError()};
  }

  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  startup.hStdOutput = writeEnd.get();
  startup.hStdError = writeEnd.get();
  startup.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
  startup.wShowWindow = SW_HIDE;

  const std::string commandLine = program + " " + arguments;
  std::vector<char> command(commandLine.begin(), commandLine.end());
  command.push_back('\0');
  PROCESS_INFORMATION process = {};
  HANDLE user = static_cast<HANDLE>(token.Native());
  if (!user) return {ConsoleStartFailure::kProcess, ERROR_INVALID_HANDLE};
  if (!::CreateProcessAsUserA(user, application.c_str(), command.data(), nullptr, nullptr, TRUE, 0,
                              nullptr, nullptr, &startup, &process)) {
    return {ConsoleStartFailure::kProcess, ::GetLastError()};
  }
  // The process is neither waited for nor ended.
  ScopedHandle processHandle(process.hProcess);
  ScopedHandle threadHandle(process.hThread);

  pipe = std::make_unique<CConsolePipeWin32>(std::move(readEnd), std::move(writeEnd));
  return {};
}

}  // namespace lindqvar::win32
