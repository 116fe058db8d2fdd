#include "agent/state.h"

#include <gtest/gtest.h>

#include "platform/log.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar {
namespace {

using testing::FakeRegistry;
using testing::FakeSupport;

TEST(AgentState, Names) {
  EXPECT_STREQ(StateName(0), "NOT_CONFIGURED");
  EXPECT_STREQ(StateName(1), "CONFIGURED_UNREACHABLE");
  EXPECT_STREQ(StateName(2), "CONFIGURED_REACHABLE");
  EXPECT_STREQ(StateName(3), "Unknown");
  EXPECT_STREQ(StateName(0xFFFFFFFF), "Unknown");
}

class StateWrite : public ::testing::Test {
 protected:
  void SetUp() override { log.SetHandle(support.log_initialize(u"FA_LINDQ")); }
  FakeSupport support;
  FakeRegistry registry;
  CLog log{support};
};

TEST_F(StateWrite, WritesTheDwordThroughAnOpenedKeyEveryTime) {
  registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
  WriteState(registry, log, kConfiguredReachable);
  WriteState(registry, log, kConfiguredReachable);
  uint32_t value = 0;
  ASSERT_TRUE(registry.GetDword(RegistryHive::kLocalMachine, kAgentKeyPath, u"LINDQState", value));
  EXPECT_EQ(value, 2u);
  EXPECT_EQ(registry.DwordWrites(), 2u);  // also when the value did not change
  EXPECT_EQ(support.CountLines(
                "Successfully updated LINDQState in registry. New state: CONFIGURED_REACHABLE"),
            2u);
  // KEY_WRITE | KEY_WOW64_64KEY
  EXPECT_EQ(registry.AccessMasks().back(), 0x20106u);
}

TEST_F(StateWrite, MissingKeyIsLoggedAndNeverCreated) {
  WriteState(registry, log, kConfiguredUnreachable);
  uint32_t value = 0;
  EXPECT_FALSE(registry.GetDword(RegistryHive::kLocalMachine, kAgentKeyPath, u"LINDQState", value));
  ASSERT_EQ(support.Lines().size(), 1u);
  EXPECT_TRUE(support.Lines()[0].error);
  EXPECT_EQ(support.Lines()[0].text,
            "Failed to open registry key for LINDQState update. Error: 2");
}

TEST_F(StateWrite, FailedSetIsLoggedWithItsError) {
  registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
  registry.FailSetValue(5);
  WriteState(registry, log, kNotConfigured);
  EXPECT_TRUE(support.HasLine("Failed to set LINDQState in registry. Error: 5"));
}

}  // namespace
}  // namespace lindqvar
