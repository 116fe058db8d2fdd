#include "protocol/resolve.h"

#include <gtest/gtest.h>

#include <cstring>
#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/os.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar {
namespace {

using testing::FakeNetwork;
using testing::FakeSupport;

ServerEntry Server(const std::string& host, const std::u16string& wide = u"") {
  ServerEntry e;
  std::strncpy(e.host, host.c_str(), sizeof e.host - 1);
  const std::u16string w = wide.empty() ? AnsiToWide(host) : wide;
  std::copy(w.begin(), w.end(), e.hostW);
  return e;
}

class ResolveTest : public ::testing::Test {
 protected:
  ResolveTest() { m_log.SetHandle(m_support.log_initialize(u"FA_LINDQ")); }

  // The log lines so far, each with its TICC and TID values replaced by
  // "<n>" after checking that the TID is this thread's.
  std::vector<std::string> Lines() const {
    static const std::regex ticc(", TICC:[0-9]+");
    const std::string tid = ", TID:" + std::to_string(static_cast<int>(CurrentThreadId()));
    std::vector<std::string> out;
    for (const auto& line : m_support.Lines()) {
      std::string text = std::regex_replace(line.text, ticc, ", TICC:<n>");
      const size_t at = text.rfind(tid);
      EXPECT_TRUE(at != std::string::npos && at + tid.size() == text.size()) << text;
      if (at != std::string::npos) text = text.substr(0, at) + ", TID:<n>";
      out.push_back((line.error ? "E " : "D ") + text);
    }
    return out;
  }

  FakeSupport m_support;
  CLog m_log{m_support};
  FakeNetwork m_network;
  CServerResolver m_resolver{m_network, m_log};
};

TEST_F(ResolveTest, LiteralsAreTakenWithoutLookup) {
  // The fake answers no name: a look-up of a literal would fail and log.
  const std::pair<const char*, const char*> cases[] = {
      {"10.0.0.5", "10.0.0.5"}, {"fe80::1", "fe80::1"}, {"[fe80::1]", "fe80::1"}};
  for (const auto& [host, text] : cases) {
    IpAddress address;
    ASSERT_EQ(m_resolver.resolve_server(Server(host), &address), 1u) << host;
    EXPECT_STREQ(address.Text(), text);
    EXPECT_STREQ(m_resolver.LastAddress().Text(), text);
  }
  EXPECT_EQ(m_resolver.LastAddress().Family(), kFamilyIPv6);
  const std::vector<std::string> expected = {
      "D Start to resolve address for Brannock:10.0.0.5, TICC:<n>, TID:<n>",
      "D Succeeded to resolve address for Brannock:10.0.0.5, BRK IP:10.0.0.5, TICC:<n>, TID:<n>",
      "D Start to resolve address for Brannock:fe80::1, TICC:<n>, TID:<n>",
      "D Succeeded to resolve address for Brannock:fe80::1, BRK IP:fe80::1, TICC:<n>, TID:<n>",
      "D Start to resolve address for Brannock:[fe80::1], TICC:<n>, TID:<n>",
      "D Succeeded to resolve address for Brannock:[fe80::1], BRK IP:fe80::1, TICC:<n>, TID:<n>"};
  EXPECT_EQ(Lines(), expected);
}

TEST_F(ResolveTest, FirstAnswerIsUsedWhateverItsFamily) {
  m_network.names["brk.corp.example"] = {FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 7}),
                                         FakeNetwork::V4(10, 0, 0, 9)};
  m_network.names["brk4.corp.example"] = {FakeNetwork::V4(10, 0, 0, 9),
                                          FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 7})};
  IpAddress address;
  ASSERT_EQ(m_resolver.resolve_server(Server("brk.corp.example"), &address), 1u);
  EXPECT_EQ(address.Family(), kFamilyIPv6);
  EXPECT_STREQ(address.Text(), "2001:db8::7");
  ASSERT_EQ(m_resolver.resolve_server(Server("brk4.corp.example"), &address), 1u);
  EXPECT_EQ(address.Family(), kFamilyIPv4);
  EXPECT_STREQ(address.Text(), "10.0.0.9");
}

TEST_F(ResolveTest, FailureWithoutEarlierAddressGivesNothing) {
  m_network.names["empty.example"] = {};  // an answer without entries
  IpAddress address;
  EXPECT_EQ(m_resolver.resolve_server(Server("gone.example"), &address), 0u);
  EXPECT_EQ(m_resolver.resolve_server(Server("empty.example"), &address), 0u);
  EXPECT_EQ(address.IsValid(), 0u);
  EXPECT_EQ(m_resolver.LastAddress().IsValid(), 0u);
  const std::vector<std::string> expected = {
      "D Start to resolve address for Brannock:gone.example, TICC:<n>, TID:<n>",
      "E Failed to resolve address for Brannock:gone.example, TICC:<n>, TID:<n>",
      "D Start to resolve address for Brannock:empty.example, TICC:<n>, TID:<n>",
      "E Failed to resolve address for Brannock:empty.example, TICC:<n>, TID:<n>"};
  EXPECT_EQ(Lines(), expected);
}

