#include "identity/azure.h"

#include <algorithm>
#include <cstdio>

#include "identity/console_match.h"
#include "identity/wide_text.h"
#include "platform/os.h"

namespace lindqvar {

namespace {

constexpr const char* kFunction = "GetAZureSessionUserInfo";
constexpr uint32_t kPipeReadSize = 1024;
constexpr const char* kDeviceRegistrationTool = "dsregcmd.exe";

}  // namespace

int32_t HResultFromWin32(uint32_t error) {
  const auto signedError = static_cast<int32_t>(error);
  if (signedError <= 0) return signedError;
  return static_cast<int32_t>((error & 0xFFFFu) | 0x80070000u);
}

int32_t GetAZureSessionUserInfo(const UserLookup& system, CLog& log, uint32_t sessionId,
                                std::u16string& user, std::u16string& domain,
                                std::u16string& tenantId) {
  std::unique_ptr<IUserToken> token;
  // The tool runs as the session's user or not at all: with nobody logged
  // on (1) there is no token and no lookup.
  if (QuerySessionUserToken(system.accounts, log, sessionId, &token, true) != 0 || !token) {
    log.Debug("%s(), GetTokenOfSession() failed, err=%d", kFunction,
              static_cast<int>(system.accounts.LastError()));
    return kAzureNoToken;
  }

  std::string output;
  const int32_t run = RunExternalProgram(system.console, system.timings, *token,
                                         kDeviceRegistrationTool, "/status", output);
  if (run == kRunOutputTooLong) {
    log.Error("%s(), the output of %s exceeds %u bytes, lookup refused", kFunction,
              kDeviceRegistrationTool, static_cast<unsigned>(kConsoleOutputLimit));
    return kAzureProgramFailed;
  }
  if (run != 0) {
    log.Debug("%s(), Calling of RunExternalProgram is failed, error:%d", kFunction, run);
    return kAzureProgramFailed;
  }
  log.Debug("%s(), Calling of RunExternalProgram is successful", kFunction);

  const int32_t parsed = ParseConsoleOutput(output, user, domain, tenantId);
  if (parsed != 0) {
    log.Debug("%s(), Calling of ParseConsoleOutput is failed, error:%d", kFunction, parsed);
    return kAzureOutputUnusable;
  }
  log.Debug("%s(), username:%s, domain:%s, tenantID:%s", kFunction, WideToUtf8(user).c_str(),
            WideToUtf8(domain).c_str(), WideToUtf8(tenantId).c_str());
  return kAzureOk;
  // The token, when there is one, is closed here by its owner.
}

int32_t RunExternalProgram(IConsoleRunner& runner, const Timings& timings, IUserToken& token,
                           const std::string& program, const std::string& arguments,
                           std::string& output) {
  std::unique_ptr<IConsolePipe> pipe;
  const ConsoleStart start = runner.Start(token, program, arguments, pipe);
  switch (start.failure) {
    case ConsoleStartFailure::kNone: break;
    case ConsoleStartFailure::kPipe: return -1;
    case ConsoleStartFailure::kInheritance: return HResultFromWin32(start.error);
    case ConsoleStartFailure::kProcess: return -2;
  }
  if (!pipe) return -1;

  // Both ends of the pipe stay open while reading (see the Windows runner),
  // so the pipe never reports a broken pipe and reading always ends by the
  // idle rule: that many empty polls in a row, one interval apart. They
  // close when `pipe` goes, at the end of this function.
  std::printf("Start to read pipe\n");
  uint32_t idle = 0;
  char buffer[kPipeReadSize];
  for (;;) {
    uint32_t available = 0;
    if (!pipe->Peek(available)) break;
    if (available == 0) {
      if (++idle > timings.consoleIdlePolls) break;
      SleepMs(timings.consoleIdlePollMs);
      continue;
    }
    uint32_t read = 0;
    if (!pipe->Read(buffer, kPipeReadSize, read) || read == 0) continue;
    std::printf("dwRead:%d\n", static_cast<int>(read));
    // The program runs as the user, who can write to its pipe: more than
    // any real status report is refused rather than collected.
    if (output.size() + read > kConsoleOutputLimit) {
      output.clear();
      return kRunOutputTooLong;
    }
    output.append(buffer, read);
    idle = 0;
  }
  std::printf("console output:%s\n", output.c_str());
  std::fflush(stdout);
  return 0;
}

int32_t ParseConsoleOutput(const std::string& output, std::u16string& user, std::u16string& domain,
                           std::u16string& tenantId) {
  // The output is converted as a NUL-terminated text: whatever follows an
  // embedded NUL is dropped.
  const std::u16string text = AnsiToWide(std::string_view(output.c_str()));
  bool joined = false;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find(u'\n', start), text.size());
    std::u16string_view line(text.data() + start, end - start);
    start = end + 1;
    if (!line.empty() && (line.back() == u'\r' || line.back() == u'\n')) line.remove_suffix(1);

    MatchSpan keySpan, valueSpan;
    if (!MatchStatusLine(line, keySpan, valueSpan)) continue;
    const std::u16string_view key = keySpan.In(line);
    const std::u16string_view value = valueSpan.In(line);
    if (WideEqualsNoCase(key, u"AzureAdJoined")) {
      joined = WideEqualsNoCase(value, u"yes");
    } else if (WideEqualsNoCase(key, u"TenantId")) {
      tenantId = value;
    } else if (WideEqualsNoCase(key, u"Executing Account Name")) {
      MatchSpan userSpan, domainSpan;
      if (MatchAccountValue(value, userSpan, domainSpan)) {
        user = userSpan.In(value);
        domain = domainSpan.In(value);
      }
    }
  }
  // The joined flag is read but deliberately left out of the result: an
  // output with the account and tenant lines counts without it.
  (void)joined;
  return !user.empty() && !domain.empty() && !tenantId.empty() ? 0 : -1;
}

}  // namespace lindqvar
