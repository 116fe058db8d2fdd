// The Azure AD identity of a session's user: "dsregcmd.exe /status" from the
// system directory run as that user, its console output collected and parsed for the account and
// the tenant.
#pragma once

#include <cstdint>
#include <string>

#include "identity/terminal_session.h"
#include "platform/console_runner.h"
#include "platform/timings.h"

namespace lindqvar {

// Results of GetAZureSessionUserInfo.
inline constexpr int32_t kAzureOk = 0;
inline constexpr int32_t kAzureNoToken = -1;
inline constexpr int32_t kAzureOutputUnusable = -2;
inline constexpr int32_t kAzureProgramFailed = -3;

int32_t GetAZureSessionUserInfo(const UserLookup& system, CLog& log, uint32_t sessionId,
                                std::u16string& user, std::u16string& domain,
                                std::u16string& tenantId);

// The most output RunExternalProgram takes from a program (64 KiB); a real
// status report is a few KiB.
inline constexpr uint32_t kConsoleOutputLimit = 64 * 1024;
inline constexpr int32_t kRunOutputTooLong = -3;

// Runs the system program "<program> <arguments>" as the token's user and
// appends everything it writes to `output` (ANSI code page bytes). 0 on
// success, -1 when the pipe could not be made, the HRESULT form of the error
// when its read end could not be made non-inheritable, -2 when the process
// could not be started, kRunOutputTooLong (output emptied) as soon as the
// output would exceed kConsoleOutputLimit. Reading ends after
// timings.consoleIdlePolls empty polls in a row, timings.consoleIdlePollMs
// apart.
int32_t RunExternalProgram(IConsoleRunner& runner, const Timings& timings, IUserToken& token,
                           const std::string& program, const std::string& arguments,
                           std::string& output);

// Picks the user, domain and tenant id out of the tool's output: 0 when all
// three were found, else -1.
int32_t ParseConsoleOutput(const std::string& output, std::u16string& user, std::u16string& domain,
                           std::u16string& tenantId);

// HRESULT_FROM_WIN32: a positive error's low 16 bits in facility 7 with the
// failure bit; zero and negative values unchanged.
int32_t HResultFromWin32(uint32_t error);

}  // namespace lindqvar
