// lindqvar-diag: see docs/diag.md.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/secret.h"
#include "protocol/transport/tls_client.h"
#include "tools/diag/diag.h"

#ifdef _WIN32
#include "platform/win32/registry_win32.h"
#include "platform/win32/security_package_win32.h"
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
  // The agent's own settings, client GUID and FIPS switch, read the way the
  // agent reads them.
  lindqvar::win32::CSupportLibraryWin32 system({});
  lindqvar::win32::CRegistryWin32 registry;
  lindqvar::win32::CSecurityPackageWin32 ntlm;
  lindqvar::win32::CImpersonationWin32 impersonation;
  return RunDiag(options, &system, &registry, stdout, &ntlm, &impersonation);
#else
  return RunDiag(options, nullptr, nullptr, stdout);
#endif
}
