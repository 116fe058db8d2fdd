// The registry through RegOpenKeyExW and friends.
#pragma once

#include "platform/registry.h"

namespace lindqvar::win32 {

class CRegistryWin32 : public IRegistry {
 public:
  uint32_t OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                   std::unique_ptr<IRegistryKey>& key) override;
  uint32_t OpenKey(SupportKeyHandle parent, std::u16string_view path, uint32_t access,
                   std::unique_ptr<IRegistryKey>& key) override;
};

}  // namespace lindqvar::win32
