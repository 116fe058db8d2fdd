// The user lookup: SID text, registry string values, the session token and
// account, the Azure AD lookup (the console-output parser, the pipe reader's
// rules, its results and messages), and the choice between the AD and the
// Azure AD answers.
#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "identity/azure.h"
#include "identity/terminal_session.h"
#include "tests/identity/identity_fakes.h"

namespace lindqvar::testing {
namespace {

class UserLookupTest : public ::testing::Test, protected FakeUserLookup {
 protected:

  // An account in session 2, with USERDNSDOMAIN in its volatile
  // environment when `dnsDomain` is set.
  void DomainUser(const std::u16string& domain, const std::u16string& dnsDomain = u"",
                  uint32_t rid = 1107, std::optional<std::u16string> sessionDnsDomain = {}) {
    const FakeAccounts::User user{DomainSid(rid), userName, domain, false, false, 0, sessionDnsDomain};
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

  std::u16string userName = u"mlind";
  CTerminalSession record;
};

// The authority's last four bytes are one big-endian number unless one of the
// first two is set (then all six in hexadecimal); nine sub-authorities do not
// fit the usual 260 units, and the size asked for is enough; invalid SIDs are
// refused.
TEST(SidToTextTest, Rows) {
  const SidBytes nine = MakeSid({0, 0, 0, 0, 0, 5}, {1, 2, 3, 4, 5, 6, 7, 8, 9});
  SidBytes revision2 = DomainSid(500), cut = DomainSid(500);
  revision2[0] = 2;
  cut.pop_back();  // last sub-authority cut short
  const struct {
    SidBytes sid;
    uint32_t length;  // given; then expected after the call
    uint32_t result;
    const char16_t* text;  // u"unchanged" when refused
    uint32_t lengthAfter;
  } rows[] = {
      {MakeSid({0, 0, 0, 0, 0, 5}, {18}), 260, 1, u"S-1-5-18", 260},
      {DomainSid(1000), 260, 1, u"S-1-5-21-1004336348-1177238915-682003330-1000", 260},
      {MakeSid({0, 0, 0x12, 0x34, 0x56, 0x78}, {}), 260, 1, u"S-1-305419896", 260},
      {MakeSid({0, 1, 0, 0, 0, 0xab}, {4294967295u}), 260, 1, u"S-1-0x0001000000ab-4294967295", 260},
      {MakeSid({0xfe, 0, 0, 0, 0, 0}, {}), 260, 1, u"S-1-0xfe0000000000", 260},
      {MakeSid({0, 0, 0, 0, 0, 5}, {1, 2, 3, 4, 5, 6, 7, 8}), 260, 1, u"S-1-5-1-2-3-4-5-6-7-8", 260},
      {nine, 260, 0, u"unchanged", (9u * 12 + 28) * 2},  // 272
      {nine, 272, 1, u"S-1-5-1-2-3-4-5-6-7-8-9", 272},
      {revision2, 260, 0, u"unchanged", 260},
      {cut, 260, 0, u"unchanged", 260},
      {SidBytes{1, 0, 0, 0, 0}, 260, 0, u"unchanged", 260},
  };
  for (const auto& row : rows) {
    std::u16string text = u"unchanged";
    uint32_t length = row.length;
    SetLastErrorCode(0);
    SCOPED_TRACE(WideToUtf8(row.text));
    const uint32_t result = SidToText(row.sid, text, length);
    EXPECT_EQ(std::make_tuple(row.result, row.text, row.lengthAfter), std::make_tuple(result, text, length));
    if (row.lengthAfter > row.length) {
      EXPECT_EQ(kErrorInsufficientBuffer, LastErrorCode());
    }
  }
  EXPECT_FALSE(IsValidSid(MakeSid({0, 0, 0, 0, 0, 5}, std::vector<uint32_t>(16, 1))));
  EXPECT_TRUE(IsValidSid(MakeSid({0, 0, 0, 0, 0, 5}, std::vector<uint32_t>(15, 1))));
}

// Values stored exactly as given, read through a key of the fake registry.
TEST(RegQueryStringValueTest, ReadsStringTypesOnly) {
  FakeRegistry registry;
  const auto put = [&](const char16_t* name, uint32_t type, std::vector<uint8_t> bytes) {
    registry.SetValue(RegistryHive::kLocalMachine, u"k", name, type, std::move(bytes));
  };
  put(u"plain", 1, TextBytes(u"CORP.EXAMPLE.TEST"));
  put(u"expand", 2, TextBytes(u"%SystemRoot%\\x"));
  put(u"bare", 1, {'a', 0, 'b', 0, 'c', 0});  // no terminator
  put(u"empty", 1, {});
  put(u"dword", 4, {1, 0, 0, 0});
  put(u"multi", 7, TextBytes(u"a"));
  put(u"odd", 1, {'a', 0, 'b', 0, 'c'});  // 5 bytes
  put(u"nul", 1, TextBytes(std::u16string_view(u"ab\0cd", 5)));
  std::unique_ptr<IRegistryKey> key;
  ASSERT_EQ(0u, registry.OpenKey(RegistryHive::kLocalMachine, u"k", reg_access::kRead, key));

  // Length: characters, terminator included; an odd size's last byte is a
  // unit of its own (size/2); a NUL ends the text but every unit counts.
  const struct {
    const char16_t* name;
    uint32_t result;
    const char16_t* value;
    uint32_t length;
  } rows[] = {
      {u"plain", 1, u"CORP.EXAMPLE.TEST", 18}, {u"expand", 1, u"%SystemRoot%\\x", 15},  // not expanded
      {u"bare", 1, u"abc", 3},   {u"odd", 1, u"abc", 2},   {u"nul", 1, u"ab", 6},
      {u"empty", 0, u"", 0},     {u"dword", 0, u"", 0},    {u"multi", 0, u"", 0},
      {u"missing", 0, u"", 0},
  };
  for (const auto& row : rows) {
    std::u16string value;
    uint32_t length = 99;
    const uint32_t result = RegQueryStringValue(*key, row.name, value, &length);
    EXPECT_EQ(std::make_tuple(row.result, row.value, row.length), std::make_tuple(result, value, length))
        << WideToUtf8(row.name);
  }
  std::u16string value;
  EXPECT_EQ(1u, RegQueryStringValue(*key, u"plain", value, nullptr));  // no length asked for
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
      {std::nullopt, u"Other.Test", u"Other.Test", false},        // no session data; as the hive holds it
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
  // A SID too long for the text buffer is never looked up.
  const SidBytes longSid = MakeSid({0, 0, 0, 0, 0, 5}, {21, 1, 2, 3, 4, 5, 6, 7, 8});
  registry.AddKey(RegistryHive::kUsers, u"S-1-5-21-1-2-3-4-5-6-7-8");
  registry.SetString(RegistryHive::kUsers, u"S-1-5-21-1-2-3-4-5-6-7-8\\Volatile Environment",
                     u"USERDNSDOMAIN", u"LONG.TEST");
  std::u16string domain;
  EXPECT_EQ(0u, GetUserDnsDomain(registry, longSid, domain));
}

TEST_F(UserLookupTest, TokenLookupResults) {
  std::unique_ptr<IUserToken> token;
  EXPECT_EQ(-1, QuerySessionUserToken(accounts, log, 2, nullptr, false));
  // (Nobody logged on, error 1245: LoadSessionUserTest's NobodyLoggedOn row.)
  accounts.queryError = 5;
  EXPECT_EQ(-1, QuerySessionUserToken(accounts, log, 4, &token, false));
  EXPECT_TRUE(support.HasLine("Failed to call WTSQueryUserToken for session ID:4,error:5"));
  EXPECT_EQ(nullptr, token);

  accounts.SetUser(2, {DomainSid(1107), u"", u"", false, false, 77});
  ASSERT_EQ(0, QuerySessionUserToken(accounts, log, 2, &token, false));
  EXPECT_NE(77, static_cast<FakeToken&>(*token).id());
  // The linked token replaces the first one, which is left open.
  ASSERT_EQ(0, QuerySessionUserToken(accounts, log, 2, &token, true));
  // The one of the earlier call is closed on reassignment.
  EXPECT_EQ(std::make_tuple(77, 1, 1), std::make_tuple(static_cast<FakeToken&>(*token).id(),
                                                       accounts.tokensAbandoned.load(), accounts.tokensClosed.load()));

  // Without the function nothing is asked and nothing is said.
  const size_t lines = support.Lines().size();
  accounts.hasQueryUserToken = false;
  EXPECT_EQ(-1, QuerySessionUserToken(accounts, log, 2, &token, false));
  EXPECT_EQ(std::make_tuple(nullptr, lines), std::make_tuple(token.get(), support.Lines().size()));
}

TEST_F(UserLookupTest, AccountDomainAndKindOfAccount) {
  std::u16string user, domain;
  DomainUser(u"FABRIKAM", u"FABRIKAM.EXAMPLE.TEST");
  EXPECT_EQ(kTsDomainAccount, GetTSSessionUserName(system, log, 2, user, domain, 1));
  EXPECT_EQ(std::make_tuple(u"mlind", u"FABRIKAM.EXAMPLE.TEST"), std::tie(user, domain));
  EXPECT_EQ(kTsDomainAccount, GetTSSessionUserName(system, log, 2, user, domain, 0));
  EXPECT_EQ(u"FABRIKAM", domain);  // the SID lookup's domain when DNS is not asked for

  DomainUser(u"workstation7", u"", 1001);  // this computer, in another case
  EXPECT_EQ(kTsLocalAccount, GetTSSessionUserName(system, log, 2, user, domain, 1));
  EXPECT_EQ(kTsNoUser, GetTSSessionUserName(system, log, 3, user, domain, 1));

  // Every token this lookup took is still open.
  EXPECT_EQ(std::make_tuple(0, 3), std::make_tuple(accounts.tokensClosed.load(), accounts.tokensAbandoned.load()));
}

// (Without the query function: LoadSessionUserTest's MissingQueryFunction row.)
TEST_F(UserLookupTest, AccountFailures) {
  std::u16string user, domain;
  accounts.SetUser(5, {DomainSid(1), u"", u"", false, /*tokenInformationFails=*/true});
  EXPECT_EQ(0, GetSessionAccount(system, log, 5, user, domain, 1));
  EXPECT_TRUE(support.HasLine("Failed to get token information for session ID:5,error:6"));

  accounts.SetUser(5, {DomainSid(1), u"", u"", /*lookupFails=*/true});
  const size_t lines = support.Lines().size();
  EXPECT_EQ(0, GetSessionAccount(system, log, 5, user, domain, 1));
  EXPECT_EQ(std::make_tuple(lines, 0), std::make_tuple(support.Lines().size(), accounts.tokensClosed.load()));
}

// --- the Azure AD lookup ---------------------------------------------------------

// The device-registration tool's output: the tenant and account lines are
// needed, keys ignore case and need their leading blanks and " : ", a later
// line wins, the account splits at its last comma and last at sign, only one
// CR comes off a line, lines have any length and a NUL ends the output.
TEST(ParseConsoleOutputTest, Rows) {
  const std::string acct = "  Executing Account Name : d\\u, u@d\n";
  const struct {
    std::string output;
    int32_t result;
    std::u16string user, domain, tenant;  // checked when the result is 0; tenant always
  } rows[] = {
      {"| Device State |\r\n"
       "             AzureAdJoined : YES\r\n"
       "          EnterpriseJoined : NO\r\n"
       "                  TenantId : 0c2f7d9b-1e44-4f1c-2b7e-9d3a4e558a61\r\n"
       "    Executing Account Name : AzureAD\\AnnaBerg, anna.berg@contoso.example\r\n",
       0, u"anna.berg", u"contoso.example", u"0c2f7d9b-1e44-4f1c-2b7e-9d3a4e558a61"},
      {"  TenantId : t1\n  Executing Account Name : CORP\\a,b, first,last@odd@corp.example\n", 0,
       u"last@odd", u"corp.example", u"t1"},
      {"  TenantId : t1\n  Executing Account Name : anna@contoso.example\n", -1, u"", u"", u"t1"},
      {"  TenantId : t1\n  Executing Account Name : CORP\\anna, anna\n", -1, u"", u"", u"t1"},
      {"             AzureAdJoined : NO\r\n", -1, u"", u"", u""},
      {"  Executing Account Name : X\\y, y@d.example\r\n", -1, u"", u"", u""},
      {"  TenantId : t1\r\n", -1, u"", u"", u"t1"},
      {"", -1, u"", u"", u""},
      {"  AzureAdJoined : NO\n  TenantId : t\n" + acct, 0, u"u", u"d", u"t"},
      {"  TenantId : t\n  Executing Account Name : d\\u, u@d", 0, u"u", u"d", u"t"},
      {"  TENANTID : first\n  tenantid : second value \n  executing account name : d\\u, u@d\n",
       0, u"u", u"d", u"second value "},
      {"   TenantId\nTenantId : unindented\n  TenantId :missing-blank\n" + acct, -1, u"", u"", u""},
      {"  TenantId : t\r\r\n  Executing Account Name : d\\u, u@d\r\n", -1, u"", u"", u""},
      {"  TenantId : t\n  Executing Account Name : d\\x, " + std::string(900, 'u') + "@d\n", 0,
       std::u16string(900, u'u'), u"d", u"t"},
      {"  TenantId : " + std::string(200000, 'x') + "\n" + acct, 0, u"u", u"d",
       std::u16string(200000, u'x')},
      {std::string(3000, ' ') + "TenantId :" + std::string(3000, ' ') + "t\n", -1, u"", u"", u"t"},
      {std::string("  TenantId : first\n\0  TenantId : second\n", 40), -1, u"", u"", u"first"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.output.substr(0, 80));
    std::u16string user, domain, tenant;
    EXPECT_EQ(row.result, ParseConsoleOutput(row.output, user, domain, tenant));
    EXPECT_EQ(row.tenant, tenant);
    if (row.result == 0) {
      EXPECT_EQ(std::tie(row.user, row.domain), std::tie(user, domain));
    }
  }
}

class RunExternalProgramTest : public ::testing::Test {
 protected:
  RunExternalProgramTest() {
    timings.consoleIdlePolls = 50;
    timings.consoleIdlePollMs = 0;
  }
  int32_t Run() { return RunExternalProgram(runner, timings, token, "prog.exe", "/x", output); }
  std::atomic<int> closed{0};
  FakeToken token{closed, 4};
  FakeConsoleRunner runner;
  Timings timings;
  std::string output;
};

TEST_F(RunExternalProgramTest, ReadsInPiecesUntilFiftyEmptyPolls) {
  std::string big;
  for (int i = 0; i < 3000; ++i) big.push_back(static_cast<char>('a' + i % 26));
  runner.script = {PipeStep{big}, PipeStep{"", 30}, PipeStep{"tail"}};
  ASSERT_EQ(0, Run());
  EXPECT_EQ(big + "tail", output);
  EXPECT_EQ("prog.exe /x", runner.commandLines.at(0));
  EXPECT_EQ(4, *runner.reads);  // 1024 + 1024 + 952, then "tail"
  // 3 peeks with data, 30 empty, 1 with "tail", then 51 empty: the 51st ends.
  EXPECT_EQ(3 + 30 + 1 + 51, *runner.peeks);
}

TEST_F(RunExternalProgramTest, OutputBeyondTheLimitIsRefused) {
  // The user owns the program and can write its pipe: rows of (pieces
  // written, result, bytes kept).
  const uint32_t limit = kConsoleOutputLimit;
  struct Row {
    std::vector<PipeStep> script;
    int32_t result;
    size_t kept;
  };
  const Row rows[] = {
      {{PipeStep{std::string(limit, 'a')}}, 0, limit},
      {{PipeStep{std::string(limit + 1, 'a')}}, kRunOutputTooLong, 0},
      {{PipeStep{std::string(limit - 1, 'a')}, PipeStep{"", 1}, PipeStep{"bc"}}, kRunOutputTooLong, 0},
      // Refused at once: the rest of an endless writer is not read.
      {{PipeStep{std::string(limit, 'a')}, PipeStep{std::string(limit * 4, 'b')}}, kRunOutputTooLong, 0},
  };
  for (const Row& row : rows) {
    runner.script = row.script;
    *runner.reads = 0;
    output.clear();
    EXPECT_EQ(row.result, Run()) << row.script.size();
    EXPECT_EQ(row.kept, output.size());
    EXPECT_LE(*runner.reads, static_cast<int>(limit / 1024 + 1));
  }
}

TEST_F(RunExternalProgramTest, FailedReadsRetryAtOnceAndAFailedPeekEnds) {
  runner.script = {PipeStep{"abc", 0, false, true}, PipeStep{"", 0, true}, PipeStep{"never"}};
  ASSERT_EQ(0, Run());
  EXPECT_EQ(std::make_tuple("abc", 2, 3), std::make_tuple(output, *runner.reads, *runner.peeks));
}

TEST_F(RunExternalProgramTest, StartFailures) {
  runner.result = {ConsoleStartFailure::kPipe, 8};
  EXPECT_EQ(-1, Run());
  runner.result = {ConsoleStartFailure::kProcess, 2};
  EXPECT_EQ(-2, Run());
  runner.result = {ConsoleStartFailure::kInheritance, 5};
  EXPECT_EQ(static_cast<int32_t>(0x80070005u), Run());
  EXPECT_EQ(0, *runner.peeks);

  EXPECT_EQ(static_cast<int32_t>(0x80072af9u), HResultFromWin32(0x12af9));  // low 16 bits kept
  EXPECT_EQ(0, HResultFromWin32(0));
  EXPECT_EQ(static_cast<int32_t>(0x8007000Eu), HResultFromWin32(0x8007000Eu));  // negative unchanged
}

class AzureLookupTest : public ::testing::Test, protected FakeUserLookup {
 protected:
  AzureLookupTest() { accounts.SetUser(1, {DomainSid(1300), u"", u"", false, false, 9}); }
  int32_t Lookup(uint32_t session = 1) {
    return GetAZureSessionUserInfo(system, log, session, user, domain, tenant);
  }
  FakeConsoleRunner& runner = console;
  std::u16string user, domain, tenant;
};

TEST_F(AzureLookupTest, SuccessRunsTheToolWithTheLinkedTokenAndClosesIt) {
  runner.script = {PipeStep{"  TenantId : t-1\r\n  Executing Account Name : a\\b, c@d.example\r\n"}};
  ASSERT_EQ(kAzureOk, Lookup());
  EXPECT_EQ("dsregcmd.exe /status", runner.commandLines.at(0));
  // The linked token is used and closed at the end; the token it replaced stays open.
  EXPECT_EQ(std::make_tuple(9, 1, 1), std::make_tuple(runner.lastToken.value(), accounts.tokensClosed.load(),
                                                      accounts.tokensAbandoned.load()));
  EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), Calling of RunExternalProgram is successful"));
  EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), username:c, domain:d.example, tenantID:t-1"));
}

TEST_F(AzureLookupTest, FailureResults) {
  runner.script = {PipeStep{"  AzureAdJoined : NO\r\n"}};
  EXPECT_EQ(kAzureOutputUnusable, Lookup());
  EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), Calling of ParseConsoleOutput is failed, error:-1"));

