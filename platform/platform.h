// Everything the agent takes from the operating system and the support
// library, as one bundle of interfaces. The Windows program fills it with the
// implementations of platform/win32/; tests fill it with fakes.
#pragma once

#include "platform/accounts.h"
#include "platform/adapters.h"
#include "platform/console_runner.h"
#include "platform/event.h"
#include "platform/hyperv.h"
#include "platform/network.h"
#include "platform/registry.h"
#include "platform/security_package.h"
#include "platform/session_window.h"
#include "platform/sessions.h"
#include "platform/support.h"
#include "platform/timings.h"

namespace lindqvar {

struct Platform {
  ISupportLibrary* support = nullptr;
  IRegistry* registry = nullptr;
  INetwork* network = nullptr;
  ISessions* sessions = nullptr;
  ISessionWindow* window = nullptr;
  Timings timings;
  IAccounts* accounts = nullptr;
  IAdapters* adapters = nullptr;
  IConsoleRunner* console = nullptr;
  IHyperV* hyperv = nullptr;
  // The NTLM package and impersonation, for the NTLM relay; without them an
  // acknowledgement that asks for NTLM starts no relay.
  ISecurityPackage* securityPackage = nullptr;
  IImpersonation* impersonation = nullptr;
  // The worker loops' waits; null: the plain event waits.
  IWaits* waits = nullptr;
};

}  // namespace lindqvar
