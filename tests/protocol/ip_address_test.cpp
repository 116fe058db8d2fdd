#include "protocol/transport/ip_address.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/protocol/address_rows.h"

namespace lindqvar {
namespace {

using testing::kIPv6Rows;
using testing::kLiteralRows;

IpAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  const uint8_t bytes[4] = {a, b, c, d};
  uint32_t address;
  std::memcpy(&address, bytes, 4);
  IpAddress ip;
  ip.SetIPv4(address);
  return ip;
}

TEST(IpAddressTest, TextFollowsTheStoredAddress) {
  IpAddress a;
  EXPECT_EQ(std::make_tuple(a.IsValid(), a.Family(), std::string(a.Text())), std::make_tuple(0u, 0, "0.0.0.0"));
  a = V4(10, 0, 0, 5);
  EXPECT_EQ(std::make_tuple(a.Family(), std::string(a.Text())), std::make_tuple(kFamilyIPv4, "10.0.0.5"));
  // A new address after the text was made must not show the old text.
  const uint8_t loopback6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  a.SetIPv6(loopback6);
  EXPECT_EQ(std::make_tuple(a.Family(), std::string(a.Text())), std::make_tuple(kFamilyIPv6, "::1"));
}

TEST(IpAddressTest, IPv6TextForms) {
  for (const auto& row : kIPv6Rows) {
    uint8_t bytes[16];
    for (int i = 0; i < 8; ++i) {
      bytes[2 * i] = static_cast<uint8_t>(row.words[i] >> 8);
      bytes[2 * i + 1] = static_cast<uint8_t>(row.words[i]);
    }
    IpAddress a;
    a.SetIPv6(bytes);
    EXPECT_STREQ(a.Text(), row.Own());
  }
  // 44 characters: only 41 fit with the terminator.
  const uint8_t longest[16] = {0x11, 0x11, 0x22, 0x22, 0x33, 0x33, 0x44, 0x44,
                               0x02, 0x00, 0x5e, 0xfe, 0xff, 0xff, 0xff, 0xff};
  IpAddress a;
  a.SetIPv6(longest);
  EXPECT_STREQ(a.Text(), "1111:2222:3333:4444:200:5efe:255.255.255.");
  EXPECT_EQ(std::strlen(a.Text()), IpAddress::kTextSize - 1);
}

TEST(AddressLiteralTest, AcceptedAndRefused) {
  for (const auto& row : kLiteralRows) {
    SCOPED_TRACE(row.text);
    const std::string expected = row.Own();
    IpAddress out = V4(1, 2, 3, 4);
    EXPECT_EQ(parse_address_literal(row.text, out), expected.empty() ? 0u : 1u);
    EXPECT_EQ(is_address_literal(row.text), expected.empty() ? 0u : 1u);
    // A refused text leaves the value untouched.
    EXPECT_EQ(out.Text(), expected.empty() ? "1.2.3.4" : expected);
    if (!expected.empty()) {
      EXPECT_EQ(out.Family(), expected.find(':') != std::string::npos ? kFamilyIPv6 : kFamilyIPv4);
    }
  }
  EXPECT_EQ(is_address_literal(nullptr), 0u);
}

}  // namespace
}  // namespace lindqvar
