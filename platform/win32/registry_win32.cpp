#include "platform/win32/registry_win32.h"

#include <vector>

#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"

namespace lindqvar::win32 {

uint32_t ReadDword(HKEY key, std::u16string_view name, uint32_t fallback) {
  DWORD value = 0, type = 0, size = sizeof value;
  if (::RegQueryValueExW(key, W(std::u16string(name)), nullptr, &type,
                         reinterpret_cast<BYTE*>(&value), &size) != ERROR_SUCCESS ||
      type != REG_DWORD || size != sizeof value) {
    return fallback;
  }
  return value;
}

uint32_t ReadDword(HKEY root, const std::u16string& path, std::u16string_view name,
                   uint32_t fallback) {
  ScopedRegKey key;
  if (::RegOpenKeyExW(root, W(path), 0, KEY_READ | KEY_WOW64_64KEY, key.receive()) !=
      ERROR_SUCCESS) {
    return fallback;
  }
  return ReadDword(key.get(), name, fallback);
}

namespace {
LSTATUS QueryString(HKEY key, std::u16string_view name, std::u16string& out) {
  const std::u16string n(name);
  DWORD type = 0, size = 0;
  LSTATUS rc = ::RegQueryValueExW(key, W(n), nullptr, &type, nullptr, &size);
  if (rc != ERROR_SUCCESS) return rc;
  if (type != REG_SZ && type != REG_EXPAND_SZ) return ERROR_UNSUPPORTED_TYPE;
  // Room for a terminator the stored value may lack.
  std::vector<wchar_t> buf(size / sizeof(wchar_t) + 1, L'\0');
  DWORD bytes = static_cast<DWORD>((buf.size() - 1) * sizeof(wchar_t));
  rc = ::RegQueryValueExW(key, W(n), nullptr, &type, reinterpret_cast<BYTE*>(buf.data()), &bytes);
  if (rc != ERROR_SUCCESS) return rc;
  out = U(buf.data());
  return ERROR_SUCCESS;
}
}  // namespace

std::u16string ReadString(HKEY key, std::u16string_view name, std::u16string_view fallback,
                          bool* found) {
  std::u16string value;
  const bool ok = QueryString(key, name, value) == ERROR_SUCCESS;
  if (found) *found = ok;
  return ok ? value : std::u16string(fallback);
}

std::u16string ReadString(HKEY root, const std::u16string& path, std::u16string_view name,
                          std::u16string_view fallback) {
  ScopedRegKey key;
  if (::RegOpenKeyExW(root, W(path), 0, KEY_READ | KEY_WOW64_64KEY, key.receive()) !=
      ERROR_SUCCESS) {
    return std::u16string(fallback);
  }
  return ReadString(key.get(), name, fallback);
}

uint32_t ReadAgentDword(std::u16string_view name, uint32_t fallback) {
  return ReadDword(HKEY_LOCAL_MACHINE, kAgentKey, name, fallback);
}

std::u16string ReadAgentString(std::u16string_view name, std::u16string_view fallback) {
  return ReadString(HKEY_LOCAL_MACHINE, kAgentKey, name, fallback);
}

namespace {
class RegistryKeyWin32 : public IRegistryKey {
 public:
  explicit RegistryKeyWin32(HKEY key) : m_key(key) {}
  uint32_t SetDword(std::u16string_view name, uint32_t value) override {
    const DWORD v = value;
    return static_cast<uint32_t>(::RegSetValueExW(m_key.get(), W(std::u16string(name)), 0,
                                                  REG_DWORD, reinterpret_cast<const BYTE*>(&v),
                                                  sizeof v));
  }
  uint32_t QueryString(std::u16string_view name, std::u16string& value) override {
    return static_cast<uint32_t>(win32::QueryString(m_key.get(), name, value));
  }
  uint32_t QueryDword(std::u16string_view name, uint32_t& value) override {
    DWORD v = 0, type = 0, size = sizeof v;
    const LSTATUS rc = ::RegQueryValueExW(m_key.get(), W(std::u16string(name)), nullptr, &type,
                                          reinterpret_cast<BYTE*>(&v), &size);
    if (rc != ERROR_SUCCESS) return static_cast<uint32_t>(rc);
    if (type != REG_DWORD) return ERROR_UNSUPPORTED_TYPE;
    value = v;
    return 0;
  }
  uint32_t QueryValue(std::u16string_view name, uint32_t& type,
                      std::vector<uint8_t>& data) override {
    const std::u16string n(name);
    DWORD t = 0, size = 0;
    LSTATUS rc = ::RegQueryValueExW(m_key.get(), W(n), nullptr, &t, nullptr, &size);
    // The value may grow between two calls: ask again (a few times) when it did.
    for (int attempt = 0; rc == ERROR_SUCCESS && attempt < 4; ++attempt) {
      data.assign(size, 0);
      rc = ::RegQueryValueExW(m_key.get(), W(n), nullptr, &t, data.empty() ? nullptr : data.data(),
                              &size);
      if (rc == ERROR_SUCCESS) {
        data.resize(size);
        type = t;
        return 0;
      }
      if (rc == ERROR_MORE_DATA) rc = ERROR_SUCCESS;
    }
    return rc == ERROR_SUCCESS ? static_cast<uint32_t>(ERROR_MORE_DATA) : static_cast<uint32_t>(rc);
  }

 private:
  ScopedRegKey m_key;
};
}  // namespace

uint32_t CRegistryWin32::OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                                 std::unique_ptr<IRegistryKey>& key) {
  HKEY root = hive == RegistryHive::kUsers ? HKEY_USERS : HKEY_LOCAL_MACHINE;
  HKEY h = nullptr;
  const LSTATUS rc = ::RegOpenKeyExW(root, W(std::u16string(path)), 0, access, &h);
  if (rc != ERROR_SUCCESS) return static_cast<uint32_t>(rc);
  key = std::make_unique<RegistryKeyWin32>(h);
  return 0;
}

}  // namespace lindqvar::win32
