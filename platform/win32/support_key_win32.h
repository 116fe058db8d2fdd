// A key handle of our support library's reg_openkeyW: the registry key and
// the registry view it was opened in, so that keys opened below it (by the
// registry layer) are opened in the same view.
#pragma once

#include "platform/support.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

namespace lindqvar {

struct SupportKeyObject {
  win32::ScopedRegKey key;
  REGSAM view = 0;  // KEY_WOW64_64KEY or KEY_WOW64_32KEY, or 0
};

}  // namespace lindqvar
