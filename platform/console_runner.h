// Running one of the system's console programs as a user, with its standard
// output and standard error on an anonymous pipe that the caller reads.
// platform/win32/console_runner_win32.h has the Windows implementation.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/support.h"

namespace lindqvar {

// The read end of the pipe. Releasing it closes both ends of the pipe.
class IConsolePipe {
 public:
  virtual ~IConsolePipe() = default;
  // PeekNamedPipe: the number of bytes waiting. False when the call fails.
  virtual bool Peek(uint32_t& available) = 0;
  // ReadFile of at most `size` bytes. False when the call fails.
  virtual bool Read(char* buffer, uint32_t size, uint32_t& read) = 0;
};

// Which step of starting the program failed.
enum class ConsoleStartFailure {
  kNone,         // started
  kPipe,         // CreatePipe
  kInheritance,  // making the read end non-inheritable
  kProcess,      // CreateProcessAsUserA, or the system directory unknown
};

struct ConsoleStart {
  ConsoleStartFailure failure = ConsoleStartFailure::kNone;
  uint32_t error = 0;  // the system error of the failed step
};

class IConsoleRunner {
 public:
  virtual ~IConsoleRunner() = default;
  // Makes an anonymous pipe of which only the write end is inheritable and
  // starts `program`, a file name taken from the system directory (never a
  // search), with the command line "<program> <arguments>", as the token's
  // user with a hidden window and standard output and error on the write
  // end. The process is not waited for. On success `pipe` is the read end;
  // both ends stay open until it is released.
  virtual ConsoleStart Start(IUserToken& token, const std::string& program,
                             const std::string& arguments, std::unique_ptr<IConsolePipe>& pipe) = 0;
};

}  // namespace lindqvar
