#include "agent/args.h"

#include <gtest/gtest.h>

namespace lindqvar {
namespace {

// Only leading spaces are skipped; then a dash and a lower-case s.
TEST(ControlSwitch, OnlyDashAndTheLetterAfterItCount) {
  const std::pair<const char*, bool> rows[] = {
      {"-s", true},   {"-stop", true}, {"  -service", true}, {" -s", true}, {"-S", false},
      {"/s", false},  {"\t-s", false}, {"s", false},          {"", false},   {"   ", false},
      {"-", false}};
  for (const auto& [text, isSwitch] : rows) EXPECT_EQ(IsControlSwitch(text), isSwitch) << text;
}

TEST(ScanArguments, TheNameAfterTheFirstSwitchIsTrimmedAndKeyedElseNothing) {
  const char* none[] = {"agent"};
  EXPECT_FALSE(ScanArguments(1, none));
  const char* other[] = {"agent", "-S", "Global\\Ctl_1", "/s"};
  EXPECT_FALSE(ScanArguments(4, other));
  const char* last[] = {"agent", "x", "-s"};
  EXPECT_FALSE(ScanArguments(3, last));

  const char* argv[] = {"agent", "-v", " -s", " \tGlobal\\Agent_Ctl_7\t ", "-s", "other"};
  auto args = ScanArguments(6, argv);
  ASSERT_TRUE(args);
  EXPECT_EQ(args->eventName, "Global\\Agent_Ctl_7");
  EXPECT_EQ(args->controlKey, "7");
}

TEST(ControlKey, IsTheTextBehindTheLastUnderscore) {
  EXPECT_EQ(ControlKeyOf("Global\\Agent_Ctl_7"), "7");
  EXPECT_EQ(ControlKeyOf("Agentctl"), "Agentctl");
  EXPECT_EQ(ControlKeyOf("Agent_"), "");
  EXPECT_EQ(ControlKeyOf("_x"), "x");
  EXPECT_EQ(TrimBlanks(" \t a b \t"), "a b");
  EXPECT_EQ(TrimBlanks(" \t "), "");
}

}  // namespace
}  // namespace lindqvar
