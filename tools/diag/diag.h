// lindqvar-diag: tells an administrator whether the agent can reach its
// authentication servers, and what it would report. `check` runs TLS, hello
// and hello acknowledgement with each configured server without sending an
// event; `send` delivers one event to each and prints every
// acknowledgement; `report` says what the agent of this machine would report
// now (sessions and users, addresses, identifiers, settings) and why,
// without sending anything. All run the agent's own code, so what they say
// is what the agent would meet.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/registry.h"
#include "platform/secret.h"
#include "platform/security_package.h"
#include "platform/service_status.h"
#include "platform/support.h"
#include "protocol/messages/event.h"

namespace lindqvar::diag {

enum ExitCode : int {
  kExitOk = 0,             // every server passed
  kExitSomeFailed = 1,     // at least one server passed, at least one failed
  kExitAllFailed = 2,      // no server passed
  kExitUsage = 3,          // the command line is wrong
  kExitNotConfigured = 4,  // no server is configured
  // 5 is not used: it meant a hello that ended the agent, which no hello does now.
  kExitSetup = 6,            // the program cannot start (sockets, certificate material)
  kExitNothingReported = 7,  // report: the agent would report nothing now (the output says why)
};

struct DiagOptions {
  std::string command;               // "check", "send" or "report"
  bool json = false;                 // report: JSON instead of text
  std::string serverList;            // --servers: the settings' own format
  std::vector<std::string> servers;  // --server HOST[:PORT]
  bool keyGiven = false;
  SecretString key;  // UTF-8, wiped when released
  // The one event of `send`: a single session record with the user, domain,
  // workstation and addresses given (time 0: when it is sent).
  SessionRecord event{.logon = 1};
  uint32_t session = 1;
  std::string clientGuid;  // empty: the system's, if any
  bool fips = false;
  bool verifyServer = false;  // --verify-server: as with VerifyServer 1
  bool pinsGiven = false;
  std::string pins;  // --pin: fingerprints, ";"-separated
  // NTLM relay with explicit credentials (--ntlm-user, --ntlm-password-file);
  // without them the session's user's own credentials.
  std::string ntlmUser;  // "DOMAIN\\user"
  std::string ntlmPassword;
  uint32_t timeoutMs = 5000;
  bool verbose = false;
  bool help = false;
};

extern const char kUsage[];

// Parses the arguments after the program name. False with a message.
bool ParseArguments(const std::vector<std::string>& args, DiagOptions& out, std::string& error);

// Runs the command and returns its exit code. `system` is the machine's
// support library (agent settings, client GUID, FIPS flag) and `registry`
// the machine's registry (server verification values), or null where there
// are none; whatever the command line gives takes precedence.
// `ntlm` and `impersonation` (both or neither) let `send` run the NTLM relay
// when a server asks for it; without them the request is only shown.
int RunDiag(const DiagOptions& options, ISupportLibrary* system, IRegistry* registry,
            std::FILE* out, ISecurityPackage* ntlm = nullptr,
            IImpersonation* impersonation = nullptr);

// The name of the agent's Windows service (service/).
inline constexpr char16_t kAgentServiceName[] = u"LindqvarAgent";

// Runs `report` over the machine's platform (on Windows the system's own
// implementations; in tests fakes) and returns its exit code: kExitOk when
// the agent would report the current session, kExitNotConfigured when no
// server is configured, kExitNothingReported when it would report nothing
// for another reason, kExitSetup when the socket library cannot start.
// `services` tells the agent service's state; null where there is none.
// Nothing is sent and nothing is written; the agent's own log lines appear
// (on `logOut`) with --verbose only.
int RunReport(const DiagOptions& options, const Platform& platform, IServiceStatus* services,
              std::FILE* out, std::FILE* logOut);

}  // namespace lindqvar::diag
