// Registry values written by the Windows tests: exactly the bytes given, into
// a key (of HKEY_LOCAL_MACHINE unless another root is given) that is made
// when it is missing.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

inline void SetValue(const std::u16string& path, const std::u16string& name, DWORD type,
                     const void* data, size_t size, HKEY root = HKEY_LOCAL_MACHINE) {
  ScopedRegKey key;
  ASSERT_EQ(::RegCreateKeyExW(root, W(path), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.receive(),
                              nullptr),
            ERROR_SUCCESS);
  ASSERT_EQ(::RegSetValueExW(key.get(), W(name), 0, type, static_cast<const BYTE*>(data),
                             static_cast<DWORD>(size)),
            ERROR_SUCCESS);
}
inline void SetValue(const std::u16string& path, const std::u16string& name, DWORD value) {
  SetValue(path, name, REG_DWORD, &value, sizeof value);
}
// A REG_SZ, stored with its terminator.
inline void SetValue(const std::u16string& path, const std::u16string& name,
                     const std::u16string& text) {
  SetValue(path, name, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(char16_t));
}

}  // namespace lindqvar::win32
