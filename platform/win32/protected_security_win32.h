// Security attributes that give SYSTEM and the built-in Administrators full
// access and nobody else any, with nothing inherited from a parent: for the
// named control event, the service's events and the log folder.
#pragma once

#include <memory>

#include "platform/win32/windows_include.h"

#include <sddl.h>

namespace lindqvar::win32 {

// For kernel objects (events).
inline constexpr wchar_t kSystemAndAdministratorsSddl[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)";
// For folders: the same, inherited by everything created inside.
inline constexpr wchar_t kSystemAndAdministratorsFolderSddl[] =
    L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

class CProtectedSecurity {
 public:
  explicit CProtectedSecurity(const wchar_t* sddl = kSystemAndAdministratorsSddl) {
    PSECURITY_DESCRIPTOR raw = nullptr;
    if (::ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &raw,
                                                               nullptr)) {
      m_descriptor.reset(raw);
    }
    m_attributes.nLength = sizeof m_attributes;
    m_attributes.lpSecurityDescriptor = m_descriptor.get();
    m_attributes.bInheritHandle = FALSE;
  }
  // Null when the descriptor could not be built; a named object is then not
  // created at all.
  SECURITY_ATTRIBUTES* get() { return m_descriptor ? &m_attributes : nullptr; }

 private:
  struct LocalFreeDeleter {
    void operator()(void* p) const { ::LocalFree(p); }
  };
  std::unique_ptr<void, LocalFreeDeleter> m_descriptor;
  SECURITY_ATTRIBUTES m_attributes = {};
};

}  // namespace lindqvar::win32
