// Hyper-V's external switch ports through WMI.
#pragma once

#include "platform/hyperv.h"

namespace lindqvar::win32 {

class CHyperVWin32 : public IHyperV {
 public:
  // Asks nothing when the Hyper-V Virtual Machine Management service is not
  // installed. Otherwise initialises COM on the calling thread for the query
  // and uninitialises it afterwards, every WMI object released before.
  void QueryExternalPorts(std::vector<HyperVPortRow>& rows) override;
};

}  // namespace lindqvar::win32
