// The reported local addresses: up to four IPv4 addresses (network byte
// order, 0 = empty) and up to four IPv6 addresses (first 16-bit word 0 =
// empty), each list with its count.
#pragma once

#include <array>
#include <cstdint>

namespace lindqvar {

using IPv4List = std::array<uint32_t, 4>;
using IPv6Address = std::array<uint8_t, 16>;
using IPv6List = std::array<IPv6Address, 4>;

struct AddressSet {
  IPv4List ipv4{};
  uint32_t count4 = 0;
  IPv6List ipv6{};
  uint32_t count6 = 0;
};

}  // namespace lindqvar
