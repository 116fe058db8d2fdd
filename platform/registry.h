// Direct registry access (the agent's own key, its state value, the endpoint
// client's identifiers, a user's volatile environment). Results are Windows
// error codes: 0 success, 2 not found, 5 access denied.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/support.h"

namespace lindqvar {

enum class RegistryHive { kLocalMachine, kUsers };

namespace reg_access {
inline constexpr uint32_t kRead = 0x20019;        // KEY_READ
inline constexpr uint32_t kWrite = 0x20006;       // KEY_WRITE
inline constexpr uint32_t kWow64_64Key = 0x0100;  // KEY_WOW64_64KEY
inline constexpr uint32_t kWow64_32Key = 0x0200;  // KEY_WOW64_32KEY
inline constexpr uint32_t kViewMask = kWow64_64Key | kWow64_32Key;
}  // namespace reg_access

inline constexpr uint32_t kErrorSuccess = 0;
inline constexpr uint32_t kErrorFileNotFound = 2;

class IRegistryKey {
 public:
  virtual ~IRegistryKey() = default;  // closes the key
  virtual uint32_t SetDword(std::u16string_view name, uint32_t value) = 0;
  // REG_SZ / REG_EXPAND_SZ value as RegistryValueText reads it.
  virtual uint32_t QueryString(std::u16string_view name, std::u16string& value) = 0;
  // The value exactly as stored: its type (1 REG_SZ, 2 REG_EXPAND_SZ,
  // 4 REG_DWORD ...) and its bytes, however many there are (a string may
  // lack its terminator, hold none at all, or end in an odd byte).
  virtual uint32_t QueryValue(std::u16string_view name, uint32_t& type,
                              std::vector<uint8_t>& data) = 0;
  // Opens an existing key below this one, in the registry view this key
  // was opened in.
  virtual uint32_t OpenSubKey(std::u16string_view path, uint32_t access,
                              std::unique_ptr<IRegistryKey>& key) = 0;
};

class IRegistry {
 public:
  virtual ~IRegistry() = default;
  // Opens an existing key (never creates one).
  virtual uint32_t OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                           std::unique_ptr<IRegistryKey>& key) = 0;
  // Opens an existing key below one that the support library's reg_openkeyW
  // opened (its handles are registry keys), in that key's registry view.
  virtual uint32_t OpenKey(SupportKeyHandle parent, std::u16string_view path, uint32_t access,
                           std::unique_ptr<IRegistryKey>& key) = 0;
};

// The text of a string value's stored bytes: up to the first NUL unit or
// the end of the data, whichever comes first. An odd last byte is read as a
// unit of its own whose high byte is 0, as a terminator written right
// behind the stored bytes makes it.
inline std::u16string RegistryValueText(const std::vector<uint8_t>& data) {
  std::u16string text;
  for (size_t i = 0; i < data.size(); i += 2) {
    const char16_t unit =
        static_cast<char16_t>(data[i] | (i + 1 < data.size() ? data[i + 1] << 8 : 0));
    if (unit == u'\0') break;
    text.push_back(unit);
  }
  return text;
}

}  // namespace lindqvar
