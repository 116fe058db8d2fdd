#include "service/win32/service_log_win32.h"

#include <cstdio>

#include "platform/os.h"
#include "platform/win32/log_file_win32.h"
#include "platform/win32/registry_values.h"
#include "service/win32/settings_key_win32.h"

namespace lindqvar::service {

using win32::W;

namespace {
constexpr wchar_t kServiceLogFile[] = L"LindqvarService.log";
}  // namespace

CServiceLogWin32::CServiceLogWin32() : m_source(::RegisterEventSourceW(nullptr, kEventSource)) {}

std::wstring CServiceLogWin32::Folder() {
  std::u16string dir =
      win32::ReadString(HKEY_LOCAL_MACHINE, win32::kLoggingKey, u"LogDirectory", u"");
  std::wstring folder = dir.empty() ? ProgramFolder() : std::wstring(W(dir));
  if (!folder.empty() && folder.back() != L'\\' && folder.back() != L'/') folder += L'\\';
  return folder;
}

void CServiceLogWin32::Write(ServiceEvent id, EventKind kind, const std::string& text) {
  static constexpr WORD kTypes[] = {EVENTLOG_INFORMATION_TYPE, EVENTLOG_WARNING_TYPE,
                                    EVENTLOG_ERROR_TYPE};
  static constexpr const char* kNames[] = {"INFO", "WARNING", "ERROR"};
  const auto k = static_cast<size_t>(kind);
  std::lock_guard<std::mutex> lock(m_mutex);

  const std::u16string wide = Utf8ToWide(text);
  if (m_source) {
    const wchar_t* strings[] = {W(wide)};
    ::ReportEventW(m_source.get(), kTypes[k], 0, static_cast<DWORD>(id), nullptr, 1, 0, strings,
                   nullptr);
  }

  win32::ScopedFileHandle file;
  const std::wstring folder = Folder();
  const win32::LogFileOpen opened = win32::OpenLogFileForAppend(folder, kServiceLogFile, file);
  if (opened == win32::LogFileOpen::kRefused && !m_refusalReported && m_source) {
    // Reported once; the service carries on with the event log alone.
    m_refusalReported = true;
    const std::wstring refused = L"The log file " + folder + kServiceLogFile +
                                 L" is a link or not a plain file; logging to it is off";
    const wchar_t* strings[] = {refused.c_str()};
    ::ReportEventW(m_source.get(), EVENTLOG_ERROR_TYPE, 0,
                   static_cast<DWORD>(ServiceEvent::kLogFileRefused), nullptr, 1, 0, strings,
                   nullptr);
  }
  if (!file) return;
  SYSTEMTIME t;
  ::GetLocalTime(&t);
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u ", t.wYear, t.wMonth,
                t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  const std::string line = stamp + std::string(kNames[k]) + " " +
                           std::to_string(static_cast<uint32_t>(id)) + " " + text + "\r\n";
  DWORD written = 0;
  ::WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

}  // namespace lindqvar::service
