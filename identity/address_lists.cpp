#include "identity/address_lists.h"

#include <algorithm>
#include <cstring>

namespace lindqvar {

uint32_t IPv4ListsDiffer(uint32_t count, const IPv4List& oldList, const IPv4List& newList) {
  const size_t n = std::min<size_t>(count, oldList.size());
  for (size_t i = 0; i < n; ++i) {
    if (std::find(newList.begin(), newList.begin() + n, oldList[i]) == newList.begin() + n) {
      return 1;
    }
  }
  return 0;
}

uint32_t IPv6ListsDiffer(uint32_t count, const IPv6List& oldList, const IPv6List& newList) {
  const size_t n = std::min<size_t>(count, oldList.size());
  for (size_t i = 0; i < n; ++i) {
    bool found = false;
    for (size_t j = 0; j < n && !found; ++j) {
      found = std::memcmp(oldList[i].data(), newList[j].data(), 16) == 0;
    }
    if (!found) return 1;
  }
  return 0;
}

uint32_t AddressListsDiffer(uint32_t count4, const IPv4List& old4, const IPv4List& new4,
                            uint32_t count6, const IPv6List& old6, const IPv6List& new6) {
  return IPv4ListsDiffer(count4, old4, new4) || IPv6ListsDiffer(count6, old6, new6) ? 1 : 0;
}

bool AddressSetChanged(const AddressSet& last, const AddressSet& now) {
  if (now.count4 != last.count4 || now.count6 != last.count6) return true;
  return AddressListsDiffer(now.count4, now.ipv4, last.ipv4, now.count6, now.ipv6, last.ipv6) != 0;
}

}  // namespace lindqvar
