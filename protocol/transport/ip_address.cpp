#include "protocol/transport/ip_address.h"

#include <cstring>

#include "platform/address_literal.h"

namespace lindqvar {

namespace {
constexpr char kEmptyText[] = "0.0.0.0";
}  // namespace

IpAddress::IpAddress() { BoundedCopy(m_text, kTextSize, kEmptyText); }

void IpAddress::SetIPv4(uint32_t address) {
  std::memset(m_address, 0, sizeof m_address);
  std::memcpy(m_address, &address, 4);
  m_family = kFamilyIPv4;
  m_valid = 1;
  m_textReady = 0;
}

void IpAddress::SetIPv6(const uint8_t address[16]) {
  std::memcpy(m_address, address, sizeof m_address);
  m_family = kFamilyIPv6;
  m_valid = 1;
  m_textReady = 0;
}

uint32_t IpAddress::IPv4() const {
  uint32_t address;
  std::memcpy(&address, m_address, 4);
  return address;
}

const char* IpAddress::Text() const {
  if (!m_textReady) {
    if (m_valid)
      AddressToString(m_family, m_address, m_text, kTextSize);
    else
      BoundedCopy(m_text, kTextSize, kEmptyText);
    m_textReady = 1;
  }
  return m_text;
}

uint32_t parse_address_literal(const char* text, IpAddress& out) {
  if (!text) return 0;
  uint8_t address[16];
  if (StringToAddress(text, kFamilyIPv4, address)) {
    uint32_t v4;
    std::memcpy(&v4, address, 4);
    out.SetIPv4(v4);
    return 1;
  }
  if (StringToAddress(text, kFamilyIPv6, address)) {
    out.SetIPv6(address);
    return 1;
  }
  return 0;
}

uint32_t is_address_literal(const char* text) {
  IpAddress scratch;
  return parse_address_literal(text, scratch);
}

}  // namespace lindqvar
