// The session table's slots and the pending list's retry rounds.
#include <gtest/gtest.h>

#include "tests/session/session_fixture.h"

namespace lindqvar::testing {
namespace {

using TableTest = SessionFixture;

TEST_F(TableTest, GrowsByTenAndReusesTheLowestFreeSlot) {
  EXPECT_FALSE(table.Allocated());
  for (uint32_t id = 1; id <= 11; ++id) {
    AddUser(id);
    ASSERT_EQ(table.AddSession(id), 1u) << id;
  }
  EXPECT_EQ(std::make_tuple(table.Slots(), table.SlotOf(11)), std::make_tuple(20u, 10));
  EXPECT_EQ(table.RemoveSession(4), 1u);
  EXPECT_EQ(table.RemoveSession(4), 0u);
  EXPECT_EQ(table.RemoveSession(2), 1u);
  AddUser(12);
  ASSERT_EQ(table.AddSession(12), 1u);
  // The slot of session 2, below that of session 4.
  EXPECT_EQ(std::make_tuple(table.SlotOf(12), table.FindSession(12)->UserName()), std::make_tuple(1, "user12"));
  EXPECT_TRUE(support.HasLine("session ID:12 has added to session table\n"));
}

TEST_F(TableTest, AddingAKnownSessionSkipsTheLookupAndFailuresAddNothing) {
  AddUser(3);
  ASSERT_EQ(table.AddSession(3), 1u);
  ASSERT_EQ(support.CountLines("iResult:1"), 1u);  // the first add looked the user up
  EXPECT_EQ(table.AddSession(3), 1u);
  EXPECT_EQ(support.CountLines("iResult:1"), 1u);
  EXPECT_TRUE(support.HasLine("session ID:3 has found in session table"));
  EXPECT_TRUE(support.HasLine("CSessionManager::AddSession has been called, dwSession:3"));
  EXPECT_EQ(table.AddSession(8), 0u);  // no user
  notReady.insert(9);
  AddUser(9);
  EXPECT_EQ(table.AddSession(9), 2u);
  EXPECT_EQ(std::make_tuple(table.FindSession(8), table.FindSession(9)), std::make_tuple(nullptr, nullptr));
}

TEST_F(TableTest, RetryRoundsSendReadySessionsDropFailuresAndGiveUpAfterThirty) {
  // 5 becomes ready, 6 has no user, 7 never gets ready, 8 is parked twice.
  AddUser(5);
  AddUser(7);
  AddUser(8);
  notReady = {5, 7, 8};
  for (uint32_t id : {5u, 6u, 7u, 8u, 8u}) table.AddPendingSession(id);
  table.RemovePendingSession(8);  // only the first record of 8 goes
  std::vector<uint32_t> sent;
  const auto send = [&](uint32_t s) { sent.push_back(s); };

  table.RetryPendingSessions(send);
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(table.PendingSessionCount(), 3u);  // 6 dropped

  notReady.erase(5);
  table.RetryPendingSessions(send);
  EXPECT_EQ(std::make_tuple(sent, table.PendingSessionCount()), std::make_tuple(std::vector<uint32_t>{5}, 2u));

  for (int round = 3; round < 30; ++round) table.RetryPendingSessions(send);
  EXPECT_EQ(table.PendingSessionCount(), 2u);
  EXPECT_FALSE(support.HasLine("Failed to get session information, session:7"));
  table.RetryPendingSessions(send);  // the 30th try
  EXPECT_EQ(table.PendingSessionCount(), 0u);
  EXPECT_TRUE(support.HasLine("Failed to get session information, session:7"));
  EXPECT_TRUE(support.HasLine("Failed to get session information, session:8"));
  EXPECT_EQ(sent, (std::vector<uint32_t>{5}));
}

}  // namespace
}  // namespace lindqvar::testing
