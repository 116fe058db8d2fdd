// Running one of the system's console programs as a user with its output on
// an anonymous pipe.
#pragma once

#include <string>

#include "platform/console_runner.h"

namespace lindqvar::win32 {

// "<system directory>\<program>", the directory as GetSystemDirectoryA gives
// it (never from an environment the user controls); empty when unknown.
std::string SystemProgramPath(const std::string& program);

class CConsoleRunnerWin32 : public IConsoleRunner {
 public:
  ConsoleStart Start(IUserToken& token, const std::string& program, const std::string& arguments,
                     std::unique_ptr<IConsolePipe>& pipe) override;
};

}  // namespace lindqvar::win32
