// Direct registry access (the agent's own key, its state value, the endpoint
// client's identifiers, a user's volatile environment). Results are Windows
// error codes: 0 success, 2 not found, 5 access denied.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace lindqvar {

enum class RegistryHive { kLocalMachine, kUsers };

namespace reg_access {
inline constexpr uint32_t kRead = 0x20019;         // KEY_READ
inline constexpr uint32_t kWrite = 0x20006;        // KEY_WRITE
inline constexpr uint32_t kWow64_64Key = 0x0100;   // KEY_WOW64_64KEY
}  // namespace reg_access

inline constexpr uint32_t kErrorSuccess = 0;
inline constexpr uint32_t kErrorFileNotFound = 2;

class IRegistryKey {
 public:
  virtual ~IRegistryKey() = default;  // closes the key
  virtual uint32_t SetDword(std::u16string_view name, uint32_t value) = 0;
  // REG_SZ / REG_EXPAND_SZ value without its terminator.
  virtual uint32_t QueryString(std::u16string_view name, std::u16string& value) = 0;
  virtual uint32_t QueryDword(std::u16string_view name, uint32_t& value) = 0;
  // The value as stored: its type (1 REG_SZ, 2 REG_EXPAND_SZ, 4 REG_DWORD)
  // and its bytes, a string's terminator included. The default builds it
  // from QueryString and QueryDword; a real registry answers directly.
  virtual uint32_t QueryValue(std::u16string_view name, uint32_t& type, std::vector<uint8_t>& data) {
    std::u16string text;
    uint32_t result = QueryString(name, text);
    if (result == kErrorSuccess) {
      type = 1;
      const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
      data.assign(bytes, bytes + (text.size() + 1) * sizeof(char16_t));
      return result;
    }
    uint32_t dword = 0;
    if (QueryDword(name, dword) == kErrorSuccess) {
      type = 4;
      const auto* bytes = reinterpret_cast<const uint8_t*>(&dword);
      data.assign(bytes, bytes + sizeof dword);
      return kErrorSuccess;
    }
    return result;
  }
};

class IRegistry {
 public:
  virtual ~IRegistry() = default;
  // Opens an existing key (never creates one).
  virtual uint32_t OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                           std::unique_ptr<IRegistryKey>& key) = 0;
};

}  // namespace lindqvar
