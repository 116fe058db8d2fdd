// The ExcludedUsers patterns: forms, wildcards, case, malformed entries and
// the limits.
#include "session/user_exclusions.h"

#include <gtest/gtest.h>

#include "platform/os.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar {
namespace {

// A REG_MULTI_SZ's stored bytes from UTF-8 entries.
std::vector<uint8_t> MultiSz(const std::vector<std::string>& entries) {
  std::u16string text;
  for (const std::string& entry : entries) text += Utf8ToWide(entry) + u'\0';
  return testing::TextBytes(text);
}

struct MatchRow {
  std::vector<std::string> patterns;
  std::string user, domain;
  std::string matched;  // the pattern's text, "" when none matches
};

TEST(UserExclusions, MatchesUserAndDomainPatterns) {
  const MatchRow rows[] = {
      {{"svc_backup"}, "svc_backup", "CORP", "svc_backup"},
      {{"svc_backup"}, "svc_backup2", "CORP", ""},
      {{"SVC_*"}, "svc_sql", "ANY", "SVC_*"},
      {{"corp\\admin?"}, "Admin1", "corp", "corp\\admin?"},
      {{"corp\\admin?"}, "admin12", "CORP", ""},
      {{"CORP\\*"}, "alice", "OTHER", ""},
      {{"C*P\\alice"}, "alice", "CORP", "C*P\\alice"},
      {{"*\\helpdesk"}, "helpdesk", "EMEA", "*\\helpdesk"},
      {{"  svc_x  ", "", " "}, "SVC_X", "CORP", "svc_x"},
      {{"corp \\ bob"}, "bob", "CORP", "corp \\ bob"},
      {{"\xc3\xa9ric"}, "\xc3\x89RIC", "CORP", "\xc3\xa9ric"},  // é / É
      {{"bob", "alice"}, "alice", "CORP", "alice"},
      {{"bob; corp\\alice ;"}, "alice", "CORP", "corp\\alice"},
      {{"*a*a*a*a*a*b"}, std::string(200, 'a'), "CORP", ""},
      {{"?*"}, "", "CORP", ""},
      {{}, "alice", "CORP", ""},
  };
  for (const MatchRow& row : rows) {
    std::vector<std::string> problems;
    const CUserExclusions list = CUserExclusions::Parse(MultiSz(row.patterns), problems);
    const CUserExclusions::Pattern* p = list.Match(row.user, row.domain);
    EXPECT_EQ(std::make_tuple(p ? WideToUtf8(p->text) : "", problems.size()), std::make_tuple(row.matched, 0u))
        << row.user << " @ " << row.domain;
  }
}

TEST(UserExclusions, SkipsMalformedEntriesAndKeepsTheRest) {
  std::vector<std::string> entries = {"a\\b\\c", "corp\\", "\\bob", std::string(257, 'x'),
                                      std::string(256, 'y'), "carol"};
  std::vector<std::string> problems;
  CUserExclusions list = CUserExclusions::Parse(MultiSz(entries), problems);
  ASSERT_EQ(problems.size(), 4u);
  EXPECT_NE(problems[0].find("a\\b\\c"), std::string::npos);
  EXPECT_TRUE(list.Match("carol", "X") && list.Match(std::string(256, 'Y'), "X"));
  EXPECT_EQ(list.Patterns().size(), 2u);

  // At most 100 patterns; one problem says where the rest were cut.
  entries.clear();
  for (int i = 0; i < 102; ++i) entries.push_back("user" + std::to_string(i));
  problems.clear();
  list = CUserExclusions::Parse(MultiSz(entries), problems);
  EXPECT_EQ(list.Patterns().size(), CUserExclusions::kMaxPatterns);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("user100"), std::string::npos);
  EXPECT_TRUE(!list.Match("user100", "X") && list.Match("user99", "X"));

  // A value without a final terminator still yields its last entry.
  std::vector<uint8_t> unterminated = {'d', 0, 'a', 0, 'n', 0};
  list = CUserExclusions::Parse(unterminated, problems);
  EXPECT_NE(list.Match("DAN", "X"), nullptr);
}

}  // namespace
}  // namespace lindqvar
