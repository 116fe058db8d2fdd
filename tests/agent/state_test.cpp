#include "agent/state.h"

#include <gtest/gtest.h>

#include "platform/log.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar {
namespace {

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

}  // namespace
}  // namespace lindqvar
