#include "agent/settings.h"

#include <gtest/gtest.h>

#include "agent/state.h"
#include "agent/verification_settings.h"

#include "platform/log.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar {
namespace {

using testing::FakeSupport;

struct Item {
  std::string host;
  uint32_t port;
  bool operator==(const Item&) const = default;
};

std::vector<Item> Parse(const std::string& text) {
  ServerList list;
  ParseServerList("stale.example;other.example", list);
  ParseServerList(text, list);  // replaces the list
  std::vector<Item> out;
  for (const auto& e : list) {
    // The wide host mirrors the 8-bit one.
    EXPECT_EQ(WideToUtf8(e->hostW), std::string(e->host));
    out.push_back({e->host, e->port});
  }
  return out;
}

void PrintTo(const Item& i, std::ostream* os) { *os << "{" << i.host << ", " << i.port << "}"; }

// Items, ports and separators; a colon ends the host only after a dot or a
// bracket; the port text is taken as atol takes it; a host is cut to 127
// characters.
TEST(ServerListParse, ItemsPortsAndSeparators) {
  const struct {
    std::string text;
    std::vector<Item> items;
  } rows[] = {
      {"", {{"", 8001}}},
      {"10.0.0.5:9001;10.0.0.6", {{"10.0.0.5", 9001}, {"10.0.0.6", 8001}}},
      {"a.example,b.example:7", {{"a.example", 8001}, {"b.example", 7}}},
      {"a.b;", {{"a.b", 8001}}},  // a trailing separator adds nothing
      {"a.b;;c.d", {{"a.b", 8001}, {"", 8001}, {"c.d", 8001}}},  // two add an empty host
      {";", {{"", 8001}}},
      {"[fe80::1]:9001", {{"[fe80::1]", 9001}}},
      {"fe80::1", {{"fe80::1", 8001}}},
      {"server:9000", {{"server:9000", 8001}}},  // dot-free: ":port" stays in the host
      {"2001:db8::5:9001,x.y", {{"2001:db8::5:9001", 8001}, {"x.y", 8001}}},
      {"::ffff:1.2.3.4:77", {{"::ffff:1.2.3.4", 77}}},  // a dot anywhere before counts
      {"a.b:", {{"a.b", 8001}}},                        // nothing after ":"
      {"a.b:http", {{"a.b", 0}}},                       // not a number
      {"a.b:12ab;c.d", {{"a.b", 12}, {"c.d", 8001}}},
      {"a.b:;c.d", {{"a.b", 0}, {"c.d", 8001}}},
      {"a.b:99999999", {{"a.b", 99999999}}},  // no range check
      {std::string(200, 'h') + ".x:5", {{std::string(127, 'h'), 5}}},
  };
  for (const auto& row : rows) EXPECT_EQ(Parse(row.text), row.items) << row.text;
}

TEST(SettingsRecord, FieldsAreReadAtTheirOffsets) {
  FakeSupport support;
  std::u16string key(70, u'k');  // longer than the record has room for
  support.SetSettings(1, u"a.b:1", key, 3, 1);
  SettingsRecordView v = ReadSettingsRecord(support);
  // The key field runs to the end of the 660-byte record: 66 units.
  EXPECT_EQ(std::tie(v.enabled, v.addressCategory, v.preferAzure, v.serverList, v.presharedKey),
            std::make_tuple(1u, 3u, 1u, u"a.b:1", std::u16string(66, u'k')));

  uint8_t raw[settings_record::kSize] = {};
  raw[16] = 'x';
  raw[528] = 'p';
  raw[530] = 0xE9;  // U+00E9
  raw[4] = 7;
  v = DecodeSettingsRecord(raw);
  EXPECT_EQ(std::tie(v.enabled, v.serverList, v.presharedKey), std::make_tuple(7u, u"x", u"p\u00e9"));
}

class SettingsChange : public ::testing::Test {
 protected:
  void SetUp() override {
    support.SetSettings(1, u"10.0.0.5:9001;auth.example", u"secret");
    settings.Load(support, log);
  }
  FakeSupport support;
  CLog log{support};
  CAgentSettings settings;
};

// In force: "10.0.0.5:9001;auth.example" with key "secret", enabled. An entry
// matches by its port or, in any letter case, by its host; order is free.
TEST_F(SettingsChange, KeyDisableCountAndUnmatchedEntriesAreChanges) {
  const struct {
    uint32_t enabled;
    const char16_t* servers;
    const char16_t* key;
    uint32_t changed;
  } rows[] = {
      {1, u"10.0.0.5:9001;auth.example", u"secret", 0},
      {1, u"10.9.9.9:9001;other.example", u"secret", 0},  // same ports
      {1, u"x.example;10.0.0.5:9001", u"secret", 0},
      {1, u"10.0.0.5:9002;AUTH.Example:8002", u"secret", 0},
      {1, u"10.0.0.5:9001;auth.example", u"Secret", 1},
      {0, u"10.0.0.5:9001;auth.example", u"secret", 1},
      {1, u"10.0.0.5:9001", u"secret", 1},
      {1, u"10.0.0.7:9002;auth.example", u"secret", 1},  // new host, port not in force
      {1, u"10.0.0.5:9001;auth2.example:8002", u"secret", 1},
      {0, u"", u"", 1},  // a record the library left zero
  };
  for (const auto& row : rows) {
    support.SetSettings(row.enabled, row.servers, row.key);
    EXPECT_EQ(settings.IsChanged(support), row.changed) << WideToUtf8(row.servers);
  }
  // Nothing in force changed.
  ASSERT_EQ(settings.Servers().size(), 2u);
  EXPECT_STREQ(settings.Servers()[1]->host, "auth.example");
}

TEST_F(SettingsChange, ApplySetsTheLevelOnlyWithALogHandleAndReplacesEverything) {
  support.SetLogging(1, 4);
  settings.Apply(support, log);  // no handle held: no level set
  EXPECT_TRUE(support.LevelsSet().empty());

  log.SetHandle(support.log_initialize(u"FA_LINDQ"));
  settings.Apply(support, log);
  support.SetLogging(0, 4);
  settings.Apply(support, log);
  EXPECT_EQ(support.LevelsSet(), (std::vector<uint32_t>{4, 0}));

  support.SetSettings(1, u"x.y:1", u"new key", 2, 1);
  settings.Apply(support, log);
  EXPECT_EQ(std::make_tuple(settings.AddressCategory(), settings.PreferAzure(), settings.PresharedKey()),
            std::make_tuple(2u, 1u, "new key"));
  ASSERT_EQ(settings.Servers().size(), 1u);
  EXPECT_EQ(settings.Servers()[0]->port, 1u);
  EXPECT_TRUE(support.HasLine("Brannock config:x.y:1"));
  EXPECT_TRUE(support.HasLine("Address Category:2"));
  EXPECT_TRUE(support.HasLine("prefer azure:1"));
  for (const auto& line : support.Lines()) EXPECT_EQ(line.text.find("new key"), std::string::npos);
}

// --- the state value ----------------------------------------------------------

// Each state is written twice: the value goes through an opened (never
// created) key every time, also when it did not change, and each outcome is
// logged with the state's name or the error.
struct StateRow {
  uint32_t state;
  bool keyExists;
  uint32_t setError;
  const char* line;  // logged after each write
};
const StateRow kStateRows[] = {
    {0, true, 0, "Successfully updated LINDQState in registry. New state: NOT_CONFIGURED"},
    {1, true, 0, "Successfully updated LINDQState in registry. New state: CONFIGURED_UNREACHABLE"},
    {2, true, 0, "Successfully updated LINDQState in registry. New state: CONFIGURED_REACHABLE"},
    {3, true, 0, "Successfully updated LINDQState in registry. New state: Unknown"},
    {1, false, 0, "Failed to open registry key for LINDQState update. Error: 2"},
    {0, true, 5, "Failed to set LINDQState in registry. Error: 5"},
};

TEST(AgentState, WritesThroughTheOpenedKeyEveryTimeAndLogsTheOutcome) {
  for (const StateRow& row : kStateRows) {
    SCOPED_TRACE(row.line);
    testing::FakeSupport support;
    testing::FakeRegistry registry;
    CLog log{support};
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
    if (row.keyExists) registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
    if (row.setError != 0) registry.FailSetValue(row.setError);
    WriteState(registry, log, row.state);
    WriteState(registry, log, row.state);
    uint32_t value = 0xDEAD;
    const bool stored =
        registry.GetDword(RegistryHive::kLocalMachine, kAgentKeyPath, u"LINDQState", value);
    const bool written = row.keyExists && row.setError == 0;
    // A missing key is never created.
    EXPECT_EQ(std::make_tuple(stored && value == row.state, registry.DwordWrites(), support.CountLines(row.line)),
              std::make_tuple(written, written ? 2u : 0u, 2u));
    ASSERT_EQ(support.Lines().size(), 2u);
    EXPECT_EQ(support.Lines()[0].error, !written);
    if (row.keyExists) {
      EXPECT_EQ(registry.AccessMasks().back(), 0x20106u);  // KEY_WRITE | WOW64_64
    }
  }
}

// --- server verification values ---------------------------------------------

// Registry bytes of a value (NULs in `text` separate the strings of a
// REG_MULTI_SZ).
const auto Dword = testing::DwordBytes;
std::vector<uint8_t> Utf16(const std::string& text) { return testing::TextBytes(AnsiToWide(text)); }

TEST(ServerVerificationValues, DefaultOffAndWhatEachValueTurnsInto) {
  // Plain lower case, and grouped upper case as the openssl command prints it.
  const std::string a(64, 'a');
  std::string b = "BB";
  for (int i = 1; i < 32; ++i) b += ":BB";
  struct Case {
    const char* what;
    bool keyExists;
    int verifyType;  // 0: absent
    std::vector<uint8_t> verify;
    int pinType;
    std::vector<uint8_t> pins;
    bool verifyOn, pinsConfigured;
    size_t validPins, problems;
    bool resendLogoff = false;  // ResendLogoff holding what VerifyServer holds: off unless a DWORD
  } cases[] = {
      {"no key", false, 0, {}, 0, {}, false, false, 0, 0},
      {"no values", true, 0, {}, 0, {}, false, false, 0, 0},
      {"off", true, 4, Dword(0), 0, {}, false, false, 0, 0},
      {"on", true, 4, Dword(1), 0, {}, true, false, 0, 0, true},
      {"any other number is on", true, 4, Dword(7), 0, {}, true, false, 0, 0, true},
      {"a string is on, even \"0\"", true, 1, Utf16("0"), 0, {}, true, false, 0, 1},
      {"binary zeros are on", true, 3, Dword(0), 0, {}, true, false, 0, 1},
      {"a DWORD of the wrong size is on", true, 4, {0, 0}, 0, {}, true, false, 0, 1},
      {"a longer DWORD is on", true, 4, {1, 0, 0, 0, 0}, 0, {}, true, false, 0, 1},
      {"two pins", true, 4, Dword(1), 7, Utf16(a + std::string(1, '\0') + b + std::string(1, '\0')), true, true, 2, 0, true},
      {"pins in one string", true, 4, Dword(1), 1, Utf16(a + "; " + b), true, true, 2, 0, true},
      {"a bad entry matches nothing", true, 4, Dword(1), 7, Utf16(a.substr(1) + std::string(1, '\0') + b), true, true, 1, 1, true},
      {"an empty list is none", true, 4, Dword(1), 7, Utf16(""), true, false, 0, 0, true},
      {"a list of the wrong type", true, 4, Dword(1), 4, Dword(1), true, true, 0, 1, true},
  };
  for (const Case& c : cases) {
    testing::FakeRegistry registry;
    if (c.keyExists) registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
    if (c.verifyType) {
      registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, kVerifyServerValue, c.verifyType, c.verify);
      registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, kResendLogoffValue, c.verifyType, c.verify);
    }
    if (c.pinType)
      registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, kServerPinsValue, c.pinType, c.pins);
    SCOPED_TRACE(c.what);
    const ServerVerification v = ReadServerVerification(registry);
    EXPECT_EQ(std::make_tuple(c.verifyOn, c.pinsConfigured, c.validPins, c.problems, c.resendLogoff),
              std::make_tuple(v.verify, v.pinsConfigured, v.pins.size(), v.problems.size(),
                              ReadResendLogoff(registry)));
    if (c.validPins == 2) {
      EXPECT_EQ(std::make_tuple(Sha256Text(v.pins[0]), Sha256Text(v.pins[1])),
                std::make_tuple(std::string(64, 'A'), std::string(64, 'B')));
    }
  }
}

}  // namespace
}  // namespace lindqvar
