#include "platform/win32/platform_win32.h"

#include "platform/win32/accounts_win32.h"
#include "platform/win32/adapters_win32.h"
#include "platform/win32/console_runner_win32.h"
#include "platform/win32/hyperv_win32.h"
#include "platform/win32/network_win32.h"
#include "platform/win32/registry_win32.h"
#include "platform/win32/security_package_win32.h"
#include "platform/win32/session_window_win32.h"
#include "platform/win32/sessions_win32.h"
#include "platform/win32/support_win32.h"

namespace lindqvar::win32 {

struct CWindowsPlatform::Parts {
  explicit Parts(std::span<const CatalogueEvent> catalogue) : support(catalogue) {}
  CSupportLibraryWin32 support;
  CRegistryWin32 registry;
  CNetworkWin32 network;
  CSessionsWin32 sessions;
  CSessionWindowWin32 window;
  CAccountsWin32 accounts;
  CAdaptersWin32 adapters;
  CConsoleRunnerWin32 console;
  CHyperVWin32 hyperv;
  CSecurityPackageWin32 securityPackage;
  CImpersonationWin32 impersonation;
};

CWindowsPlatform::CWindowsPlatform(std::span<const CatalogueEvent> catalogue)
    : m_parts(std::make_unique<Parts>(catalogue)) {}

CWindowsPlatform::~CWindowsPlatform() = default;

Platform CWindowsPlatform::Get() const {
  Platform p;
  p.support = &m_parts->support;
  p.registry = &m_parts->registry;
  p.network = &m_parts->network;
  p.sessions = &m_parts->sessions;
  p.window = &m_parts->window;
  p.accounts = &m_parts->accounts;
  p.adapters = &m_parts->adapters;
  p.console = &m_parts->console;
  p.hyperv = &m_parts->hyperv;
  p.securityPackage = &m_parts->securityPackage;
  p.impersonation = &m_parts->impersonation;
  return p;
}

}  // namespace lindqvar::win32
