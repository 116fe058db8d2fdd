#include "protocol/ip_address.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

namespace lindqvar {
namespace {

// An IPv6 address from its eight words.
IpAddress V6(std::initializer_list<uint16_t> words) {
  uint8_t bytes[16] = {};
  size_t i = 0;
  for (uint16_t w : words) {
    bytes[i++] = static_cast<uint8_t>(w >> 8);
    bytes[i++] = static_cast<uint8_t>(w);
  }
  IpAddress a;
  a.SetIPv6(bytes);
  return a;
}

IpAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  const uint8_t bytes[4] = {a, b, c, d};
  uint32_t address;
  std::memcpy(&address, bytes, 4);
  IpAddress ip;
  ip.SetIPv4(address);
  return ip;
}

std::u16string Widen(const char* s) { return std::u16string(s, s + std::strlen(s)); }

TEST(IpAddressTest, EmptyValueReadsAsZeroAddress) {
  IpAddress empty;
  EXPECT_EQ(empty.IsValid(), 0u);
  EXPECT_EQ(empty.Family(), 0);
  EXPECT_STREQ(empty.Text(), "0.0.0.0");
  EXPECT_EQ(std::u16string(empty.WideText()), u"0.0.0.0");
}

TEST(IpAddressTest, TextFollowsTheStoredAddress) {
  IpAddress a = V4(10, 0, 0, 5);
  EXPECT_EQ(a.Family(), kFamilyIPv4);
  EXPECT_STREQ(a.Text(), "10.0.0.5");
  // A new address after the text was made must not show the old text.
  a.SetIPv4(V4(192, 168, 200, 255).IPv4());
  EXPECT_EQ(std::u16string(a.WideText()), u"192.168.200.255");
  EXPECT_STREQ(a.Text(), "192.168.200.255");
  const uint8_t loopback6[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  a.SetIPv6(loopback6);
  EXPECT_EQ(a.Family(), kFamilyIPv6);
  EXPECT_STREQ(a.Text(), "::1");
}

TEST(IpAddressTest, CopyTakesOnlyValidSources) {
  IpAddress target = V4(10, 1, 1, 1);
  target.CopyFrom(IpAddress());
  EXPECT_STREQ(target.Text(), "10.1.1.1");
  target.CopyFrom(V6({0xfe80, 0, 0, 0, 0, 0, 0, 2}));
  EXPECT_EQ(target.Family(), kFamilyIPv6);
  EXPECT_STREQ(target.Text(), "fe80::2");
}

struct V6Case {
  std::initializer_list<uint16_t> words;
  const char* text;
};

TEST(IpAddressTest, IPv6TextForms) {
  const V6Case cases[] = {
      {{0, 0, 0, 0, 0, 0, 0, 0}, "::"},
      {{0, 0, 0, 0, 0, 0, 0, 1}, "::1"},
      {{0xfe80, 0, 0, 0, 0x1ff, 0xfe23, 0x4567, 0x890a}, "fe80::1ff:fe23:4567:890a"},
      {{0x1111, 0, 0, 0, 0, 0, 0, 0}, "1111::"},
      // A single zero word is not shortened; the first longest run is.
      {{0x1111, 0x2222, 0x3333, 0x4444, 0x5555, 0x6666, 0, 0x8888}, "1111:2222:3333:4444:5555:6666:0:8888"},
      {{0x2001, 0, 0x1234, 0, 0, 0xc1c0, 0xabcd, 0x876}, "2001:0:1234::c1c0:abcd:876"},
      {{0x3ffe, 0xb00, 0, 0, 1, 0, 0, 0xa}, "3ffe:b00::1:0:0:a"},
      {{0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
      // IPv4 inside IPv6.
      {{0, 0, 0, 0, 0, 0, 0x0d01, 0x4403}, "::13.1.68.3"},
      {{0, 0, 0, 0, 0, 0, 0x0001, 0}, "::0.1.0.0"},
      {{0, 0, 0, 0, 0, 0xffff, 0x8190, 0x3426}, "::ffff:129.144.52.38"},
      {{0, 0, 0, 0, 0, 0xffff, 0, 0x4403}, "::ffff:0:4403"},
      {{0, 0, 0, 0, 0xffff, 0, 0x0d01, 0x4403}, "::ffff:0:13.1.68.3"},
      {{0, 0, 0, 0, 0, 0x5efe, 0, 0}, "::5efe:0.0.0.0"},
      {{0x1111, 0x2222, 0x3333, 0x4444, 0, 0x5efe, 0x8190, 0x3426}, "1111:2222:3333:4444:0:5efe:129.144.52.38"},
      {{0, 0, 0, 0, 0x200, 0x5efe, 0x8190, 0x3426}, "::200:5efe:129.144.52.38"},
      {{0, 0, 0, 0, 0x100, 0x5efe, 0x8190, 0x3426}, "::100:5efe:8190:3426"},
      {{0, 0, 0, 0, 0, 0xfeff, 0x0d01, 0x4403}, "::feff:d01:4403"},
  };
  for (const V6Case& c : cases) {
    const IpAddress a = V6(c.words);
    EXPECT_STREQ(a.Text(), c.text);
    EXPECT_EQ(std::u16string(a.WideText()), Widen(c.text));
  }
}

TEST(IpAddressTest, LongTextIsCutToTheField) {
  // 44 characters: only 41 fit with the terminator.
  const IpAddress a = V6({0x1111, 0x2222, 0x3333, 0x4444, 0x200, 0x5efe, 0xffff, 0xffff});
  EXPECT_STREQ(a.Text(), "1111:2222:3333:4444:200:5efe:255.255.255.");
  EXPECT_EQ(std::u16string(a.WideText()).size(), IpAddress::kTextSize - 1);
}

TEST(AddressLiteralTest, Accepted) {
  const std::pair<const char*, const char*> cases[] = {
      {"10.0.0.5", "10.0.0.5"},
      {"255.255.255.255", "255.255.255.255"},
      {"10.0.0.5:8001", "10.0.0.5"},
      {"127.1", "127.0.0.1"},
      {"10.258", "10.0.1.2"},
      {"0x7f.0.0.01", "127.0.0.1"},
      {"012.0.0.1", "10.0.0.1"},
      {"3232235777", "192.168.1.1"},
      {"fe80::1", "fe80::1"},
      {"FE80::0:1", "fe80::1"},
      {"[fe80::1]", "fe80::1"},
      {"[fe80::1]:8001", "fe80::1"},
      {"fe80::1%3", "fe80::1"},
      {"[fe80::1%12]:443", "fe80::1"},
      {"::", "::"},
      {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
      {"1::001.2.3.4", "1::102:304"},
      {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:6::", "1:2:3:4:5:6::"},
      {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
  };
  for (const auto& [text, formatted] : cases) {
    IpAddress out;
    EXPECT_EQ(parse_address_literal(text, out), 1u) << text;
    EXPECT_EQ(out.IsValid(), 1u) << text;
    EXPECT_STREQ(out.Text(), formatted) << text;
    EXPECT_EQ(is_address_literal(text), 1u) << text;
  }
  IpAddress v6;
  parse_address_literal("[::1]", v6);
  EXPECT_EQ(v6.Family(), kFamilyIPv6);
  IpAddress v4;
  parse_address_literal("10.0.0.5", v4);
  EXPECT_EQ(v4.Family(), kFamilyIPv4);
}

TEST(AddressLiteralTest, Rejected) {
  const char* cases[] = {
      "", "brannock", "brannock.corp.example", "fe80", "10.0.0.256", "1.2.3.4.5", "1.2.3.",
      ".1.2.3", "1..2", "256.1", "10.0x1000000", "08.1.1.1", "0x", "-1.2.3.4", " 1.2.3.4",
      "1.2.3.4 ", "0y1", "1:2:3:4:5:6:7x8", "1.2.3.4:", "1.2.3.4:0", "1.2.3.4:65536", "1.2.3.4:80x", "fe80:::1",
      "1::2::3", ":1::", "1::2:", "12345::", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9",
      "1:2:3:4:5:6:7::8", "1::1.2.3.256", "1::1.2.3", "1::0001.2.3.4", "1.2.3.4::",
      "[fe80::1", "fe80::1]", "[fe80::1]x", "[fe80::1]:0", "[]", "fe80::1%", "fe80::1%x",
      "[10.0.0.5]", "g::1"};
  for (const char* text : cases) {
    IpAddress out = V4(1, 2, 3, 4);
    EXPECT_EQ(parse_address_literal(text, out), 0u) << text;
    EXPECT_STREQ(out.Text(), "1.2.3.4") << text;  // untouched
    EXPECT_EQ(is_address_literal(text), 0u) << text;
  }
  EXPECT_EQ(is_address_literal(nullptr), 0u);
}

TEST(AddressLiteralTest, FormattedIPv6ParsesBackToTheSameAddress) {
  // Words drawn mostly from 0 so that runs of zeros of every length occur.
  std::mt19937 rng(99);
  for (int round = 0; round < 5000; ++round) {
    uint8_t bytes[16];
    for (int i = 0; i < 8; ++i) {
      const uint32_t r = rng();
      const uint16_t w = (r % 3 == 0) ? static_cast<uint16_t>(r >> 16) : (r % 3 == 1) ? 0 : 0xffff;
      bytes[2 * i] = static_cast<uint8_t>(w >> 8);
      bytes[2 * i + 1] = static_cast<uint8_t>(w);
    }
    IpAddress a;
    a.SetIPv6(bytes);
    const std::string text = a.Text();
    if (text.size() == IpAddress::kTextSize - 1) continue;  // possibly cut
    IpAddress back;
    ASSERT_EQ(parse_address_literal(text.c_str(), back), 1u) << text;
    ASSERT_EQ(back.Family(), kFamilyIPv6);
    ASSERT_EQ(std::memcmp(back.Bytes(), bytes, 16), 0) << text;
  }
}

}  // namespace
}  // namespace lindqvar
