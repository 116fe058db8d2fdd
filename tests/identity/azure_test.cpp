// The Azure AD lookup: the console-output parser, the pipe reader's rules
// and the lookup's results and messages.
#include <gtest/gtest.h>

#include "identity/azure.h"
#include "tests/identity/identity_fakes.h"

namespace lindqvar::testing {
namespace {

struct Parsed {
  int32_t result;
  std::u16string user, domain, tenant;
};
Parsed Parse(const std::string& output) {
  Parsed p;
  p.result = ParseConsoleOutput(output, p.user, p.domain, p.tenant);
  return p;
}

TEST(ParseConsoleOutputTest, ReadsTheThreeValues) {
  const Parsed p = Parse(
      "| Device State |\r\n"
      "             AzureAdJoined : YES\r\n"
      "          EnterpriseJoined : NO\r\n"
      "                  TenantId : 0c2f7d9b-1e44-4f1c-2b7e-9d3a4e558a61\r\n"
      "    Executing Account Name : AzureAD\\AnnaBerg, anna.berg@contoso.example\r\n");
  EXPECT_EQ(0, p.result);
  EXPECT_EQ(u"anna.berg", p.user);
  EXPECT_EQ(u"contoso.example", p.domain);
  EXPECT_EQ(u"0c2f7d9b-1e44-4f1c-2b7e-9d3a4e558a61", p.tenant);
}

TEST(ParseConsoleOutputTest, LastCommaAndLastAtSignSplitTheAccount) {
  const Parsed p = Parse(
      "  TenantId : t1\n"
      "  Executing Account Name : CORP\\a,b, first,last@odd@corp.example\n");
  EXPECT_EQ(0, p.result);
  EXPECT_EQ(u"last@odd", p.user);
  EXPECT_EQ(u"corp.example", p.domain);

  // No comma or no at sign: the account line gives nothing.
  EXPECT_EQ(-1, Parse("  TenantId : t1\n  Executing Account Name : anna@contoso.example\n").result);
  EXPECT_EQ(-1, Parse("  TenantId : t1\n  Executing Account Name : CORP\\anna, anna\n").result);
}

TEST(ParseConsoleOutputTest, MissingLinesFail) {
  // A device that is not joined prints neither line.
  EXPECT_EQ(-1, Parse("             AzureAdJoined : NO\r\n").result);
  EXPECT_EQ(-1, Parse("  Executing Account Name : X\\y, y@d.example\r\n").result);
  EXPECT_EQ(-1, Parse("  TenantId : t1\r\n").result);
  EXPECT_EQ(-1, Parse("").result);
  // The joined flag does not count: the other two lines are enough.
  EXPECT_EQ(0, Parse("  AzureAdJoined : NO\n  TenantId : t\n  Executing Account Name : d\\u, u@d\n")
                   .result);
  EXPECT_EQ(0, Parse("  TenantId : t\n  Executing Account Name : d\\u, u@d").result);
}

TEST(ParseConsoleOutputTest, LineRules) {
  // Keys ignore case; a later line wins; the value runs to the end of the line.
  Parsed p = Parse(
      "  TENANTID : first\n"
      "  tenantid : second value \n"
      "  executing account name : d\\u, u@d\n");
  EXPECT_EQ(0, p.result);
  EXPECT_EQ(u"second value ", p.tenant);

  // Without " : ", or without the leading blanks, a line is ignored.
  p = Parse(
      "   TenantId\n"
      "TenantId : unindented\n"
      "  TenantId :missing-blank\n"
      "  Executing Account Name : d\\u, u@d\n");
  EXPECT_EQ(-1, p.result);
  EXPECT_EQ(u"", p.tenant);
  // Only one CR comes off a line's end, and "." does not match the second.
  p = Parse("  TenantId : t\r\r\n  Executing Account Name : d\\u, u@d\r\n");
  EXPECT_EQ(-1, p.result);
  EXPECT_EQ(u"", p.tenant);
}

TEST(ParseConsoleOutputTest, LinesOfAnyLengthAreMatchedAndANulEndsTheOutput) {
  const std::string longUser(900, 'u');
  Parsed p = Parse("  TenantId : t\n  Executing Account Name : d\\x, " + longUser + "@d\n");
  EXPECT_EQ(0, p.result);
  EXPECT_EQ(900u, p.user.size());
  p = Parse("  TenantId : " + std::string(200000, 'x') + "\n  Executing Account Name : d\\u, u@d\n");
  EXPECT_EQ(0, p.result);
  EXPECT_EQ(200000u, p.tenant.size());
  // Long runs of blanks: the value is what follows the last of them.
  p = Parse(std::string(3000, ' ') + "TenantId :" + std::string(3000, ' ') + "t\n");
  EXPECT_EQ(u"t", p.tenant);
  // Nothing after an embedded NUL is read.
  p = Parse(std::string("  TenantId : first\n\0  TenantId : second\n", 40));
  EXPECT_EQ(u"first", p.tenant);
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
  EXPECT_EQ("abc", output);
  EXPECT_EQ(2, *runner.reads);
  EXPECT_EQ(3, *runner.peeks);
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
  AzureLookupTest() {
    FakeAccounts::User user;
    user.sid = DomainSid(1300);
    user.linkedTokenId = 9;
    accounts.SetUser(1, user);
  }
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
  EXPECT_EQ(9, runner.lastToken.value());
  EXPECT_EQ(1, accounts.tokensClosed.load());     // the linked token, closed at the end
  EXPECT_EQ(1, accounts.tokensAbandoned.load());  // the token it replaced stays open
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
  EXPECT_EQ(3u, runner.commandLines.size());
  EXPECT_EQ(3, accounts.tokensClosed.load());
}

}  // namespace
}  // namespace lindqvar::testing
