// The machine's network adapters as neutral records, filled from the IP
// helper's two adapter lists. platform/win32/identity_win32.h has the
// Windows implementation.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/network.h"

namespace lindqvar {

// One entry of the adapter-address chain (IP_ADAPTER_ADDRESSES).
struct AdapterAddresses {
  std::u16string description;
  uint32_t operStatus = 0;               // 1 up, 2 down, ...
  std::vector<ResolvedAddress> unicast;  // in the chain's order
};
inline constexpr uint32_t kIfOperStatusUp = 1;

// One entry of the adapter-information list (IP_ADAPTER_INFO).
struct AdapterInfo {
  std::string adapterName;  // 8-bit, as the system gives them
  std::string description;
  uint32_t type = 0;                 // MIB_IF_TYPE_*
  std::array<uint8_t, 8> address{};  // hardware address, addressLength bytes used
  uint32_t addressLength = 0;
  std::vector<std::string> ipAddresses;  // the IP address list's texts, in order
};
inline constexpr uint32_t kIfTypePpp = 23;   // MIB_IF_TYPE_PPP
inline constexpr uint32_t kIfTypeSlip = 28;  // MIB_IF_TYPE_SLIP

class IAdapters {
 public:
  virtual ~IAdapters() = default;
  // The support library's AllocateAdaptersAddressesMemory: 0 and every
  // adapter with its unicast addresses, or the error.
  virtual uint32_t AllocateAdaptersAddresses(std::vector<AdapterAddresses>& adapters) = 0;
  // GetAdaptersInfo: a sizing call that must answer ERROR_BUFFER_OVERFLOW
  // with a non-zero size, then the real call. 0 and the list, or the error.
  virtual uint32_t GetAdaptersInfo(std::vector<AdapterInfo>& adapters) = 0;
};

}  // namespace lindqvar
