// The registry that the service owns: the settings key's access, snapshots
// of its values, and the clean-up when the package is removed.
#pragma once

#include <cstdint>
#include <string>

#include "platform/win32/windows_include.h"
#include "service/settings_snapshot.h"

namespace lindqvar::service {

// The settings key holds the preshared key: only SYSTEM and Administrators
// may read or change it, and nothing is inherited from the parent key.
inline constexpr wchar_t kSettingsKeySddl[] = L"D:P(A;OICI;KA;;;SY)(A;OICI;KA;;;BA)";

// Creates the settings key when it is missing and sets that access on it.
// 0, or the Windows error.
uint32_t ProtectSettingsKey();

// The settings key's access as an SDDL text (DACL only); empty when the key
// cannot be read.
std::wstring SettingsKeyAccess();

// All values of an open key.
SettingsSnapshot ReadSnapshot(HKEY key);

// Removes the settings key (with the agent's state value in it), the
// service's desired-status value, and the parent keys this leaves empty.
void RemoveServiceRegistry();

// Programs, SYSTEM and Administrators full control, users read and run;
// nothing inherited from the parent folder.
inline constexpr wchar_t kInstallFolderSddl[] =
    L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

// Gives the running program's folder that access when it lies outside the
// system's Program Files folder (see service/install_folder.h). 0 when done
// or not needed, or the Windows error.
uint32_t ProtectInstallFolder();

// The folder of the running program, with a trailing backslash.
std::wstring ProgramFolder();

}  // namespace lindqvar::service
