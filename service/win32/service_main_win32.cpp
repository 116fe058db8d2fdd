// lindqvar-service.exe: the Windows service "LindqvarAgent" that plays the
// agent's parent.
//
//   lindqvar-service.exe                   run as the service (started by the
//                                          service control manager)
//   lindqvar-service.exe --console         the same in the foreground, until Ctrl-C
//   lindqvar-service.exe --setup install   create the settings key readable by
//                                          SYSTEM and Administrators only; outside
//                                          Program Files, protect the program folder
//   lindqvar-service.exe --setup stopped   wait until the service has stopped
//   lindqvar-service.exe --setup remove    the same, then remove the settings key,
//                                          the service's registry value and log files
// The --setup steps are run by the installer package.
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/win32/protected_security_win32.h"
#include "platform/win32/windows_include.h"
#include "service/supervisor.h"
#include "service/win32/service_log_win32.h"
#include "service/win32/settings_key_win32.h"
#include "service/win32/supervisor_system_win32.h"

namespace lindqvar::service {
namespace {

constexpr wchar_t kServiceName[] = L"LindqvarAgent";
constexpr SupervisorTimings kTimings{};

// The service control manager calls back without a context: the service's
// state lives here for the life of the process.
struct ServiceState {
  SERVICE_STATUS_HANDLE handle = nullptr;
  std::mutex statusMutex;  // the control handler reports from another thread
  SERVICE_STATUS status{};
  HANDLE stop = nullptr;  // manual reset; set by a stop or shut-down request
} g_service;

void ReportStatus(DWORD state, DWORD exitCode, DWORD waitHintMs) {
  std::lock_guard<std::mutex> lock(g_service.statusMutex);
  static DWORD checkPoint = 1;
  auto& s = g_service.status;
  s.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  s.dwCurrentState = state;
  s.dwControlsAccepted =
      state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  s.dwWin32ExitCode = exitCode ? ERROR_SERVICE_SPECIFIC_ERROR : NO_ERROR;
  s.dwServiceSpecificExitCode = exitCode;
  s.dwWaitHint = waitHintMs;
  s.dwCheckPoint = state == SERVICE_RUNNING || state == SERVICE_STOPPED ? 0 : checkPoint++;
  ::SetServiceStatus(g_service.handle, &s);
}

DWORD WINAPI ControlHandler(DWORD control, DWORD, void*, void*) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
      // The agent gets the stop limit to end, then a little for the rest.
      ReportStatus(SERVICE_STOP_PENDING, 0, kTimings.stopLimitMs + 5000);
      ::SetEvent(g_service.stop);
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE: return NO_ERROR;
    default: return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

uint32_t Supervise(HANDLE stop) {
  CServiceLogWin32 log;
  // The key may have been made again by hand or by a policy since the
  // package set its access.
  if (const uint32_t rc = ProtectSettingsKey(); rc != 0) {
    log.Write(ServiceEvent::kControlFailed, EventKind::kWarning,
              "Cannot restrict the settings key to SYSTEM and Administrators (error " +
                  std::to_string(rc) + ").");
  }
  CSupervisorSystemWin32 system(ProgramFolder() + L"lindqvar-agent.exe", stop);
  return CAgentSupervisor(system, log, kTimings).Run();
}

void WINAPI ServiceMain(DWORD, LPWSTR*) {
  g_service.handle = ::RegisterServiceCtrlHandlerExW(kServiceName, ControlHandler, nullptr);
  if (!g_service.handle) return;
  ReportStatus(SERVICE_START_PENDING, 0, 10000);
  g_service.stop =
      ::CreateEventW(lindqvar::win32::CProtectedSecurity().get(), TRUE, FALSE, nullptr);
  if (!g_service.stop) {
    ReportStatus(SERVICE_STOPPED, ::GetLastError(), 0);
    return;
  }
  ReportStatus(SERVICE_RUNNING, 0, 0);
  const uint32_t rc = Supervise(g_service.stop);
  ::CloseHandle(g_service.stop);
  ReportStatus(SERVICE_STOPPED, rc, 0);
}

BOOL WINAPI ConsoleHandler(DWORD) {
  ::SetEvent(g_service.stop);
  return TRUE;
}

// The installer asks the service to stop but does not always wait for it
// (Wine's does not); files still in use would stay behind.
void WaitServiceStopped(DWORD limitMs) {
  SC_HANDLE scm = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (!scm) return;
  SC_HANDLE service = ::OpenServiceW(scm, kServiceName, SERVICE_QUERY_STATUS);
  if (service) {
    const DWORD start = ::GetTickCount();
    SERVICE_STATUS status{};
    while (::QueryServiceStatus(service, &status) && status.dwCurrentState != SERVICE_STOPPED &&
           ::GetTickCount() - start < limitMs) {
      ::Sleep(250);
    }
    ::CloseServiceHandle(service);
  }
  ::CloseServiceHandle(scm);
}

int Usage() {
  std::fprintf(
      stderr,
      "lindqvar-service.exe is the Windows service \"LindqvarAgent\"; start it with\n"
      "  net start LindqvarAgent\n"
      "Other uses:\n"
      "  lindqvar-service.exe --console          run in the foreground until Ctrl-C\n"
      "  lindqvar-service.exe --setup install    restrict the settings key's (and, outside\n"
      "                                          Program Files, the program folder's) access\n"
      "  lindqvar-service.exe --setup stopped    wait until the service has stopped\n"
      "  lindqvar-service.exe --setup remove     the same, then remove its registry and logs\n");
  return 2;
}

int Main(int argc, char** argv) {
  if (argc == 1) {
    SERVICE_TABLE_ENTRYW table[] = {{const_cast<wchar_t*>(kServiceName), ServiceMain},
                                    {nullptr, nullptr}};
    if (::StartServiceCtrlDispatcherW(table)) return 0;
    if (::GetLastError() == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) return Usage();
    return 1;
  }
  const std::string mode = argv[1];
  if (mode == "--console" && argc == 2) {
    g_service.stop =
        ::CreateEventW(lindqvar::win32::CProtectedSecurity().get(), TRUE, FALSE, nullptr);
    ::SetConsoleCtrlHandler(ConsoleHandler, TRUE);
    return static_cast<int>(Supervise(g_service.stop));
  }
  if (mode == "--setup" && argc == 3 && std::strcmp(argv[2], "install") == 0) {
    const uint32_t rc = ProtectSettingsKey();
    if (rc != 0) std::fprintf(stderr, "cannot protect the settings key: error %u\n", rc);
    const uint32_t folder = ProtectInstallFolder();
    if (folder != 0) std::fprintf(stderr, "cannot protect the program folder: error %u\n", folder);
    return rc || folder ? 1 : 0;
  }
  if (mode == "--setup" && argc == 3 && std::strcmp(argv[2], "stopped") == 0) {
    WaitServiceStopped(kTimings.stopLimitMs + 10000);
    return 0;
  }
  if (mode == "--setup" && argc == 3 && std::strcmp(argv[2], "remove") == 0) {
    WaitServiceStopped(kTimings.stopLimitMs + 10000);
    RemoveServiceRegistry();
    // Logs written into the program's folder would keep it from going.
    const std::wstring folder = ProgramFolder();
    ::DeleteFileW((folder + L"FA_LINDQ.log").c_str());
    ::DeleteFileW((folder + L"LindqvarService.log").c_str());
    return 0;
  }
  return Usage();
}

}  // namespace
}  // namespace lindqvar::service

int main(int argc, char** argv) { return lindqvar::service::Main(argc, argv); }
