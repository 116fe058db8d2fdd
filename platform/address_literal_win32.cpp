#include "platform/address_literal.h"

#include <cstring>

#include "platform/win32/windows_include.h"

namespace lindqvar {

// The socket address buffer of the text-to-address conversion.
constexpr int kSocketAddressBuffer = 128;

bool StringToAddress(const char* text, int family, uint8_t address[16]) {
  if (!text) return false;
  alignas(8) char buffer[kSocketAddressBuffer] = {};
  INT length = sizeof buffer;
  const INT systemFamily = family == kFamilyIPv4 ? AF_INET : AF_INET6;
  if (::WSAStringToAddressA(const_cast<char*>(text), systemFamily, nullptr,
                            reinterpret_cast<sockaddr*>(buffer), &length) != 0) {
    return false;
  }
  std::memset(address, 0, 16);
  if (family == kFamilyIPv4) {
    std::memcpy(address, &reinterpret_cast<const sockaddr_in*>(buffer)->sin_addr, 4);
  } else {
    std::memcpy(address, &reinterpret_cast<const sockaddr_in6*>(buffer)->sin6_addr, 16);
  }
  return true;
}

void AddressToString(int family, const uint8_t address[16], char* out, size_t size) {
  // A zeroed socket address with port 0 (and for IPv6 flow information and
  // scope 0), so that the text is the bare address.
  sockaddr_in v4 = {};
  sockaddr_in6 v6 = {};
  sockaddr* from = nullptr;
  DWORD fromLength = 0;
  if (family == kFamilyIPv4) {
    v4.sin_family = AF_INET;
    std::memcpy(&v4.sin_addr, address, 4);
    from = reinterpret_cast<sockaddr*>(&v4);
    fromLength = sizeof v4;
  } else {
    v6.sin6_family = AF_INET6;
    std::memcpy(&v6.sin6_addr, address, 16);
    from = reinterpret_cast<sockaddr*>(&v6);
    fromLength = sizeof v6;
  }
  char text[64] = {};
  DWORD length = sizeof text;
  if (::WSAAddressToStringA(from, fromLength, nullptr, text, &length) != 0) {
    // Only when sockets are not started: the project's rendering instead.
    OwnAddressToString(family, address, out, size);
    return;
  }
  BoundedCopy(out, size, text);
}

}  // namespace lindqvar
