// lindqvar-diag: see docs/diag.md.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/secret.h"
#include "protocol/transport/tls_client.h"
#include "tools/diag/diag.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>

#include "platform/win32/platform_win32.h"
#include "platform/win32/registry_win32.h"
#include "platform/win32/security_package_win32.h"
#include "platform/win32/service_status_win32.h"
#include "platform/win32/support_win32.h"
#endif

int main(int argc, char** argv) {
  lindqvar::InitTlsLibrary();  // before anything else touches OpenSSL
  using namespace lindqvar::diag;
  std::vector<std::string> args(argv + 1, argv + argc);
  DiagOptions options;
  std::string error;
  const bool parsed = ParseArguments(args, options, error);
  // A key given on the command line is held in `options` alone from here.
  for (std::string& arg : args) lindqvar::WipeString(arg);
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i - 1], "--key") == 0) lindqvar::WipeMemory(argv[i], std::strlen(argv[i]));
  }
  if (!parsed) {
    std::fprintf(stderr, "lindqvar-diag: %s\n\n%s", error.c_str(), kUsage);
    return kExitUsage;
  }
  if (options.help) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
#ifdef _WIN32
  if (options.command == "report") {
    // The machine as the agent sees it, through the same implementations.
    lindqvar::win32::CWindowsPlatform platform({});
    lindqvar::win32::CServiceStatusWin32 services;
    // The user lookup prints the device-registration tool's output on the
    // console, as the agent does. The report gets a stdout of its own, and
    // those prints go to stderr with --verbose, else nowhere, so that the
    // report (and --json) stays clean.
    std::fflush(stdout);
    const int reportFd = _dup(_fileno(stdout));
    std::FILE* report = reportFd >= 0 ? _fdopen(reportFd, "w") : nullptr;
    const int sink = options.verbose ? _dup(_fileno(stderr)) : _open("NUL", _O_WRONLY);
    if (!report || sink < 0 || _dup2(sink, _fileno(stdout)) != 0) {
      std::fprintf(stderr, "lindqvar-diag: the report's output cannot be set up\n");
      return kExitSetup;
    }
    _close(sink);
    const int code = RunReport(options, platform.Get(), &services, report, stderr);
    std::fclose(report);
    return code;
  }
  // The agent's own settings, client GUID and FIPS switch, read the way the
  // agent reads them.
  lindqvar::win32::CSupportLibraryWin32 system({});
  lindqvar::win32::CRegistryWin32 registry;
  lindqvar::win32::CSecurityPackageWin32 ntlm;
  lindqvar::win32::CImpersonationWin32 impersonation;
  return RunDiag(options, &system, &registry, stdout, &ntlm, &impersonation);
#else
  if (options.command == "report") {
    std::fprintf(stderr,
                 "lindqvar-diag: report reads this machine's sessions, adapters and registry the "
                 "way the agent does: it is in the Windows build only\n");
    return kExitUsage;
  }
  return RunDiag(options, nullptr, nullptr, stdout);
#endif
}