  runner.result = {ConsoleStartFailure::kProcess, 2};
  EXPECT_EQ(kAzureProgramFailed, Lookup());
  EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), Calling of RunExternalProgram is failed, error:-2"));

  runner.result = {};
  runner.script = {PipeStep{std::string(kConsoleOutputLimit + 1, ' ')}};
  EXPECT_EQ(kAzureProgramFailed, Lookup());
  EXPECT_EQ(1u, support.CountLines(
                    "GetAZureSessionUserInfo(), the output of dsregcmd.exe exceeds 65536 bytes, lookup refused"));

  // No token, no tool: neither on a failure nor with nobody logged on.
  for (uint32_t error : {5u, kErrorNotLoggedOn}) {
    accounts.queryError = error;
    EXPECT_EQ(kAzureNoToken, Lookup(8));
    EXPECT_TRUE(support.HasLine("GetAZureSessionUserInfo(), GetTokenOfSession() failed, err=" +
                                std::to_string(error)));
  }
  EXPECT_EQ(std::make_tuple(3u, 3), std::make_tuple(runner.commandLines.size(), accounts.tokensClosed.load()));
}

// --- the choice -------------------------------------------------------------------

// The whole lookup for session 2 (6 has nobody): the AD and Azure AD
// answers, which one is taken, the texts logged and whether the tool ran.
struct LoadRow {
  const char* name;
  const char16_t* domain;  // the account's; nullptr: the session is empty
  const char16_t* dnsDomain;  // USERDNSDOMAIN
  const char16_t* user;
  bool queryFunction;
  const char* azure;       // the tool's output
  bool azureAnswerBefore;  // the record first took the Azure answer
  uint32_t prefer;
  uint32_t result;
  const char* userName;
  const char* domainName;
  const char* tenant;
  std::vector<const char*> lines;  // each logged exactly as often as listed
  bool toolRuns;
  // What the record keeps of the lookups: the answer taken, and what each said.
  UserSource source;
  int domainResult;
  int32_t azureResult;
};
const char kTenant[] = "4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44";
const char kBoth[] = "Got both AD and Azure user logon info, prefer user Azure";
const LoadRow kLoadRows[] = {
    {"DomainAccountWithoutAzure", u"FABRIKAM", u"FABRIKAM.EXAMPLE.TEST", u"mlind", true, kNotJoinedOutput, false, 1, 1,
     "mlind", "FABRIKAM.EXAMPLE.TEST", "",
     {"iResult:1", "GetTSSessionUserName() result, strUsername:mlind, strDomain:FABRIKAM.EXAMPLE.TEST",
      "GetAZureSessionUserInfo(), Calling of ParseConsoleOutput is failed, error:-1"},
     true, UserSource::kDomain, kTsDomainAccount, kAzureOutputUnusable},
    {"AzureAccountSeenAsDomainIsDiscarded", u"AZUREad", u"", u"mlind", true, kNotJoinedOutput, false,
     0, 0, "", "", "",
     {"Discard this logon info, strUsername:mlind, strDomain:AZUREad",
      "Failed to get username for session ID:2"},
     true, UserSource::kNone, kTsDomainAccount, kAzureOutputUnusable},
    {"LocalAccountWithAzureTakesAzure", u"WORKSTATION7", u"", u"mlind", true, kJoinedOutput, false, 0,
     1, "mara.lind", "fabrikam.example", kTenant, {"iResult:2", "Got only Azure user logon info"},
     true, UserSource::kAzureAD, kTsLocalAccount, kAzureOk},
    {"BothPreferAzure", u"FABRIKAM", u"", u"mlind", true, kJoinedOutput, false, 1, 1, "mara.lind",
     "fabrikam.example", kTenant, {kBoth}, true,
     UserSource::kAzureAD, kTsDomainAccount, kAzureOk},
    {"BothPreferZeroTakesAD", u"FABRIKAM", u"", u"mlind", true, kJoinedOutput, true, 0, 1, "mlind",
     "FABRIKAM", "", {kBoth}, true,
     UserSource::kDomain, kTsDomainAccount, kAzureOk},  // the tenant of the earlier answer is cleared
    {"BothPreferTwoTakesAD", u"FABRIKAM", u"", u"mlind", true, kJoinedOutput, true, 2, 1, "mlind",
     "FABRIKAM", "", {kBoth}, true,
     UserSource::kDomain, kTsDomainAccount, kAzureOk},
    {"NobodyLoggedOnRunsNoTool", nullptr, u"", u"", true, kJoinedOutput, false, 0, 0, "", "", "",
     {"iResult:3", "Failed to call WTSQueryUserToken for session ID:6,error:1245",
      "Failed to call WTSQueryUserToken for session ID:6,error:1245",
      "GetAZureSessionUserInfo(), GetTokenOfSession() failed, err=1245"},
     false, UserSource::kNone, kTsNoUser, kAzureNoToken},
    {"MissingQueryFunctionFailsBothSides", u"FABRIKAM", u"", u"mlind", false, kJoinedOutput, false, 0,
     0, "", "", "",
     {"Failed to get token for session ID:2,error:0",
      "GetAZureSessionUserInfo(), GetTokenOfSession() failed, err=0"},
     false, UserSource::kNone, kTsFailed, kAzureNoToken},
    {"EmptyUserNameIsNoAnswerAndNoMessage", u"FABRIKAM", u"", u"", true, kNotJoinedOutput, false, 0, 0,
     "", "", "", {}, true,
     UserSource::kNone, kTsDomainAccount, kAzureOutputUnusable},
    {"TextsLeaveAsUtf8", u"M\u00dcNCHEN", u"", u"J\u00f6rg \u6797", true, kNotJoinedOutput, false, 0, 1,
     "J\xc3\xb6rg \xe6\x9e\x97", "M\xc3\x9cNCHEN", "", {}, true,
     UserSource::kDomain, kTsDomainAccount, kAzureOutputUnusable},
};

