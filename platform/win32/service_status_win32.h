// A service's state from the service control manager (connect and query
// rights only).
#pragma once

#include "platform/service_status.h"

namespace lindqvar::win32 {

class CServiceStatusWin32 : public IServiceStatus {
 public:
  ServiceRunState Query(std::u16string_view name, uint32_t& error) override;
};

}  // namespace lindqvar::win32
