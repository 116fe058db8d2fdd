// Where the Windows build uses the system instead of the project's own
// code, against that code: the C runtime's towupper against the upper-case
// table, and the system's address conversions against the project's
// rendering of them. Each table row holds what the system gives (measured
// under Wine 8) and, where it differs, what the project's code gives;
// docs/windows-runtime.md lists the same differences.
#include <gtest/gtest.h>

#include <cstring>
#include <cwctype>
#include <string>

#include "platform/address_literal.h"
#include "platform/win32/windows_include.h"
#include "protocol/codec.h"
#include "protocol/ip_address.h"
#include "protocol/wide_upper.h"

namespace lindqvar {
namespace {

class Winsock : public ::testing::Environment {
 public:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(0, ::WSAStartup(MAKEWORD(2, 2), &data));
  }
  void TearDown() override { ::WSACleanup(); }
};
[[maybe_unused]] ::testing::Environment* const kWinsock =
    ::testing::AddGlobalTestEnvironment(new Winsock);

// --- upper-casing ----------------------------------------------------------------

TEST(UpperCaseUnderWine, TheBuildAppliesTowupperWhichMapsOnlyPartOfTheTable) {
  size_t differing = 0;
  for (uint32_t u = 0; u <= 0xFFFF; ++u) {
    const auto unit = static_cast<char16_t>(u);
    const auto runtime = static_cast<char16_t>(std::towupper(static_cast<std::wint_t>(u)));
    ASSERT_EQ(runtime, WideToUpper(unit)) << std::hex << u;
    if (runtime == WideToUpperTable(unit)) continue;
    ++differing;
    // Where they differ, the runtime leaves the unit as it is.
    EXPECT_EQ(unit, runtime) << std::hex << u;
  }
  // In the "C" locale towupper maps a-z only: every other unit the table
  // maps stays.
  EXPECT_EQ(1164u, differing);

  // So the codec upper-cases only the ASCII letters of a name.
  CEncoder encoder;
  ASSERT_EQ(0, encoder.add_string(ATTR_USER, "m\xC3\xBCller", 1));
  uint32_t length = 0;
  const uint8_t* buffer = encoder.get_buffer(&length);
  EXPECT_EQ("M\xC3\xBCLLER", std::string(reinterpret_cast<const char*>(buffer) + 6, length - 6));
}

// --- address literals and text forms ---------------------------------------------

constexpr char kSame[] = "same as the system";

// The system's own answer: the literal's text form, or "" when refused.
std::string SystemLiteral(const char* text) {
  for (const INT family : {AF_INET, AF_INET6}) {
    alignas(8) char buffer[128] = {};
    INT length = sizeof buffer;
    if (::WSAStringToAddressA(const_cast<char*>(text), family, nullptr,
                              reinterpret_cast<sockaddr*>(buffer), &length) != 0) {
      continue;
    }
    // The bare address: no port, no scope.
    if (family == AF_INET) {
      reinterpret_cast<sockaddr_in*>(buffer)->sin_port = 0;
    } else {
      auto* v6 = reinterpret_cast<sockaddr_in6*>(buffer);
      v6->sin6_port = 0;
      v6->sin6_scope_id = 0;
    }
    char out[64];
    DWORD size = sizeof out;
    if (::WSAAddressToStringA(reinterpret_cast<sockaddr*>(buffer), length, nullptr, out, &size) != 0) {
      return "<no text>";
    }
    return out;
  }
  return "";
}

std::string OwnLiteral(const char* text) {
  uint8_t address[16];
  char out[64];
  for (const int family : {kFamilyIPv4, kFamilyIPv6}) {
    if (OwnStringToAddress(text, family, address)) {
      OwnAddressToString(family, address, out, sizeof out);
      return out;
    }
  }
  return "";
}

TEST(AddressLiteralUnderWine, TheBuildParsesAsTheSystemDoes) {
  struct Row {
    const char* text;
    const char* system;  // "" refused
    const char* own = kSame;
  };
  const Row rows[] = {
      // Short dotted forms, octal and hex parts, ports.
      {"127.1", "127.0.0.1"},
      {"10.258", "10.0.1.2"},
      {"1.0xffffff", "1.255.255.255"},
      {"1.2.65536", ""},
      {"3232235777", "192.168.1.1"},
      {"4294967296", ""},
      {"0x7f.0.0.01", "127.0.0.1"},
      {"0X7F.1", "127.0.0.1"},
      {"012.0.0.1", "10.0.0.1"},
      {"08.1.1.1", ""},
      {"0400.1.1.1", ""},
      {"0", "0.0.0.0"},
      {"1.2.3.4:80", "1.2.3.4"},
      {"1.2.3.4:0x50", "1.2.3.4"},
      {"1.2.3.4:0", ""},
      {"1.2.3.4:65536", ""},
      {"1.2.3.4:08", ""},
      {"1.2.3.4:", ""},
      {" 1.2.3.4", ""},
      {"1.2.3.4 ", ""},
      {"1.2.3.", ""},
      {"1..2", ""},
      // Zone ids.
      {"fe80::1%3", "fe80::1"},
      {"fe80::1%0", "fe80::1"},
      {"fe80::1%00", "", "fe80::1"},
      {"fe80::1%4294967295", "fe80::1"},
      {"fe80::1%4294967296", ""},
      {"fe80::1%eth0", ""},
      {"fe80::1%", ""},
      {"::%1", "::"},
      // Embedded IPv4.
      {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
      {"::1.2.3.4", "::1.2.3.4"},
      {"::0.0.0.1", "::1"},
      {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
      {"1:2:3:4:5:6:7:1.2.3.4", ""},
      {"::1.2.3", ""},
      {"::256.1.1.1", ""},
      {"1.2.3.4%5", ""},
      // Leading zeros.
      {"0001::1", "1::1"},
      {"00000::1", ""},
      {"1::001.2.3.4", "1::102:304"},
      {"::1.02.3.4", "::1.2.3.4"},
      {"1::0001.2.3.4", ""},
      // Brackets.
      {"[fe80::1]", "fe80::1"},
      {"[fe80::1]:8001", "fe80::1"},
      {"[fe80::1%12]:443", "fe80::1"},
      {"[::1]:0x50", "::1"},
      {"[::1]:08", ""},
      {"[::1]:0", ""},
      {"[fe80::1]:", ""},
      {"[fe80::1]%3", ""},
      {"[10.0.0.5]", ""},
      {"[ ::1]", ""},
      {"[]:80", ""},
      // Word counts.
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"1::2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},
      {"1::2::3", ""},
      {"fe80:::1", ""},
      {"12345::", ""},
  };
  for (const Row& row : rows) {
    const std::string system = SystemLiteral(row.text);
    EXPECT_EQ(row.system, system) << row.text;
    EXPECT_EQ(row.own == kSame ? row.system : row.own, OwnLiteral(row.text)) << row.text;
    IpAddress parsed;
    const uint32_t literal = parse_address_literal(row.text, parsed);
    EXPECT_EQ(system.empty() ? 0u : 1u, literal) << row.text;
    if (literal) {
      EXPECT_EQ(system, parsed.Text()) << row.text;
    }
  }
}

TEST(AddressLiteralUnderWine, TheBuildWritesIPv6AsTheSystemDoes) {
  struct Row {
    uint16_t words[8];
    const char* system;
    const char* own = kSame;
  };
  const Row rows[] = {
      {{0, 0, 0, 0, 0, 0, 0, 1}, "::1"},
      {{0, 0, 0, 0, 0, 0, 0, 0}, "::"},
      {{0, 0, 0, 0, 0, 0, 0x102, 0x304}, "::1.2.3.4"},
      {{0, 0, 0, 0, 0, 0, 1, 0}, "::0.1.0.0"},
      {{0, 0, 0, 0, 0, 0, 0, 0x102}, "::102"},
      {{0, 0, 0, 0, 0, 0xffff, 0x102, 0x304}, "::ffff:1.2.3.4"},
      {{0, 0, 0, 0, 0, 0xffff, 0, 0}, "::ffff:0:0"},
      {{0, 0, 0, 0, 0xffff, 0, 0x102, 0x304}, "::ffff:0:1.2.3.4"},
      {{0, 0, 0, 0, 0xffff, 0, 0, 0}, "::ffff:0:0:0", "::ffff:0:0.0.0.0"},
      {{0, 0, 0, 0, 0xffff, 0, 0, 1}, "::ffff:0:0:1", "::ffff:0:0.0.0.1"},
      {{0x2001, 0xdb8, 0, 0, 0, 0x5efe, 0x102, 0x304}, "2001:db8::5efe:1.2.3.4"},
      {{0x2001, 0xdb8, 0, 0, 0x200, 0x5efe, 0x102, 0x304}, "2001:db8::200:5efe:1.2.3.4"},
      {{0x2001, 0xdb8, 0, 0, 0x300, 0x5efe, 0x102, 0x304}, "2001:db8::300:5efe:102:304"},
      {{0x64, 0xff9b, 0, 0, 0, 0, 0x102, 0x304}, "64:ff9b::102:304"},
      {{1, 0, 0, 1, 0, 0, 1, 1}, "1::1:0:0:1:1"},
      {{1, 0, 1, 0, 0, 1, 0, 0}, "1:0:1::1:0:0"},
      {{0, 1, 0, 0, 0, 0, 0, 0}, "0:1::"},
      {{1, 2, 3, 4, 5, 6, 7, 0}, "1:2:3:4:5:6:7:0"},
  };
  for (const Row& row : rows) {
    uint8_t bytes[16];
    for (int i = 0; i < 8; ++i) {
      bytes[2 * i] = static_cast<uint8_t>(row.words[i] >> 8);
      bytes[2 * i + 1] = static_cast<uint8_t>(row.words[i]);
    }
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    std::memcpy(&address.sin6_addr, bytes, 16);
    char system[64];
    DWORD size = sizeof system;
    ASSERT_EQ(0, ::WSAAddressToStringA(reinterpret_cast<sockaddr*>(&address), sizeof address,
                                       nullptr, system, &size));
    EXPECT_STREQ(row.system, system);
    char own[64];
    OwnAddressToString(kFamilyIPv6, bytes, own, sizeof own);
    EXPECT_STREQ(row.own == kSame ? row.system : row.own, own);
    IpAddress product;
    product.SetIPv6(bytes);
    EXPECT_STREQ(system, product.Text());
  }
}

}  // namespace
}  // namespace lindqvar
