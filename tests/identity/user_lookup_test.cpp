// The user lookup: SID text, registry string values, the session token and
// account, and the choice between the AD and the Azure AD answers.
#include <gtest/gtest.h>

#include <optional>

#include "identity/azure.h"
#include "identity/terminal_session.h"
#include "tests/identity/identity_fakes.h"

namespace lindqvar::testing {
namespace {

const char kJoinedOutput[] =
    "+----------------------------------------------------------------------+\r\n"
    "| Device State                                                         |\r\n"
    "+----------------------------------------------------------------------+\r\n"
    "\r\n"
    "             AzureAdJoined : YES\r\n"
    "                  TenantId : 4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44\r\n"
    "    Executing Account Name : AzureAD\\MaraLind, mara.lind@fabrikam.example\r\n";

const char kNotJoinedOutput[] = "             AzureAdJoined : NO\r\n";

class UserLookupTest : public ::testing::Test, protected FakeUserLookup {
 protected:

  // An account in session 2, with USERDNSDOMAIN in its volatile
  // environment when `dnsDomain` is set.
  void DomainUser(const std::u16string& domain, const std::u16string& dnsDomain = u"",
                  uint32_t rid = 1107, std::optional<std::u16string> sessionDnsDomain = {}) {
    FakeAccounts::User user;
    user.sid = DomainSid(rid);
    user.name = u"mlind";
    user.domain = domain;
    user.sessionDnsDomain = std::move(sessionDnsDomain);
    accounts.SetUser(2, user);
    if (!dnsDomain.empty()) {
      std::u16string sidText;
      uint32_t length = 260;
      ASSERT_EQ(1u, SidToText(user.sid, sidText, length));
      registry.AddKey(RegistryHive::kUsers, sidText);
      registry.SetString(RegistryHive::kUsers, sidText + u"\\Volatile Environment",
                         u"USERDNSDOMAIN", dnsDomain);
    }
  }
  void AzureAnswers(const char* output) { console.script = {PipeStep{output}}; }

