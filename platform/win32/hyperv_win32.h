// Hyper-V's external switch ports through WMI.
#pragma once

#include "platform/hyperv.h"

namespace lindqvar::win32 {

class CHyperVWin32 : public IHyperV {
 public:
  // Initialises COM on the calling thread for the query and uninitialises it
  // afterwards.
  void QueryExternalPorts(std::vector<HyperVPortRow>& rows) override;
};

}  // namespace lindqvar::win32
