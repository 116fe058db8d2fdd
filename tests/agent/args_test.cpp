#include "agent/args.h"

#include <gtest/gtest.h>

namespace lindqvar {
namespace {

TEST(ControlSwitch, OnlyDashAndTheLetterAfterItCount) {
  EXPECT_TRUE(IsControlSwitch("-s"));
  EXPECT_TRUE(IsControlSwitch("-stop"));
  EXPECT_TRUE(IsControlSwitch("  -service"));
  EXPECT_TRUE(IsControlSwitch(" -s"));
  EXPECT_FALSE(IsControlSwitch("-S"));
  EXPECT_FALSE(IsControlSwitch("/s"));
  EXPECT_FALSE(IsControlSwitch("\t-s"));  // only spaces are skipped
  EXPECT_FALSE(IsControlSwitch("s"));
  EXPECT_FALSE(IsControlSwitch(""));
  EXPECT_FALSE(IsControlSwitch("   "));
  EXPECT_FALSE(IsControlSwitch("-"));
}

TEST(ScanArguments, MissingSwitchOrNameGivesNothing) {
  const char* none[] = {"agent"};
  EXPECT_FALSE(ScanArguments(1, none));
  const char* other[] = {"agent", "-S", "Global\\Ctl_1", "/s"};
  EXPECT_FALSE(ScanArguments(4, other));
  const char* last[] = {"agent", "x", "-s"};
  EXPECT_FALSE(ScanArguments(3, last));
}

TEST(ScanArguments, NameAfterTheFirstSwitchIsTrimmedAndKeyed) {
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
