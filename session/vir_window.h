// Base of the agent's manager: the object behind the hidden window. The
// window (platform/session_window.h) hands every message to WindowProc on
// the thread that pumps it.
#pragma once

#include "platform/session_window.h"

namespace lindqvar {

class CVirWindow : public IWindowMessageSink {
 public:
  ~CVirWindow() override = default;
  int64_t WindowProc(uint32_t message, uint64_t wParam, int64_t lParam) override = 0;
};

}  // namespace lindqvar
