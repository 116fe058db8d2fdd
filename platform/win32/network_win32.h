// Host name, name resolution, DNS domain and address-change notification
// through Winsock and the IP helper.
#pragma once

#include "platform/network.h"

namespace lindqvar::win32 {

class CNetworkWin32 : public INetwork {
 public:
  void Startup() override;
  void Cleanup() override;
  std::string HostName() override;
  int Resolve(const std::string& name, std::vector<ResolvedAddress>& out) override;
  bool PhysicalDnsDomain(std::u16string& domain, uint32_t& error) override;
  std::unique_ptr<IAddressChangeWatch> CreateAddressChangeWatch() override;
};

}  // namespace lindqvar::win32
