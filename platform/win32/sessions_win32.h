// Terminal-services sessions through WTSAPI32.
#pragma once

#include "platform/sessions.h"

namespace lindqvar::win32 {

class CSessionsWin32 : public ISessions {
 public:
  bool Enumerate(std::vector<SessionInfo>& sessions) override;
  uint32_t ActiveConsoleSession() override;
};

}  // namespace lindqvar::win32