  CTerminalSession record;
};

TEST(SidToTextTest, WritesAuthorityInBothFormsAndSubAuthorities) {
  std::u16string text;
  uint32_t length = 260;
  ASSERT_EQ(1u, SidToText(MakeSid({0, 0, 0, 0, 0, 5}, {18}), text, length));
  EXPECT_EQ(u"S-1-5-18", text);

  ASSERT_EQ(1u, SidToText(DomainSid(1000), text, length));
  EXPECT_EQ(u"S-1-5-21-1004336348-1177238915-682003330-1000", text);

  // The last four authority bytes are one big-endian number...
  ASSERT_EQ(1u, SidToText(MakeSid({0, 0, 0x12, 0x34, 0x56, 0x78}, {}), text, length));
  EXPECT_EQ(u"S-1-305419896", text);
  // ...unless one of the first two is set: then all six in hexadecimal.
  ASSERT_EQ(1u, SidToText(MakeSid({0, 1, 0, 0, 0, 0xab}, {4294967295u}), text, length));
  EXPECT_EQ(u"S-1-0x0001000000ab-4294967295", text);
  ASSERT_EQ(1u, SidToText(MakeSid({0xfe, 0, 0, 0, 0, 0}, {}), text, length));
  EXPECT_EQ(u"S-1-0xfe0000000000", text);
}

TEST(SidToTextTest, RefusesNineSubAuthoritiesWithTheUsualBuffer) {
  std::u16string text;
  uint32_t length = 260;
  ASSERT_EQ(1u, SidToText(MakeSid({0, 0, 0, 0, 0, 5}, {1, 2, 3, 4, 5, 6, 7, 8}), text, length));
  EXPECT_EQ(u"S-1-5-1-2-3-4-5-6-7-8", text);
  EXPECT_EQ(260u, length);

  const SidBytes nine = MakeSid({0, 0, 0, 0, 0, 5}, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  text = u"unchanged";
  SetLastErrorCode(0);
  EXPECT_EQ(0u, SidToText(nine, text, length));
  EXPECT_EQ((9u * 12 + 28) * 2, length);  // 272
  EXPECT_EQ(kErrorInsufficientBuffer, LastErrorCode());
  EXPECT_EQ(u"unchanged", text);
  // The size it asked for is enough.
  EXPECT_EQ(1u, SidToText(nine, text, length));
  EXPECT_EQ(u"S-1-5-1-2-3-4-5-6-7-8-9", text);
}

TEST(SidToTextTest, RefusesInvalidSids) {
  std::u16string text;
  uint32_t length = 260;
  SidBytes sid = DomainSid(500);
  sid[0] = 2;  // revision
  EXPECT_EQ(0u, SidToText(sid, text, length));
  sid = DomainSid(500);
  sid.pop_back();  // last sub-authority cut short
  EXPECT_EQ(0u, SidToText(sid, text, length));
  EXPECT_EQ(0u, SidToText(SidBytes{1, 0, 0, 0, 0}, text, length));
  EXPECT_FALSE(IsValidSid(MakeSid({0, 0, 0, 0, 0, 5}, std::vector<uint32_t>(16, 1))));
  EXPECT_TRUE(IsValidSid(MakeSid({0, 0, 0, 0, 0, 5}, std::vector<uint32_t>(15, 1))));
  EXPECT_EQ(260u, length);
}

// A key that returns values exactly as stored.
class RawKey : public IRegistryKey {
 public:
  uint32_t SetDword(std::u16string_view, uint32_t) override { return 5; }
  uint32_t QueryString(std::u16string_view, std::u16string&) override { return 2; }
  uint32_t QueryDword(std::u16string_view, uint32_t&) override { return 2; }
  uint32_t QueryValue(std::u16string_view name, uint32_t& type, std::vector<uint8_t>& data) override {
    auto it = values.find(std::u16string(name));
    if (it == values.end()) return 2;
    type = it->second.first;
    data = it->second.second;
    return 0;
  }
  uint32_t OpenSubKey(std::u16string_view, uint32_t, std::unique_ptr<IRegistryKey>&) override {
    return 2;
  }
  void Put(const std::u16string& name, uint32_t type, std::u16string_view text, bool terminator) {
    std::vector<uint8_t> bytes;
    for (char16_t c : text) {
      bytes.push_back(static_cast<uint8_t>(c));
      bytes.push_back(static_cast<uint8_t>(c >> 8));
    }
    if (terminator) bytes.insert(bytes.end(), {0, 0});
    values[name] = {type, bytes};
  }
  std::map<std::u16string, std::pair<uint32_t, std::vector<uint8_t>>> values;
};

TEST(RegQueryStringValueTest, ReadsStringTypesOnly) {
  RawKey key;
  key.Put(u"plain", 1, u"CORP.EXAMPLE.TEST", true);
  key.Put(u"expand", 2, u"%SystemRoot%\\x", true);
  key.Put(u"bare", 1, u"abc", false);
  key.Put(u"empty", 1, u"", false);
  key.values[u"dword"] = {4, {1, 0, 0, 0}};
  key.Put(u"multi", 7, u"a", true);
  key.values[u"odd"] = {1, {'a', 0, 'b', 0, 'c'}};  // 5 bytes
  key.Put(u"nul", 1, std::u16string_view(u"ab\0cd", 5), true);

  std::u16string value;
  uint32_t length = 99;
  ASSERT_EQ(1u, RegQueryStringValue(key, u"plain", value, &length));
  EXPECT_EQ(u"CORP.EXAMPLE.TEST", value);
  EXPECT_EQ(18u, length);  // characters, terminator included
  ASSERT_EQ(1u, RegQueryStringValue(key, u"expand", value, nullptr));
  EXPECT_EQ(u"%SystemRoot%\\x", value);  // not expanded
  ASSERT_EQ(1u, RegQueryStringValue(key, u"bare", value, &length));
  EXPECT_EQ(u"abc", value);
  EXPECT_EQ(3u, length);
  // An odd size: the last byte is a unit of its own; the length is size/2.
  ASSERT_EQ(1u, RegQueryStringValue(key, u"odd", value, &length));
  EXPECT_EQ(u"abc", value);
  EXPECT_EQ(2u, length);
  // The text ends at an embedded NUL; the length still counts every unit.
  ASSERT_EQ(1u, RegQueryStringValue(key, u"nul", value, &length));
  EXPECT_EQ(u"ab", value);
  EXPECT_EQ(6u, length);

  for (const char16_t* refused : {u"empty", u"dword", u"multi", u"missing"}) {
    length = 99;
    EXPECT_EQ(0u, RegQueryStringValue(key, refused, value, &length));
    EXPECT_EQ(0u, length);
  }
}

TEST_F(UserLookupTest, DnsDomainComesFromTheUsersVolatileEnvironment) {
  DomainUser(u"FABRIKAM", u"fabrikam.Example.TEST");
  std::u16string domain;
  ASSERT_EQ(1u, GetUserDnsDomain(registry, DomainSid(1107), domain));
  EXPECT_EQ(u"fabrikam.Example.TEST", domain);  // as the hive holds it
  EXPECT_EQ(0u, GetUserDnsDomain(registry, DomainSid(1108), domain));

  // A SID too long for the text buffer is never looked up.
  const SidBytes longSid = MakeSid({0, 0, 0, 0, 0, 5}, {21, 1, 2, 3, 4, 5, 6, 7, 8});
  registry.AddKey(RegistryHive::kUsers, u"S-1-5-21-1-2-3-4-5-6-7-8");
  registry.SetString(RegistryHive::kUsers, u"S-1-5-21-1-2-3-4-5-6-7-8\\Volatile Environment",
                     u"USERDNSDOMAIN", u"LONG.TEST");
  EXPECT_EQ(0u, GetUserDnsDomain(registry, longSid, domain));
}

TEST_F(UserLookupTest, DnsDomainPrefersTheLogonSessionsOwn) {
  // USERDNSDOMAIN is the user's to rewrite; the logon session's DNS domain
  // is not. Rows: the session's (unset: its data unavailable), the user's
  // USERDNSDOMAIN (empty: none), the domain reported, whether a mismatch is logged.
  struct Row {
    std::optional<std::u16string> session;
    std::u16string userDnsDomain;
    std::u16string reported;
    bool mismatchLogged;
  };
  const Row rows[] = {
      {u"FABRIKAM.EXAMPLE.TEST", u"FORGED.TEST", u"FABRIKAM.EXAMPLE.TEST", true},
      {u"FABRIKAM.EXAMPLE.TEST", u"fabrikam.example.test", u"FABRIKAM.EXAMPLE.TEST", false},
      {u"FABRIKAM.EXAMPLE.TEST", u"", u"FABRIKAM.EXAMPLE.TEST", false},
      {u"", u"OTHER.TEST", u"OTHER.TEST", false},                 // the session has none
      {std::nullopt, u"OTHER.TEST", u"OTHER.TEST", false},        // no session data
      {std::nullopt, u"", u"FABRIKAM", false},
  };
  const std::string mismatch =
      "USERDNSDOMAIN FORGED.TEST differs from the logon session's DNS domain "
      "FABRIKAM.EXAMPLE.TEST, ignored";
  uint32_t rid = 2000;
  for (const Row& row : rows) {
    DomainUser(u"FABRIKAM", row.userDnsDomain, ++rid, row.session);  // a fresh hive key each row
    const size_t before = support.CountLines(mismatch);
    std::u16string user, domain;
    EXPECT_EQ(kTsDomainAccount, GetTSSessionUserName(system, log, 2, user, domain, 1));
    EXPECT_EQ(row.reported, domain) << rid;
    EXPECT_EQ(row.mismatchLogged ? 1u : 0u, support.CountLines(mismatch) - before) << rid;
  }
}

TEST_F(UserLookupTest, TokenLookupResults) {
  std::unique_ptr<IUserToken> token;
  EXPECT_EQ(-1, QuerySessionUserToken(accounts, log, 2, nullptr, false));

  EXPECT_EQ(1, QuerySessionUserToken(accounts, log, 4, &token, false));
  EXPECT_TRUE(support.HasLine("Failed to call WTSQueryUserToken for session ID:4,error:1245"));
  accounts.queryError = 5;
  EXPECT_EQ(-1, QuerySessionUserToken(accounts, log, 4, &token, false));
  EXPECT_TRUE(support.HasLine("Failed to call WTSQueryUserToken for session ID:4,error:5"));
  EXPECT_EQ(nullptr, token);

  FakeAccounts::User user;
  user.sid = DomainSid(1107);
  user.linkedTokenId = 77;
  accounts.SetUser(2, user);
  ASSERT_EQ(0, QuerySessionUserToken(accounts, log, 2, &token, false));
  EXPECT_NE(77, static_cast<FakeToken&>(*token).id());
  // The linked token replaces the first one, which is left open.
  ASSERT_EQ(0, QuerySessionUserToken(accounts, log, 2, &token, true));
  EXPECT_EQ(77, static_cast<FakeToken&>(*token).id());
  EXPECT_EQ(1, accounts.tokensAbandoned.load());
  EXPECT_EQ(1, accounts.tokensClosed.load());  // the one of the earlier call, on reassignment

  // Without the function nothing is asked and nothing is said.
  const size_t lines = support.Lines().size();
  accounts.hasQueryUserToken = false;
  EXPECT_EQ(-1, QuerySessionUserToken(accounts, log, 2, &token, false));
  EXPECT_EQ(nullptr, token);
  EXPECT_EQ(lines, support.Lines().size());
}

TEST_F(UserLookupTest, AccountDomainAndKindOfAccount) {
  std::u16string user, domain;
  DomainUser(u"FABRIKAM", u"FABRIKAM.EXAMPLE.TEST");
  EXPECT_EQ(kTsDomainAccount, GetTSSessionUserName(system, log, 2, user, domain, 1));
  EXPECT_EQ(u"mlind", user);
  EXPECT_EQ(u"FABRIKAM.EXAMPLE.TEST", domain);
  EXPECT_EQ(kTsDomainAccount, GetTSSessionUserName(system, log, 2, user, domain, 0));
  EXPECT_EQ(u"FABRIKAM", domain);  // the SID lookup's domain when DNS is not asked for

  DomainUser(u"workstation7", u"", 1001);  // this computer, in another case
  EXPECT_EQ(kTsLocalAccount, GetTSSessionUserName(system, log, 2, user, domain, 1));
  EXPECT_EQ(kTsNoUser, GetTSSessionUserName(system, log, 3, user, domain, 1));

  // Every token this lookup took is still open.
  EXPECT_EQ(0, accounts.tokensClosed.load());
  EXPECT_EQ(3, accounts.tokensAbandoned.load());
}

TEST_F(UserLookupTest, AccountFailures) {
  std::u16string user, domain;
  accounts.hasQueryUserToken = false;
  EXPECT_EQ(0, GetSessionAccount(system, log, 2, user, domain, 1));
  EXPECT_TRUE(support.HasLine("Failed to get token for session ID:2,error:0"));

  accounts.hasQueryUserToken = true;
  FakeAccounts::User broken;
  broken.sid = DomainSid(1);
  broken.tokenInformationFails = true;
  accounts.SetUser(5, broken);
  EXPECT_EQ(0, GetSessionAccount(system, log, 5, user, domain, 1));
  EXPECT_TRUE(support.HasLine("Failed to get token information for session ID:5,error:6"));

  broken.tokenInformationFails = false;
  broken.lookupFails = true;
  accounts.SetUser(5, broken);
  const size_t lines = support.Lines().size();
  EXPECT_EQ(0, GetSessionAccount(system, log, 5, user, domain, 1));
  EXPECT_EQ(lines, support.Lines().size());
  EXPECT_EQ(0, accounts.tokensClosed.load());
}

TEST_F(UserLookupTest, DomainAccountWithoutAzure) {
  DomainUser(u"FABRIKAM", u"FABRIKAM.EXAMPLE.TEST");
  AzureAnswers(kNotJoinedOutput);
  ASSERT_EQ(1u, LoadSessionUser(system, record, 2, log, 1));
  EXPECT_EQ(2u, record.SessionId());
  EXPECT_EQ(&log, record.Log());
  EXPECT_EQ("mlind", record.UserName());
  EXPECT_EQ("FABRIKAM.EXAMPLE.TEST", record.Domain());
  EXPECT_EQ("", record.TenantId());
  EXPECT_EQ(0u, record.Status());
  EXPECT_TRUE(support.HasLine("iResult:1"));
  EXPECT_TRUE(support.HasLine(
      "GetTSSessionUserName() result, strUsername:mlind, strDomain:FABRIKAM.EXAMPLE.TEST"));
  EXPECT_TRUE(support.HasLine(
      "GetAZureSessionUserInfo(), Calling of ParseConsoleOutput is failed, error:-1"));
  // The tool ran as the session's user.
  EXPECT_NE(0, console.lastToken.value());
  ASSERT_EQ(1u, console.commandLines.size());
  EXPECT_EQ("dsregcmd.exe /status", console.commandLines[0]);
}

TEST_F(UserLookupTest, AzureAccountSeenAsDomainAccountIsDiscarded) {
  DomainUser(u"AZUREad");
  AzureAnswers(kNotJoinedOutput);
  EXPECT_EQ(0u, LoadSessionUser(system, record, 2, log, 0));
  EXPECT_TRUE(support.HasLine("Discard this logon info, strUsername:mlind, strDomain:AZUREad"));
  EXPECT_TRUE(support.HasLine("Failed to get username for session ID:2"));
  EXPECT_EQ("", record.UserName());
}

TEST_F(UserLookupTest, LocalAccountWithAzureTakesAzure) {
  DomainUser(u"WORKSTATION7");
  AzureAnswers(kJoinedOutput);
  ASSERT_EQ(1u, LoadSessionUser(system, record, 2, log, 0));
  EXPECT_TRUE(support.HasLine("iResult:2"));
  EXPECT_TRUE(support.HasLine("Got only Azure user logon info"));
  EXPECT_EQ("mara.lind", record.UserName());
  EXPECT_EQ("fabrikam.example", record.Domain());
  EXPECT_EQ("4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44", record.TenantId());
}

TEST_F(UserLookupTest, BothAnswersFollowThePreferAzureSwitch) {
  DomainUser(u"FABRIKAM");
  AzureAnswers(kJoinedOutput);
  ASSERT_EQ(1u, LoadSessionUser(system, record, 2, log, 1));
  EXPECT_TRUE(support.HasLine("Got both AD and Azure user logon info, prefer user Azure"));
  EXPECT_EQ("mara.lind", record.UserName());
  EXPECT_EQ("4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44", record.TenantId());

  for (uint32_t prefer : {0u, 2u}) {
    ASSERT_EQ(1u, LoadSessionUser(system, record, 2, log, prefer));
    EXPECT_EQ("mlind", record.UserName());
    EXPECT_EQ("FABRIKAM", record.Domain());
    EXPECT_EQ("", record.TenantId());  // cleared from the earlier answer
  }
  EXPECT_EQ(1u, support.CountLines("Got both AD and Azure user logon info, prefer user Azure"));
}

TEST_F(UserLookupTest, NobodyLoggedOnRunsNoTool) {
  AzureAnswers(kJoinedOutput);
  EXPECT_EQ(0u, LoadSessionUser(system, record, 6, log, 0));
  EXPECT_TRUE(support.HasLine("iResult:3"));
  EXPECT_EQ(2u, support.CountLines("Failed to call WTSQueryUserToken for session ID:6,error:1245"));
  EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), GetTokenOfSession() failed, err=1245"));
  EXPECT_TRUE(console.commandLines.empty());  // never run without the user's token
  EXPECT_EQ("", record.UserName());
}

TEST_F(UserLookupTest, MissingQueryFunctionFailsBothSides) {
  DomainUser(u"FABRIKAM");
  accounts.hasQueryUserToken = false;
  EXPECT_EQ(0u, LoadSessionUser(system, record, 2, log, 0));
  EXPECT_TRUE(support.HasLine("Failed to get token for session ID:2,error:0"));
  EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), GetTokenOfSession() failed, err=0"));
  EXPECT_TRUE(console.commandLines.empty());
  EXPECT_FALSE(support.HasLine("iResult:0"));
}

TEST_F(UserLookupTest, EmptyUserNameIsNoAnswerAndNoMessage) {
  DomainUser(u"FABRIKAM");
  FakeAccounts::User nameless;
  nameless.sid = DomainSid(1107);
  nameless.domain = u"FABRIKAM";
  accounts.SetUser(2, nameless);
  AzureAnswers(kNotJoinedOutput);
  EXPECT_EQ(0u, LoadSessionUser(system, record, 2, log, 0));
  EXPECT_FALSE(support.HasLine("Failed to get username for session ID:2"));
}

TEST_F(UserLookupTest, TextsLeaveAsUtf8) {
  FakeAccounts::User user;
  user.sid = DomainSid(1200);
  user.name = u"J\u00f6rg \u6797";
  user.domain = u"M\u00dcNCHEN";
  accounts.SetUser(2, user);
  AzureAnswers(kNotJoinedOutput);
  ASSERT_EQ(1u, LoadSessionUser(system, record, 2, log, 0));
  EXPECT_EQ("J\xc3\xb6rg \xe6\x9e\x97", record.UserName());
  EXPECT_EQ("M\xc3\x9cNCHEN", record.Domain());
}

}  // namespace
}  // namespace lindqvar::testing
