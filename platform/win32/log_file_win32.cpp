#include "platform/win32/log_file_win32.h"

#include "platform/win32/protected_security_win32.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

bool CreateProtectedDirectory(const std::wstring& path) {
  CProtectedSecurity security(kSystemAndAdministratorsFolderSddl);
  return security.get() && ::CreateDirectoryW(path.c_str(), security.get()) != FALSE;
}

LogFileOpen OpenLogFileForAppend(const std::wstring& folder, const std::wstring& fileName,
                                 ScopedFileHandle& file) {
  file.Set(INVALID_HANDLE_VALUE);
  std::wstring directory = folder;
  while (directory.size() > 3 && (directory.back() == L'\\' || directory.back() == L'/')) {
    directory.pop_back();
  }
  if (!directory.empty() && ::GetFileAttributesW(directory.c_str()) == INVALID_FILE_ATTRIBUTES &&
      ::GetLastError() == ERROR_FILE_NOT_FOUND) {
    CreateProtectedDirectory(directory);
  }

  std::wstring path = folder;
  if (!path.empty() && path.back() != L'\\' && path.back() != L'/') path += L'\\';
  path += fileName;
  // The reparse point itself is opened, not what it names, so a link shows
  // up below instead of being followed.
  ScopedFileHandle opened(::CreateFileW(
      path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
      nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!opened) return LogFileOpen::kUnavailable;
  BY_HANDLE_FILE_INFORMATION information = {};
  if (!::GetFileInformationByHandle(opened.get(), &information)) return LogFileOpen::kRefused;
  const DWORD unwanted = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY;
  if ((information.dwFileAttributes & unwanted) != 0 || information.nNumberOfLinks != 1) {
    return LogFileOpen::kRefused;
  }
  file = std::move(opened);
  return LogFileOpen::kOpened;
}

}  // namespace lindqvar::win32
