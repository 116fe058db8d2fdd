#include "service/win32/settings_key_win32.h"

#include <aclapi.h>
#include <sddl.h>

#include <vector>

#include "agent/args.h"
#include "platform/os.h"
#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"
#include "service/install_folder.h"
#include "service/supervisor.h"

namespace lindqvar::service {

using win32::ScopedRegKey;
using win32::W;

namespace {

// Memory from the security-descriptor conversions, freed with LocalFree.
struct LocalTraits {
  using Handle = void*;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { ::LocalFree(h); }
};
using ScopedLocal = win32::CScopedGeneric<LocalTraits>;

constexpr REGSAM k64 = KEY_WOW64_64KEY;

// Deletes HKLM\<path> when it holds neither values nor subkeys.
void DeleteIfEmpty(const std::u16string& path) {
  DWORD subkeys = 1, values = 1;
  {
    ScopedRegKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(path), 0, KEY_READ | k64, key.receive()) !=
        ERROR_SUCCESS) {
      return;
    }
    if (::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr,
                           &values, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
      return;
    }
  }
  if (subkeys == 0 && values == 0) ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, W(path), k64, 0);
}

}  // namespace

uint32_t ProtectSettingsKey() {
  ScopedLocal sd;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
          kSettingsKeySddl, SDDL_REVISION_1, reinterpret_cast<PSECURITY_DESCRIPTOR*>(sd.receive()),
          nullptr)) {
    return ::GetLastError();
  }
  // A key created here has the access from the start, so the preshared key
  // written into it next is never readable by others.
  SECURITY_ATTRIBUTES sa{sizeof sa, sd.get(), FALSE};
  ScopedRegKey key;
  LSTATUS rc = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey), 0, nullptr, 0,
                                 READ_CONTROL | WRITE_DAC | k64, &sa, key.receive(), nullptr);
  if (rc != ERROR_SUCCESS) return static_cast<uint32_t>(rc);
  // An existing key keeps its old access unless it is set explicitly.
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  if (!::GetSecurityDescriptorDacl(sd.get(), &present, &dacl, &defaulted)) return ::GetLastError();
  return ::SetSecurityInfo(key.get(), SE_REGISTRY_KEY,
                           DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                           nullptr, dacl, nullptr);
}

std::wstring SettingsKeyAccess() {
  ScopedRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey), 0, READ_CONTROL | k64,
                      key.receive()) != ERROR_SUCCESS) {
    return {};
  }
  ScopedLocal sd;
  if (::GetSecurityInfo(key.get(), SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                        nullptr, nullptr,
                        reinterpret_cast<PSECURITY_DESCRIPTOR*>(sd.receive())) != ERROR_SUCCESS) {
    return {};
  }
  ScopedLocal text;
  if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(
          sd.get(), SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
          reinterpret_cast<LPWSTR*>(text.receive()), nullptr)) {
    return {};
  }
  return static_cast<const wchar_t*>(text.get());
}

SettingsSnapshot ReadSnapshot(HKEY key) {
  // A value that grows between the size query and the reading makes the
  // reading start again, a few times at most.
  for (int attempt = 0; attempt < 3; ++attempt) {
    DWORD count = 0, maxName = 0, maxData = 0;
    if (::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count,
                           &maxName, &maxData, nullptr, nullptr) != ERROR_SUCCESS) {
      return SettingsSnapshot::Missing();  // e.g. the key was deleted under us
    }
    SettingsSnapshot snapshot;
    std::vector<wchar_t> name(maxName + 1);
    std::vector<uint8_t> data(maxData);
    LSTATUS rc = ERROR_SUCCESS;
    for (DWORD i = 0; rc == ERROR_SUCCESS; ++i) {
      DWORD nameLen = static_cast<DWORD>(name.size()), type = 0,
            dataLen = static_cast<DWORD>(data.size());
      rc = ::RegEnumValueW(key, i, name.data(), &nameLen, nullptr, &type,
                           data.empty() ? nullptr : data.data(), &dataLen);
      if (rc == ERROR_SUCCESS) {
        snapshot.Add(win32::U(name.data(), nameLen), type,
                     std::vector<uint8_t>(data.begin(), data.begin() + dataLen));
      }
    }
    if (rc != ERROR_MORE_DATA) return snapshot;
  }
  return SettingsSnapshot::Missing();
}

void RemoveServiceRegistry() {
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey));
  ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey), k64, 0);
  const std::u16string status = std::u16string(win32::kDesiredStatusKey) + u"\\25";
  {
    ScopedRegKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(status), 0, KEY_SET_VALUE | k64, key.receive()) ==
        ERROR_SUCCESS) {
      ::RegDeleteValueW(key.get(), W(AnsiToWide(ControlKeyOf(kControlEventName))));
    }
  }
  // Parents that the package or the service created and nobody else uses.
  for (const std::u16string& path :
       {status, std::u16string(win32::kDesiredStatusKey), std::u16string(win32::kClientKey),
        std::u16string(u"software\\Orvane")}) {
    DeleteIfEmpty(path);
  }
}

uint32_t ProtectInstallFolder() {
  const std::wstring folder = ProgramFolder();
  const std::u16string programFiles = win32::ReadString(
      HKEY_LOCAL_MACHINE, u"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", u"ProgramFilesDir", u"");
  if (folder.empty()) return ERROR_PATH_NOT_FOUND;
  if (IsWithinFolder(win32::U(folder.c_str()), programFiles)) return 0;
  ScopedLocal sd;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
          kInstallFolderSddl, SDDL_REVISION_1,
          reinterpret_cast<PSECURITY_DESCRIPTOR*>(sd.receive()), nullptr)) {
    return ::GetLastError();
  }
  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  if (!::GetSecurityDescriptorDacl(sd.get(), &present, &dacl, &defaulted)) return ::GetLastError();
  // Set by name, so the inheritable entries also reach the files already there.
  std::wstring path = folder;
  while (path.size() > 3 && path.back() == L'\\') path.pop_back();
  return ::SetNamedSecurityInfoW(path.data(), SE_FILE_OBJECT,
                                 DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                 nullptr, nullptr, dacl, nullptr);
}

std::wstring ProgramFolder() {
  wchar_t path[MAX_PATH] = {};
  const DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring p(path, n);
  const auto slash = p.find_last_of(L"\\/");
  return slash == std::wstring::npos ? std::wstring() : p.substr(0, slash + 1);
}

}  // namespace lindqvar::service
