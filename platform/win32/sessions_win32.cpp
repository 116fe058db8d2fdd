#include "platform/win32/sessions_win32.h"

#include "platform/win32/windows_include.h"

#include <wtsapi32.h>

namespace lindqvar::win32 {

bool CSessionsWin32::Enumerate(std::vector<SessionInfo>& sessions) {
  sessions.clear();
  WTS_SESSION_INFOW* info = nullptr;
  DWORD count = 0;
  if (!::WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &info, &count)) return false;
  for (DWORD i = 0; i < count; ++i) {
    sessions.push_back({info[i].SessionId, static_cast<SessionState>(info[i].State)});
  }
  ::WTSFreeMemory(info);
  return true;
}

uint32_t CSessionsWin32::ActiveConsoleSession() { return ::WTSGetActiveConsoleSessionId(); }

}  // namespace lindqvar::win32
