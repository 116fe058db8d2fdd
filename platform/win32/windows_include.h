// The one way Windows headers are included: Windows 7 API level (MinGW's
// default is older), lean headers, no min/max macros, wide-character API,
// and winsock2.h before windows.h.
#pragma once

#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0601
#endif
#ifndef WINVER
#define WINVER 0x0601
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
// clang-format on

#include <string>
#include <string_view>

namespace lindqvar::win32 {

// char16_t and wchar_t are both UTF-16 units on Windows.
inline const wchar_t* W(const std::u16string& s) {
  return reinterpret_cast<const wchar_t*>(s.c_str());
}
inline const wchar_t* W(const char16_t* s) { return reinterpret_cast<const wchar_t*>(s); }
inline std::u16string U(const wchar_t* s) {
  return s ? std::u16string(reinterpret_cast<const char16_t*>(s)) : std::u16string();
}
inline std::u16string U(const wchar_t* s, size_t n) {
  return std::u16string(reinterpret_cast<const char16_t*>(s), n);
}

}  // namespace lindqvar::win32
