// lindqvar-agent.exe: the agent on the Windows platform.
#include "agent/agent_main.h"
#include "agent/catalogue.h"
#include "agent/session_manager.h"
#include "platform/win32/platform_win32.h"
#include "platform/win32/protected_security_win32.h"
#include "platform/win32/windows_include.h"
#include "protocol/transport/tls_client.h"

int main(int argc, char** argv) {
  lindqvar::InitTlsLibrary();  // before anything else touches OpenSSL
  lindqvar::win32::CWindowsPlatform platform(lindqvar::EventCatalogue());
  return lindqvar::AgentMain(
      argc, argv, platform.Get(),
      [](const std::string& name) {
        // Automatic reset, not signalled; opens the event when the parent
        // made it. Made here, it gets SYSTEM and Administrators only.
        lindqvar::win32::CProtectedSecurity security;
        if (!security.get()) return std::unique_ptr<lindqvar::CEvent>();
        HANDLE h = ::CreateEventA(security.get(), FALSE, FALSE, name.c_str());
        return h ? lindqvar::CEvent::Adopt(h) : nullptr;
      },
      [](std::unique_ptr<lindqvar::CSessionManager>) {
        // A worker is still inside a send after a settings change: end the
        // process here, threads and all, before anything they use is torn
        // down. The log is written unbuffered, so no line is lost.
        ::ExitProcess(0);
      });
}
