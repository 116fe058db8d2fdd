// The event message of each report path: which record withdraws the last
// sent addresses, and the record of the current ones. Rows: the kind, the
// last sent set, the current set, and the records the message carries.
#include "session/event_report.h"

#include <gtest/gtest.h>

#include "tests/session/session_fixture.h"

namespace lindqvar::testing {
namespace {

struct ReportRow {
  const char* name;
  ReportKind kind;
  std::vector<ResolvedAddress> last;  // the last sent set; empty: none was sent
  std::vector<ResolvedAddress> now;
  std::vector<std::string> records;  // "<logon flag>:<addresses>", in order
};

const ResolvedAddress kA5 = FakeNetwork::V4(10, 0, 0, 5);
const ResolvedAddress kA6 = FakeNetwork::V4(10, 0, 0, 6);
const ResolvedAddress kV6a = FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1});
const ResolvedAddress kV6b = FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 2});
const ResolvedAddress kV6ff = FakeNetwork::V6({0x00ff, 0, 0, 0, 0, 0, 0, 1});  // a zero first byte

const ReportRow kReportRows[] = {
    // Logon, wakeup and keep-alive: once the addresses changed, the last set
    // is withdrawn when its IPv4 list or the NEW IPv6 list has an entry, so
    // a first report with IPv6 withdraws an empty set...
    {"logon, unchanged", ReportKind::kLogon, {kA5}, {kA5}, {"1:10.0.0.5"}},
    {"logon, IPv4 changed", ReportKind::kLogon, {kA5}, {kA6}, {"0:10.0.0.5", "1:10.0.0.6"}},
    {"logon, none before, IPv6 now", ReportKind::kLogon, {}, {kA5, kV6a},
     {"0:", "1:10.0.0.5,2001:db8::1"}},
    // ...and an IPv6-only last set is not withdrawn.
    {"logon, IPv6 before", ReportKind::kLogon, {kV6a}, {kA5}, {"1:10.0.0.5"}},
    {"wakeup, unchanged", ReportKind::kWakeup, {kA5}, {kA5}, {"1:10.0.0.5"}},
    {"wakeup, IPv4 before, IPv6 now", ReportKind::kWakeup, {kA5}, {kV6b},
     {"0:10.0.0.5", "1:2001:db8::2"}},
    {"keep-alive, unchanged", ReportKind::kKeepAlive, {kA5, kV6a}, {kA5, kV6a},
     {"1:10.0.0.5,2001:db8::1"}},
    {"keep-alive, reordered", ReportKind::kKeepAlive, {kA5, kA6}, {kA6, kA5},
     {"1:10.0.0.6,10.0.0.5"}},
    {"keep-alive, IPv4 changed", ReportKind::kKeepAlive, {kA5}, {kA6},
     {"0:10.0.0.5", "1:10.0.0.6"}},
    {"keep-alive, none before, IPv6 now", ReportKind::kKeepAlive, {}, {kA5, kV6a},
     {"0:", "1:10.0.0.5,2001:db8::1"}},
    {"keep-alive, IPv6 before", ReportKind::kKeepAlive, {kV6a}, {kA5}, {"1:10.0.0.5"}},
    // An IPv6 address counts by its first 16-bit group, not its first byte.
    {"keep-alive, none before, ff::1 now", ReportKind::kKeepAlive, {}, {kA5, kV6ff},
     {"0:", "1:10.0.0.5,ff::1"}},
    // Logoff: never; the logoff withdraws the user anyway.
    {"logoff, IPv4 changed", ReportKind::kLogoff, {kA5}, {kA6}, {"0:10.0.0.6"}},
    // Address change (made only when the set changed): withdrawn when the
    // last IPv4 list or the PREVIOUS IPv6 list has an entry.
    {"address change, IPv4 added", ReportKind::kAddressChange, {kA5}, {kA5, kA6},
     {"0:10.0.0.5", "1:10.0.0.5,10.0.0.6"}},
    {"address change, none before, IPv6 now", ReportKind::kAddressChange, {}, {kA5, kV6a},
     {"1:10.0.0.5,2001:db8::1"}},
    {"address change, IPv6 before", ReportKind::kAddressChange, {kV6a}, {kA5},
     {"0:2001:db8::1", "1:10.0.0.5"}},
};

class EventReportTest : public SessionFixture, public ::testing::WithParamInterface<ReportRow> {};

TEST_P(EventReportTest, EachPathWithdrawsTheLastSetByItsOwnRule) {
  const ReportRow& row = GetParam();
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  const auto set = [this](const std::vector<ResolvedAddress>& addresses) {
    SetAddresses(addresses);
    AddressSet s;
    this->addresses.GetIPAddress(&s.ipv4, s.count4, &s.ipv6, s.count6);
    return s;
  };
  CEncoder event(kEventEncoderCapacity);
  BuildEventReport(event, row.kind, set(row.last), set(row.now), *table.FindSession(1), machine);
  uint32_t length = 0;
  std::vector<uint8_t> bytes(event.get_buffer(&length), event.get_buffer(&length) + length);
  CDecoder decoder(bytes.data(), length);
  EventMessage message;
  ASSERT_TRUE(message.Read(decoder));
  std::vector<std::string> records;
  for (const auto& r : message.records) {
    // Both records are the entry's: its user at the machine's name.
    EXPECT_EQ(r.user + "@" + r.workstation, "USER1@WS1.CORP.EXAMPLE");
    std::string s = std::to_string(r.logon) + ":";
    for (const auto& list : {r.IPv4Text(), r.IPv6Text()})
      for (const std::string& a : list) s += (s.back() == ':' ? "" : ",") + a;
    records.push_back(s);
  }
  EXPECT_EQ(records, row.records);
}

INSTANTIATE_TEST_SUITE_P(Rows, EventReportTest, ::testing::ValuesIn(kReportRows), RowName);

}  // namespace
}  // namespace lindqvar::testing
