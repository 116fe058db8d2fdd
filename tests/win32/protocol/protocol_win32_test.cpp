// Where the Windows build uses the system instead of the project's own
// code, against that code: the C runtime's towupper against the upper-case
// table, and the system's address conversions against the project's
// rendering of them, over the rows the native tests use
// (tests/protocol/address_rows.h).
#include <gtest/gtest.h>

#include <cstring>
#include <cwctype>
#include <string>

#include "platform/address_literal.h"
#include "platform/win32/windows_include.h"
#include "protocol/transport/ip_address.h"
#include "protocol/wire/encoder.h"
#include "protocol/wire/wide_upper.h"
#include "tests/protocol/address_rows.h"

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
  for (const auto& row : testing::kLiteralRows) {
    const std::string system = SystemLiteral(row.text);
    EXPECT_EQ(row.system, system) << row.text;
    EXPECT_EQ(row.Own(), OwnLiteral(row.text)) << row.text;
    IpAddress parsed;
    const uint32_t literal = parse_address_literal(row.text, parsed);
    EXPECT_EQ(system.empty() ? 0u : 1u, literal) << row.text;
    if (literal) {
      EXPECT_EQ(system, parsed.Text()) << row.text;
    }
  }
}

TEST(AddressLiteralUnderWine, TheBuildWritesIPv6AsTheSystemDoes) {
  for (const auto& row : testing::kIPv6Rows) {
    const std::array<uint8_t, 16> bytes = row.Bytes();
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    std::memcpy(&address.sin6_addr, bytes.data(), 16);
    char system[64];
    DWORD size = sizeof system;
    ASSERT_EQ(0, ::WSAAddressToStringA(reinterpret_cast<sockaddr*>(&address), sizeof address,
                                       nullptr, system, &size));
    EXPECT_STREQ(row.system, system);
    char own[64];
    OwnAddressToString(kFamilyIPv6, bytes.data(), own, sizeof own);
    EXPECT_STREQ(row.Own(), own);
    IpAddress product;
    product.SetIPv6(bytes.data());
    EXPECT_STREQ(system, product.Text());
  }
}

}  // namespace
}  // namespace lindqvar
