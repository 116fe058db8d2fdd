#include "platform/win32/registry_win32.h"

#include <vector>

#include "platform/secret.h"
#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/support_key_win32.h"

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

// The value as stored, however many bytes it has. A value that grows
// between the size query and the read is asked for again, a few times.
LSTATUS QueryRaw(HKEY key, std::u16string_view name, DWORD& type, std::vector<uint8_t>& data) {
  const std::u16string n(name);
  LSTATUS rc = ERROR_MORE_DATA;
  for (int attempt = 0; attempt < 4 && rc == ERROR_MORE_DATA; ++attempt) {
    DWORD size = 0;
    rc = ::RegQueryValueExW(key, W(n), nullptr, &type, nullptr, &size);
    if (rc != ERROR_SUCCESS) return rc;
    data.assign(size, 0);
    rc = ::RegQueryValueExW(key, W(n), nullptr, &type, data.empty() ? nullptr : data.data(), &size);
    if (rc == ERROR_SUCCESS) data.resize(size);
  }
  return rc;
}

LSTATUS QueryString(HKEY key, std::u16string_view name, std::u16string& out) {
  DWORD type = 0;
  std::vector<uint8_t> data;
  const LSTATUS rc = QueryRaw(key, name, type, data);
  if (rc != ERROR_SUCCESS) return rc;
  const bool text = type == REG_SZ || type == REG_EXPAND_SZ;
  if (text) out = RegistryValueText(data);
  // The value may be the preshared key: no copy stays in freed memory.
  WipeMemory(data.data(), data.capacity());
  return text ? ERROR_SUCCESS : ERROR_UNSUPPORTED_TYPE;
}

LSTATUS OpenBelow(HKEY parent, std::u16string_view path, uint32_t access, REGSAM view,
                  std::unique_ptr<IRegistryKey>& key);

}  // namespace

std::u16string ReadString(HKEY key, std::u16string_view name, std::u16string_view fallback,
                          bool* found) {
  std::u16string value;
  const bool ok = QueryString(key, name, value) == ERROR_SUCCESS;
  if (found) *found = ok;
  if (!ok) value = fallback;
  return value;  // returned in place, not copied
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
class CRegistryKeyWin32 : public IRegistryKey {
 public:
  CRegistryKeyWin32(HKEY key, REGSAM view) : m_key(key), m_view(view) {}
  uint32_t SetDword(std::u16string_view name, uint32_t value) override {
    const DWORD v = value;
    return static_cast<uint32_t>(::RegSetValueExW(m_key.get(), W(std::u16string(name)), 0,
                                                  REG_DWORD, reinterpret_cast<const BYTE*>(&v),
                                                  sizeof v));
  }
  uint32_t QueryString(std::u16string_view name, std::u16string& value) override {
    return static_cast<uint32_t>(win32::QueryString(m_key.get(), name, value));
  }
  uint32_t QueryValue(std::u16string_view name, uint32_t& type,
                      std::vector<uint8_t>& data) override {
    DWORD t = 0;
    const LSTATUS rc = QueryRaw(m_key.get(), name, t, data);
    if (rc == ERROR_SUCCESS) type = t;
    return static_cast<uint32_t>(rc);
  }
  uint32_t OpenSubKey(std::u16string_view path, uint32_t access,
                      std::unique_ptr<IRegistryKey>& key) override {
    return static_cast<uint32_t>(OpenBelow(m_key.get(), path, access, m_view, key));
  }

 private:
  ScopedRegKey m_key;
  REGSAM m_view;
};

LSTATUS OpenBelow(HKEY parent, std::u16string_view path, uint32_t access, REGSAM view,
                  std::unique_ptr<IRegistryKey>& key) {
  HKEY h = nullptr;
  const LSTATUS rc = ::RegOpenKeyExW(parent, W(std::u16string(path)), 0, access | view, &h);
  if (rc != ERROR_SUCCESS) return rc;
  key = std::make_unique<CRegistryKeyWin32>(h, view);
  return ERROR_SUCCESS;
}
}  // namespace

uint32_t CRegistryWin32::OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                                 std::unique_ptr<IRegistryKey>& key) {
  HKEY root = hive == RegistryHive::kUsers ? HKEY_USERS : HKEY_LOCAL_MACHINE;
  return static_cast<uint32_t>(
      OpenBelow(root, path, access & ~reg_access::kViewMask, access & reg_access::kViewMask, key));
}

uint32_t CRegistryWin32::OpenKey(SupportKeyHandle parent, std::u16string_view path, uint32_t access,
                                 std::unique_ptr<IRegistryKey>& key) {
  if (!parent || !parent->key) return ERROR_INVALID_HANDLE;
  return static_cast<uint32_t>(OpenBelow(parent->key.get(), path, access, parent->view, key));
}

}  // namespace lindqvar::win32
