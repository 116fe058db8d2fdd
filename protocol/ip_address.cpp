#include "protocol/ip_address.h"

#include <cstring>

#include "platform/address_literal.h"

namespace lindqvar {

namespace {
constexpr char kEmptyText[] = "0.0.0.0";
}  // namespace

// --- IpAddress -----------------------------------------------------------------

IpAddress::IpAddress() {
  BoundedCopy(m_szText, kTextSize, kEmptyText);
  for (size_t i = 0; i < sizeof kEmptyText; ++i) m_wszText[i] = static_cast<char16_t>(kEmptyText[i]);
}

void IpAddress::SetIPv4(uint32_t address) {
  std::memset(m_address, 0, sizeof m_address);
  std::memcpy(m_address, &address, 4);
  m_wFamily = kFamilyIPv4;
  m_bValid = 1;
  m_bTextReady = 0;
}

void IpAddress::SetIPv6(const uint8_t address[16]) {
  std::memcpy(m_address, address, sizeof m_address);
  m_wFamily = kFamilyIPv6;
  m_bValid = 1;
  m_bTextReady = 0;
}

void IpAddress::CopyFrom(const IpAddress& other) {
  if (other.m_bValid) *this = other;
}

uint32_t IpAddress::IPv4() const {
  uint32_t address;
  std::memcpy(&address, m_address, 4);
  return address;
}

void IpAddress::FormatText() const {
  if (!m_bValid)
    BoundedCopy(m_szText, kTextSize, kEmptyText);
  else
    AddressToString(m_wFamily, m_address, m_szText, kTextSize);
  // Address texts are ASCII: the wide form is the same characters.
  size_t i = 0;
  for (; m_szText[i]; ++i) m_wszText[i] = static_cast<char16_t>(m_szText[i]);
  m_wszText[i] = u'\0';
  m_bTextReady = 1;
}

const char* IpAddress::Text() const {
  if (!m_bTextReady) FormatText();
  return m_szText;
}

const char16_t* IpAddress::WideText() const {
  if (!m_bTextReady) FormatText();
  return m_wszText;
}

// --- literals ------------------------------------------------------------------

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
