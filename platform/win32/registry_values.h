// Reading the agent's own registry values, with the defaults that apply when
// a value is absent.
#pragma once

#include <string>
#include <string_view>

#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

inline constexpr char16_t kAgentKey[] = u"software\\Orvane\\Velmora\\FA_LINDQ";
inline constexpr char16_t kClientKey[] = u"software\\Orvane\\Velmora";
inline constexpr char16_t kLoggingKey[] = u"software\\Orvane\\Velmora\\Logging";
inline constexpr char16_t kAgentLogName[] = u"FA_LINDQ";
inline constexpr char16_t kDesiredStatusKey[] = u"software\\Orvane\\Velmora\\DesiredStatus";

// A REG_DWORD under an open key, or `fallback`.
uint32_t ReadDword(HKEY key, std::u16string_view name, uint32_t fallback);
// A REG_DWORD under HKLM\<path>, or `fallback`.
uint32_t ReadDword(HKEY root, const std::u16string& path, std::u16string_view name,
                   uint32_t fallback);
// A REG_SZ / REG_EXPAND_SZ (not expanded) without its terminator, or `fallback`.
std::u16string ReadString(HKEY key, std::u16string_view name, std::u16string_view fallback,
                          bool* found = nullptr);
std::u16string ReadString(HKEY root, const std::u16string& path, std::u16string_view name,
                          std::u16string_view fallback);

uint32_t ReadAgentDword(std::u16string_view name, uint32_t fallback);
std::u16string ReadAgentString(std::u16string_view name, std::u16string_view fallback);

}  // namespace lindqvar::win32
