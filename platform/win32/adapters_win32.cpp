#include "platform/win32/adapters_win32.h"

#include "platform/win32/windows_include.h"

#include <iphlpapi.h>

#include <cstring>
#include <vector>

namespace lindqvar::win32 {

namespace {

constexpr ULONG kFirstAddressesBuffer = 15 * 1024;
constexpr int kAddressesAttempts = 3;

bool ToResolved(const SOCKADDR* address, ResolvedAddress& out) {
  if (!address) return false;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    out.family = kFamilyIPv4;
    std::memcpy(out.bytes.data(), &v4->sin_addr, 4);
    return true;
  }
  if (address->sa_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    out.family = kFamilyIPv6;
    std::memcpy(out.bytes.data(), &v6->sin6_addr, 16);
    return true;
  }
  return false;
}

}  // namespace

// The support library's adapter-address memory: the whole chain, sized by
// the system, with unicast addresses.
uint32_t CAdaptersWin32::AllocateAdaptersAddresses(std::vector<AdapterAddresses>& adapters) {
  constexpr ULONG kFlags =
      GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  ULONG size = kFirstAddressesBuffer;
  std::vector<uint8_t> buffer;
  ULONG rc = ERROR_BUFFER_OVERFLOW;
  for (int attempt = 0; attempt < kAddressesAttempts && rc == ERROR_BUFFER_OVERFLOW; ++attempt) {
    buffer.assign(size, 0);
    rc = ::GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr,
                                reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
  }
  if (rc != NO_ERROR) return rc;

  adapters.clear();
  for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); a; a = a->Next) {
    AdapterAddresses record;
    record.description = U(a->Description);
    record.operStatus = static_cast<uint32_t>(a->OperStatus);
    for (auto* u = a->FirstUnicastAddress; u; u = u->Next) {
      ResolvedAddress address;
      if (ToResolved(u->Address.lpSockaddr, address)) record.unicast.push_back(address);
    }
    adapters.push_back(std::move(record));
  }
  return NO_ERROR;
}

uint32_t CAdaptersWin32::GetAdaptersInfo(std::vector<AdapterInfo>& adapters) {
  ULONG size = 0;
  ULONG rc = ::GetAdaptersInfo(nullptr, &size);
  if (rc != ERROR_BUFFER_OVERFLOW || size == 0) return rc != NO_ERROR ? rc : ERROR_NO_DATA;
  std::vector<uint8_t> buffer(size, 0);
  rc = ::GetAdaptersInfo(reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()), &size);
  if (rc != NO_ERROR) return rc;

  adapters.clear();
  for (auto* a = reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()); a; a = a->Next) {
    AdapterInfo record;
    record.adapterName = a->AdapterName;
    record.description = a->Description;
    record.type = a->Type;
    record.addressLength = std::min<uint32_t>(a->AddressLength, record.address.size());
    std::memcpy(record.address.data(), a->Address, record.addressLength);
    for (IP_ADDR_STRING* ip = &a->IpAddressList; ip; ip = ip->Next) {
      record.ipAddresses.emplace_back(ip->IpAddress.String);
    }
    adapters.push_back(std::move(record));
  }
  return NO_ERROR;
}

}  // namespace lindqvar::win32