void PrintTo(const LoadRow& row, std::ostream* os) { *os << row.name; }

class LoadSessionUserTest : public UserLookupTest, public ::testing::WithParamInterface<LoadRow> {};

TEST_P(LoadSessionUserTest, TakesTheAnswerItShould) {
  const LoadRow& row = GetParam();
  const uint32_t session = row.domain ? 2 : 6;
  if (row.domain) {
    userName = row.user;
    DomainUser(row.domain, row.dnsDomain);
  }
  accounts.hasQueryUserToken = row.queryFunction;
  if (row.azureAnswerBefore) {
    AzureAnswers(row.azure);
    ASSERT_EQ(1u, LoadSessionUser(system, record, session, log, 1));
    ASSERT_EQ(kTenant, record.TenantId());
  }
  AzureAnswers(row.azure);
  ASSERT_EQ(row.result, LoadSessionUser(system, record, session, log, row.prefer));
  EXPECT_EQ(std::make_tuple(row.userName, row.domainName, row.tenant, row.source, row.domainResult, row.azureResult),
            std::make_tuple(record.UserName(), record.Domain(), record.TenantId(), record.Lookup().source,
                            record.Lookup().domainResult, record.Lookup().azureResult));
  if (row.result == 1) {
    EXPECT_EQ(session, record.SessionId());
  }
  std::map<std::string, size_t> expected;
  for (const char* line : row.lines) ++expected[line];
  for (const auto& [line, count] : expected) EXPECT_EQ(count, support.CountLines(line)) << line;
  // Never asked for the name of an empty account.
  EXPECT_FALSE(row.result == 0 && *row.user == 0 &&
               support.HasLine("Failed to get username for session ID:2"));
  EXPECT_FALSE(row.result == 0 && support.HasLine("iResult:0"));
  if (!row.toolRuns) {
    EXPECT_TRUE(console.commandLines.empty());  // never run without the user's token
    return;
  }
  // The tool ran as the session's user.
  EXPECT_NE(0, console.lastToken.value());
  ASSERT_FALSE(console.commandLines.empty());
  EXPECT_EQ("dsregcmd.exe /status", console.commandLines.back());
}

INSTANTIATE_TEST_SUITE_P(Rows, LoadSessionUserTest, ::testing::ValuesIn(kLoadRows), RowName);

}  // namespace
}  // namespace lindqvar::testing
