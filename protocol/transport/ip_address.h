// One IPv4 or IPv6 address with its text form, and the recognition of
// address literals in configured server names.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/network.h"

namespace lindqvar {

class IpAddress {
 public:
  // Room for the text form, terminator included; longer forms are cut.
  static constexpr size_t kTextSize = 42;

  IpAddress();

  // `address` in network byte order.
  void SetIPv4(uint32_t address);
  void SetIPv6(const uint8_t address[16]);

  uint32_t IsValid() const { return m_valid; }
  // kFamilyIPv4 (2) or kFamilyIPv6 (23); 0 while empty.
  uint16_t Family() const { return m_family; }
  const uint8_t* Bytes() const { return m_address; }
  // The IPv4 address in network byte order (first four bytes).
  uint32_t IPv4() const;

  // The text form, made when first asked for with AddressToString
  // (platform/address_literal.h): "10.0.0.5", "fe80::1"; "0.0.0.0" while
  // empty.
  const char* Text() const;

 private:
  uint32_t m_valid = 0;
  uint16_t m_family = 0;
  uint8_t m_address[16] = {};
  mutable uint32_t m_textReady = 0;
  mutable char m_text[kTextSize] = {};
};

// Tries `text` as an IPv4 literal, then as an IPv6 literal, with
// StringToAddress (platform/address_literal.h: the system's conversion on
// Windows). On success stores the address in `out` and returns 1; else
// leaves `out` as it is and returns 0.
uint32_t parse_address_literal(const char* text, IpAddress& out);
// 1 when `text` is an IPv4 or IPv6 literal, else 0.
uint32_t is_address_literal(const char* text);

}  // namespace lindqvar
