// Opening a log file that a user could have planted: the log folder may be
// one users can write, so the file is taken only when it is a plain file of
// one link, never through a link or reparse point.
#pragma once

#include <string>

#include "platform/win32/scoped_handle.h"

namespace lindqvar::win32 {

enum class LogFileOpen {
  kOpened,
  kUnavailable,  // the file could not be opened or created (no folder, no access)
  kRefused,      // a link, a reparse point, a directory, or a file of several links
};

// Opens `folder` + `fileName` for appending, creating it when missing. A
// missing folder is created first (its parent must exist) with a protected
// DACL: SYSTEM and Administrators, full control, nothing inherited. `file`
// is set only when the result is kOpened.
LogFileOpen OpenLogFileForAppend(const std::wstring& folder, const std::wstring& fileName,
                                 ScopedFileHandle& file);

// CreateDirectoryW with the protected DACL above. True when it was created.
bool CreateProtectedDirectory(const std::wstring& path);

}  // namespace lindqvar::win32
