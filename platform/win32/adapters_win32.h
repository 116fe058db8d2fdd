// The IP helper's adapter lists as neutral records.
#pragma once

#include "platform/adapters.h"

namespace lindqvar::win32 {

class CAdaptersWin32 : public IAdapters {
 public:
  uint32_t AllocateAdaptersAddresses(std::vector<AdapterAddresses>& adapters) override;
  uint32_t GetAdaptersInfo(std::vector<AdapterInfo>& adapters) override;
};

}  // namespace lindqvar::win32
