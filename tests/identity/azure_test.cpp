// The Azure AD lookup: the console-output parser, the pipe reader's rules
// and the lookup's results and messages.
#include <gtest/gtest.h>

#include "identity/azure.h"
#include "tests/identity/identity_fakes.h"

namespace lindqvar::testing {
namespace {

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

}  // namespace
}  // namespace lindqvar::testing
