// Running a console program as a user with its output on an anonymous pipe.
#pragma once

#include "platform/console_runner.h"

namespace lindqvar::win32 {

class CConsoleRunnerWin32 : public IConsoleRunner {
 public:
  ConsoleStart Start(IUserToken* token, const std::string& commandLine,
                     std::unique_ptr<IConsolePipe>& pipe) override;
};

}  // namespace lindqvar::win32