TEST_F(ResolveTest, NameThatStopsResolvingKeepsItsPreviousAddress) {
  m_network.names["brk"] = {FakeNetwork::V4(10, 1, 2, 3)};
  ASSERT_EQ(m_resolver.resolve_server(Server("brk")), 1u);
  m_network.names.clear();
  IpAddress address;
  EXPECT_EQ(m_resolver.resolve_server(Server("brk"), &address), 1u);
  EXPECT_STREQ(address.Text(), "10.1.2.3");
  const std::vector<std::string> expected = {
      "D Start to resolve address for Brannock:brk, TICC:<n>, TID:<n>",
      "D Succeeded to resolve address for Brannock:brk, BRK IP:10.1.2.3, TICC:<n>, TID:<n>",
      "D Start to resolve address for Brannock:brk, TICC:<n>, TID:<n>",
      "E Failed to resolve address for Brannock:brk, TICC:<n>, TID:<n>",
      "D Still use previous resolved IP address:10.1.2.3, TICC:<n>, TID:<n>"};
  EXPECT_EQ(Lines(), expected);
}

TEST_F(ResolveTest, OneLastAddressIsSharedByAllServers) {
  // The second server's look-up fails: the first server's address is used.
  m_network.names["first"] = {FakeNetwork::V6({0xfd00, 0, 0, 0, 0, 0, 0, 1})};
  ASSERT_EQ(m_resolver.resolve_server(Server("first")), 1u);
  IpAddress address;
  EXPECT_EQ(m_resolver.resolve_server(Server("second"), &address), 1u);
  EXPECT_EQ(address.Family(), kFamilyIPv6);
  EXPECT_STREQ(address.Text(), "fd00::1");
  // A literal replaces it, and a later failure falls back to the literal.
  ASSERT_EQ(m_resolver.resolve_server(Server("192.0.2.1")), 1u);
  EXPECT_EQ(m_resolver.resolve_server(Server("first-gone")), 1u);
  EXPECT_STREQ(m_resolver.LastAddress().Text(), "192.0.2.1");
}

TEST_F(ResolveTest, PlainVariantsAndTheWideName) {
  m_resolver.SetTickLogging(false);
  // Log lines show the wide form of the name, look-ups use the 8-bit one.
  m_network.names["brk"] = {FakeNetwork::V4(10, 0, 0, 1)};
  ASSERT_EQ(m_resolver.resolve_server(Server("brk", u"BRK-W\u00e9")), 1u);
  m_network.names.clear();
  ASSERT_EQ(m_resolver.resolve_server(Server("brk", u"BRK-W\u00e9")), 1u);
  const std::string tid = std::to_string(static_cast<int>(CurrentThreadId()));
  const std::vector<std::string> expected = {
      "Start to resolve address for Brannock:BRK-W\xC3\xA9, TID:" + tid,
      "Succeeded to resolve address for Brannock:BRK-W\xC3\xA9, BRK IP:10.0.0.1, TID:" + tid,
      "Start to resolve address for Brannock:BRK-W\xC3\xA9, TID:" + tid,
      "Failed to resolve address for Brannock:BRK-W\xC3\xA9, TID:" + tid,
      "Still use previous resolved IP address:10.0.0.1, TID:" + tid};
  std::vector<std::string> lines;
  for (const auto& line : m_support.Lines()) lines.push_back(line.text);
  EXPECT_EQ(lines, expected);
}

TEST_F(ResolveTest, ConcurrentResolutionsSeeWholeAddresses) {
  // Threads resolving different servers at once each get one of the
  // addresses, never a mix of two.
  m_network.names["v6"] = {FakeNetwork::V6({0xfd00, 0, 0, 0, 0, 0, 0, 0x66})};
  m_log.SetHandle(nullptr);  // only the addresses matter here
  std::vector<std::thread> threads;
  std::atomic<int> bad{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        IpAddress a;
        const bool useName = (i + t) % 2 == 0;
        if (m_resolver.resolve_server(Server(useName ? "v6" : "10.4.4.4"), &a) != 1) ++bad;
        const std::string text = a.Text();
        if (text != "fd00::66" && text != "10.4.4.4") ++bad;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(bad.load(), 0);
}

}  // namespace
}  // namespace lindqvar
