// The reported local addresses: up to four IPv4 addresses (network byte
// order, 0 = empty) and up to four IPv6 addresses (first 16-bit group 0 =
// empty), each list with its count; and the comparisons that decide whether
// a new set is to be reported.
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

// The first 16-bit group of an IPv6 address, in host order.
inline uint16_t FirstGroup(const uint8_t* ipv6) {
  return static_cast<uint16_t>(ipv6[0] << 8 | ipv6[1]);
}

// Order-free, one-sided comparisons: 1 when one of the first `count` old
// entries is missing from the first `count` new entries, else 0.
uint32_t IPv4ListsDiffer(uint32_t count, const IPv4List& oldList, const IPv4List& newList);
uint32_t IPv6ListsDiffer(uint32_t count, const IPv6List& oldList, const IPv6List& newList);
uint32_t AddressListsDiffer(uint32_t count4, const IPv4List& old4, const IPv4List& new4,
                            uint32_t count6, const IPv6List& old6, const IPv6List& new6);

// Whether `now` is to be reported as a change from `last`: a count differs,
// or some address of `now` is missing from `last` (order and duplicates do
// not matter).
bool AddressSetChanged(const AddressSet& last, const AddressSet& now);

}  // namespace lindqvar
