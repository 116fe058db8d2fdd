#include "service/win32/supervisor_system_win32.h"

#include <vector>

#include "platform/os.h"
#include "platform/win32/protected_security_win32.h"
#include "platform/win32/registry_values.h"
#include "service/win32/settings_key_win32.h"

namespace lindqvar::service {

using win32::CProtectedSecurity;
using win32::ScopedHandle;
using win32::ScopedRegKey;
using win32::W;

namespace {

constexpr REGSAM k64 = KEY_WOW64_64KEY;

class AgentProcessWin32 : public IAgentProcess {
 public:
  AgentProcessWin32(HANDLE process, uint32_t id) : m_process(process), m_id(id) {}
  uint32_t Id() const override { return m_id; }
  uint32_t ExitCode() const override {
    DWORD code = 0;
    return ::GetExitCodeProcess(m_process.get(), &code) ? code : 0;
  }
  void Terminate() override { ::TerminateProcess(m_process.get(), 1); }
  HANDLE handle() const { return m_process.get(); }

 private:
  ScopedHandle m_process;
  uint32_t m_id;
};

// A job whose processes end when its last handle closes, i.e. with the
// service, however the service ends.
HANDLE CreateKillOnCloseJob() {
  HANDLE job = ::CreateJobObjectW(nullptr, nullptr);
  if (!job) return nullptr;
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits);
  return job;
}

}  // namespace

CSupervisorSystemWin32::CSupervisorSystemWin32(std::wstring agentPath, HANDLE stop)
    : m_agentPath(std::move(agentPath)),
      m_stop(stop),
      m_settingsChanged(::CreateEventW(CProtectedSecurity().get(), FALSE, FALSE, nullptr)),
      m_job(CreateKillOnCloseJob()) {}

uint32_t CSupervisorSystemWin32::CreateControlEvent(const std::string& name) {
  // Automatic reset, not signalled, with SYSTEM and Administrators only in
  // its DACL. A name already taken means another process made the event
  // first, with a DACL of its choosing, and could signal the agent: that
  // event is refused.
  CProtectedSecurity security;
  if (!security.get()) return ::GetLastError();
  ScopedHandle event(::CreateEventA(security.get(), FALSE, FALSE, name.c_str()));
  if (!event) return ::GetLastError();
  if (::GetLastError() == ERROR_ALREADY_EXISTS) return ERROR_ALREADY_EXISTS;
  m_control = std::move(event);
  return 0;
}

void CSupervisorSystemWin32::SignalControlEvent() { ::SetEvent(m_control.get()); }

uint32_t CSupervisorSystemWin32::SetDesiredStatus(const std::string& key, uint32_t status) {
  const std::u16string path = std::u16string(win32::kDesiredStatusKey) + u"\\25";
  ScopedRegKey k;
  LSTATUS rc = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, W(path), 0, nullptr, 0, KEY_SET_VALUE | k64,
                                 nullptr, k.receive(), nullptr);
  if (rc != ERROR_SUCCESS) return static_cast<uint32_t>(rc);
  const DWORD v = status;
  rc = ::RegSetValueExW(k.get(), W(AnsiToWide(key)), 0, REG_DWORD,
                        reinterpret_cast<const BYTE*>(&v), sizeof v);
  return static_cast<uint32_t>(rc);
}

std::unique_ptr<IAgentProcess> CSupervisorSystemWin32::StartAgent(const std::string& arguments,
                                                                  uint32_t& error) {
  std::wstring commandLine = L"\"" + m_agentPath + L"\" " + W(AnsiToWide(arguments));
  std::vector<wchar_t> mutableLine(commandLine.begin(), commandLine.end());
  mutableLine.push_back(L'\0');
  const std::wstring folder = m_agentPath.substr(0, m_agentPath.find_last_of(L"\\/") + 1);

  STARTUPINFOW si{};
  si.cb = sizeof si;
  PROCESS_INFORMATION pi{};
  // Suspended until it is in the job, so that nothing it starts escapes.
  if (!::CreateProcessW(m_agentPath.c_str(), mutableLine.data(), nullptr, nullptr, FALSE,
                        CREATE_NO_WINDOW | CREATE_SUSPENDED, nullptr,
                        folder.empty() ? nullptr : folder.c_str(), &si, &pi)) {
    error = ::GetLastError();
    return nullptr;
  }
  ScopedHandle thread(pi.hThread);
  if (m_job) ::AssignProcessToJobObject(m_job.get(), pi.hProcess);
  ::ResumeThread(thread.get());
  return std::make_unique<AgentProcessWin32>(pi.hProcess, pi.dwProcessId);
}

bool CSupervisorSystemWin32::WatchSettings() {
  if (!m_settingsKey && ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey), 0,
                                        KEY_NOTIFY | KEY_QUERY_VALUE | k64,
                                        m_settingsKey.receive()) != ERROR_SUCCESS) {
    return false;
  }
  const LSTATUS rc = ::RegNotifyChangeKeyValue(m_settingsKey.get(), FALSE,
                                               REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET,
                                               m_settingsChanged.get(), TRUE);
  if (rc != ERROR_SUCCESS) {
    // Deleted under us: open it afresh next time.
    m_settingsKey.Set(nullptr);
    return false;
  }
  return true;
}

SettingsSnapshot CSupervisorSystemWin32::ReadSettings() {
  ScopedRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey), 0, KEY_QUERY_VALUE | k64,
                      key.receive()) != ERROR_SUCCESS) {
    return SettingsSnapshot::Missing();
  }
  return ReadSnapshot(key.get());
}

Wake CSupervisorSystemWin32::Wait(IAgentProcess* agent, uint32_t milliseconds) {
  HANDLE handles[3] = {m_stop, m_settingsChanged.get(), nullptr};
  DWORD count = 2;
  if (agent) handles[count++] = static_cast<AgentProcessWin32*>(agent)->handle();
  switch (::WaitForMultipleObjects(count, handles, FALSE, milliseconds)) {
    case WAIT_OBJECT_0: return Wake::kStop;
    case WAIT_OBJECT_0 + 1: return Wake::kSettingsChanged;
    case WAIT_OBJECT_0 + 2: return Wake::kAgentEnded;
    case WAIT_TIMEOUT: return Wake::kTimeout;
    default: return Wake::kStop;  // the handles are unusable: end the service cleanly
  }
}

bool CSupervisorSystemWin32::WaitAgent(IAgentProcess& agent, uint32_t milliseconds) {
  return ::WaitForSingleObject(static_cast<AgentProcessWin32&>(agent).handle(), milliseconds) ==
         WAIT_OBJECT_0;
}

uint32_t CSupervisorSystemWin32::TickCount() { return ::GetTickCount(); }

void CSupervisorSystemWin32::WriteNotConfigured() {
  // Opened, never created, as the agent does.
  ScopedRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey), 0, KEY_SET_VALUE | k64,
                      key.receive()) != ERROR_SUCCESS) {
    return;
  }
  const DWORD v = 0;
  ::RegSetValueExW(key.get(), L"LINDQState", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&v),
                   sizeof v);
}

}  // namespace lindqvar::service
