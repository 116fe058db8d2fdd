// Server names resolved with their log transcripts, and the address
// literals and text forms of IpAddress.
#include "protocol/transport/resolve.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/os.h"
#include "protocol/transport/ip_address.h"
#include "tests/fakes/fake_platform.h"
#include "tests/protocol/address_rows.h"

namespace lindqvar {
namespace {

using testing::FakeNetwork;
using testing::FakeSupport;
using testing::kIPv6Rows;
using testing::kLiteralRows;

ServerEntry Server(const std::string& host, const std::u16string& wide = u"") {
  ServerEntry e;
  std::strncpy(e.host, host.c_str(), sizeof e.host - 1);
  const std::u16string w = wide.empty() ? AnsiToWide(host) : wide;
  std::copy(w.begin(), w.end(), e.hostW);
  return e;
}

// The log lines so far, each with its TICC and TID values replaced by "<n>"
// after checking that the TID is this thread's.
std::vector<std::string> Lines(const FakeSupport& support) {
  static const std::regex ticc(", TICC:[0-9]+");
  const std::string tid = ", TID:" + std::to_string(static_cast<int>(CurrentThreadId()));
  std::vector<std::string> out;
  for (const auto& line : support.Lines()) {
    std::string text = std::regex_replace(line.text, ticc, ", TICC:<n>");
    const size_t at = text.rfind(tid);
    EXPECT_TRUE(at != std::string::npos && at + tid.size() == text.size()) << text;
    if (at != std::string::npos) text = text.substr(0, at) + ", TID:<n>";
    out.push_back((line.error ? "E " : "D ") + text);
  }
  return out;
}

// Each row resolves its hosts in turn against its own name table; the
// transcript rows hold every log text of the resolution, in both variants.
TEST(ResolveTest, AddressesAndTranscripts) {
  struct Step {
    const char* host;
    const char16_t* wide;  // the name as logged; null: the same as host
    const char* text;      // the address obtained; null: none (result 0)
  };
  struct Row {
    const char* name;
    bool tickLogging;
    std::map<std::string, std::vector<ResolvedAddress>> names;
    std::vector<Step> steps;
    std::vector<std::string> lines;  // empty: addresses only
  };
  using N = FakeNetwork;
  const Row rows[] = {
      {"literals without look-up, failures, fallback",
       true,
       {{"empty.example", {}}, {"brk", {N::V4(10, 1, 2, 3)}}},
       {{"gone.example", nullptr, nullptr},
        {"empty.example", nullptr, nullptr},  // an answer without entries
        {"10.0.0.5", nullptr, "10.0.0.5"},
        {"brk", nullptr, "10.1.2.3"},
        {"brk-gone", nullptr, "10.1.2.3"},
        {"fe80::1", nullptr, "fe80::1"},
        {"[fe80::1]", nullptr, "fe80::1"}},
       {"D Start to resolve address for Brannock:gone.example, TICC:<n>, TID:<n>",
        "E Failed to resolve address for Brannock:gone.example, TICC:<n>, TID:<n>",
        "D Start to resolve address for Brannock:empty.example, TICC:<n>, TID:<n>",
        "E Failed to resolve address for Brannock:empty.example, TICC:<n>, TID:<n>",
        "D Start to resolve address for Brannock:10.0.0.5, TICC:<n>, TID:<n>",
        "D Succeeded to resolve address for Brannock:10.0.0.5, BRK IP:10.0.0.5, TICC:<n>, TID:<n>",
        "D Start to resolve address for Brannock:brk, TICC:<n>, TID:<n>",
        "D Succeeded to resolve address for Brannock:brk, BRK IP:10.1.2.3, TICC:<n>, TID:<n>",
        "D Start to resolve address for Brannock:brk-gone, TICC:<n>, TID:<n>",
        "E Failed to resolve address for Brannock:brk-gone, TICC:<n>, TID:<n>",
        "D Still use previous resolved IP address:10.1.2.3, TICC:<n>, TID:<n>",
        "D Start to resolve address for Brannock:fe80::1, TICC:<n>, TID:<n>",
        "D Succeeded to resolve address for Brannock:fe80::1, BRK IP:fe80::1, TICC:<n>, TID:<n>",
        "D Start to resolve address for Brannock:[fe80::1], TICC:<n>, TID:<n>",
        "D Succeeded to resolve address for Brannock:[fe80::1], BRK IP:fe80::1, TICC:<n>, TID:<n>"}},
      // Log lines show the wide form of the name, look-ups use the 8-bit one.
      {"without tick logging, the wide name",
       false,
       {{"brk", {N::V4(10, 0, 0, 1)}}},
       {{"brk", u"BRK-W\u00e9", "10.0.0.1"}, {"gone", u"GONE", "10.0.0.1"}},
       {"D Start to resolve address for Brannock:BRK-W\xC3\xA9, TID:<n>",
        "D Succeeded to resolve address for Brannock:BRK-W\xC3\xA9, BRK IP:10.0.0.1, TID:<n>",
        "D Start to resolve address for Brannock:GONE, TID:<n>",
        "E Failed to resolve address for Brannock:GONE, TID:<n>",
        "D Still use previous resolved IP address:10.0.0.1, TID:<n>"}},
      {"the first answer whatever its family",
       true,
       {{"brk6", {N::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 7}), N::V4(10, 0, 0, 9)}},
        {"brk4", {N::V4(10, 0, 0, 9), N::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 7})}}},
       {{"brk6", nullptr, "2001:db8::7"}, {"brk4", nullptr, "10.0.0.9"}}},
      // A failed look-up falls back to the last address of any server.
      {"one last address for all servers",
       true,
       {{"first", {N::V6({0xfd00, 0, 0, 0, 0, 0, 0, 1})}}},
       {{"first", nullptr, "fd00::1"},
        {"second", nullptr, "fd00::1"},
        {"192.0.2.1", nullptr, "192.0.2.1"},
        {"first-gone", nullptr, "192.0.2.1"}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakeSupport support;
    CLog log{support};
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
    FakeNetwork network;
    network.names = row.names;
    CServerResolver resolver{network, log};
    resolver.SetTickLogging(row.tickLogging);
    for (const Step& step : row.steps) {
      IpAddress address;
      const std::u16string wide = step.wide ? step.wide : AnsiToWide(step.host);
      const uint32_t result = resolver.resolve_server(Server(step.host, wide), &address);
      EXPECT_EQ(result, step.text ? 1u : 0u) << step.host;
      EXPECT_STREQ(address.Text(), step.text ? step.text : "0.0.0.0") << step.host;
      EXPECT_STREQ(resolver.LastAddress().Text(), step.text ? step.text : "0.0.0.0");
      const bool v6 = step.text && std::strchr(step.text, ':');
      EXPECT_EQ(address.Family(), step.text ? (v6 ? kFamilyIPv6 : kFamilyIPv4) : 0) << step.host;
    }
    if (!row.lines.empty()) EXPECT_EQ(Lines(support), row.lines);
  }
}

TEST(ResolveTest, ConcurrentResolutionsSeeWholeAddresses) {
  // Threads resolving different servers at once each get one of the
  // addresses, never a mix of two.
  FakeSupport support;
  CLog log{support};  // no handle: only the addresses matter here
  FakeNetwork network;
  network.names["v6"] = {FakeNetwork::V6({0xfd00, 0, 0, 0, 0, 0, 0, 0x66})};
  CServerResolver resolver{network, log};
  std::vector<std::thread> threads;
  std::atomic<int> bad{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        IpAddress a;
        const bool useName = (i + t) % 2 == 0;
        if (resolver.resolve_server(Server(useName ? "v6" : "10.4.4.4"), &a) != 1) ++bad;
        const std::string text = a.Text();
        if (text != "fd00::66" && text != "10.4.4.4") ++bad;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(bad.load(), 0);
}

// --- address literals and text forms --------------------------------------------

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
    IpAddress a;
    a.SetIPv6(row.Bytes().data());
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
