// The session table's slots and the pending list's retry rounds; what each
// notification does to (m_bLogon, m_dwCurrentSession) and sends,
// the reports of the event sender, and the event message of each report path
// with its log record.
#include <gtest/gtest.h>

#include "protocol/messages/event.h"
#include "session/event_report.h"
#include "tests/session/session_fixture.h"

namespace lindqvar::testing {
namespace {

// --- the session table -----------------------------------------------------------

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

// --- the state table ---------------------------------------------------------

enum class Known { kInTable, kResolvable, kNotReady, kNoUser };
using K = NotificationKind;

// The opt-in ResendLogoff around a row's notification.
struct ResendSteps {
  bool on = false;            // ResendLogoff is 1
  bool refused = false;       // the notification's delivery is refused
  uint32_t keptBefore = 0;    // users 1..n log on and off first, their logoffs refused
  uint32_t failedRounds = 0;  // re-send rounds refused after the notification
  bool noAddress = false;     // the machine has no address at the notification
  bool Active() const { return on || refused || keptBefore != 0; }
};

struct StateRow {
  const char* name;
  bool loggedOn;          // start from session 1 reported as logged on (1, 1)
  NotificationKind kind;
  uint32_t session;       // the notified session (console session is 2 unless noted)
  Known known;            // what the user lookup says of it
  std::vector<std::string> sent;  // deliveries, in order
  uint32_t nextL, nextC;
  std::vector<std::string> lines;   // must be logged
  std::vector<std::string> absent;  // must not be logged
  bool excluded = false;  // ExcludedUsers names the notified session's user
  ResendSteps resend = {};
};

const char kBeforeLogon[] = "Before processing WTS_SESSION_LOGON";
const char kBeforeUnlock[] = "Before processing WTS_SESSION_UNLOCK";
const char kBeforeConsole[] = "Before processing WTS_CONSOLE_CONNECT";

const StateRow kStateRows[] = {
    {"console connect, other session", true, K::kConsoleConnect, 3, Known::kResolvable, {}, 1, 1,
     {kBeforeConsole, "After processing WTS_CONSOLE_CONNECT, m_bLogon:1, m_dwCurrentSession:1"},
     {"Received message WTS_CONSOLE_CONNECT"}},
    {"console connect, in table", true, K::kConsoleConnect, 2, Known::kInTable, {"USER2:1"}, 1, 2,
     {"Received message WTS_CONSOLE_CONNECT, session id:2, TICC:"}, {}},
    {"console connect, added", false, K::kConsoleConnect, 2, Known::kResolvable, {"USER2:1"}, 1, 2,
     {}, {}},
    {"console connect, no user, logged on", true, K::kConsoleConnect, 2, Known::kNoUser,
     {"USER1:0"}, 0, 1, {}, {}},
    {"console connect, no user", false, K::kConsoleConnect, 2, Known::kNoUser, {}, 0, 0, {}, {}},
    {"console disconnect", true, K::kConsoleDisconnect, 2, Known::kInTable, {}, 1, 1, {},
     {"WTS_CONSOLE", "Received"}},
    {"remote connect", true, K::kRemoteConnect, 2, Known::kResolvable, {"USER2:1"}, 1, 2,
     {kBeforeUnlock, "Received message WTS_REMOTE_CONNECT, session id:2",
      "After processing WTS_SESSION_UNLOCK, m_bLogon:1, m_dwCurrentSession:2"}, {}},
    // Not ready: the logon is attempted all the same, finds no entry and
    // sends nothing, but the current session moves.
    {"unlock, not ready", true, K::kSessionUnlock, 2, Known::kNotReady, {}, 1, 2,
     {"Did not found session:2 in session table, m_bLogon:1\n"}, {}},
    {"unlock, no user, logged on", true, K::kSessionUnlock, 2, Known::kNoUser, {"USER1:0"}, 0, 1,
     {"Received message WTS_SESSION_UNLOCK, session id:2"}, {}},
    {"unlock, no user", false, K::kSessionUnlock, 2, Known::kNoUser, {}, 0, 0, {kBeforeUnlock},
     {}},
    {"remote disconnect", true, K::kRemoteDisconnect, 2, Known::kInTable, {}, 1, 1,
     {"Received message WTS_REMOTE_DISCONNECT, session id:2"}, {"Before processing"}},
    {"lock", true, K::kSessionLock, 2, Known::kInTable, {}, 1, 1,
     {"Received message WTS_SESSION_LOCK, session id:2"}, {"Before processing"}},
    {"logon", true, K::kSessionLogon, 2, Known::kResolvable, {"USER2:1"}, 1, 2,
     {kBeforeLogon, "After processing WTS_SESSION_LOGON, m_bLogon:1, m_dwCurrentSession:2"}, {}},
    {"logon, not ready, logged on", true, K::kSessionLogon, 2, Known::kNotReady, {"USER1:0"}, 0, 1,
     {"GetUserNameBySessionID(), session is not ready, session id:2, TICC:"}, {}},
    {"logon, no user, logged on", true, K::kSessionLogon, 2, Known::kNoUser, {"USER1:0"}, 0, 1, {},
     {"session is not ready"}},
    {"logon, no user", false, K::kSessionLogon, 2, Known::kNoUser, {}, 0, 0, {kBeforeLogon}, {}},
    {"logoff", true, K::kSessionLogoff, 1, Known::kInTable, {"USER1:0"}, 0, 1,
     {"Received message WTS_SESSION_LOGOFF, session id:1"}, {"Before processing"}},
    {"logoff, not in table", true, K::kSessionLogoff, 9, Known::kNoUser, {}, 1, 1,
     {"Did not found session:9 in session table, m_bLogon:1\n"}, {}},
    {"resume, console in table", true, K::kResume, 2, Known::kInTable, {"USER2:1"}, 1, 2, {}, {}},
    {"resume, console not in table", true, K::kResume, 2, Known::kResolvable, {}, 1, 1, {},
     {"Found session:2", "Did not found session:2"}},
    // An excluded user's session is never reported and disturbs nothing:
    // no logoff of the reported user, no move of the current session.
    {"logon, excluded", true, K::kSessionLogon, 2, Known::kResolvable, {}, 1, 1,
     {"session 2 of CORP\\user2 is not reported: its user matches ExcludedUsers entry corp\\USER2"},
     {"Received message WTS_SESSION_LOGON, session id:1"}, true},
    {"unlock, excluded", true, K::kSessionUnlock, 2, Known::kResolvable, {}, 1, 1, {}, {}, true},
    {"console connect, excluded", false, K::kConsoleConnect, 2, Known::kResolvable, {}, 0, 0, {},
     {}, true},
    {"logoff, excluded", true, K::kSessionLogoff, 2, Known::kResolvable, {}, 1, 1, {}, {}, true},
    {"resume, console excluded since it was added", true, K::kResume, 2, Known::kInTable, {}, 1, 1, {},
     {}, true},
    // The reported user, named by a list that changed since: withdrawn.
    {"unlock, reported user excluded since", true, K::kSessionUnlock, 1, Known::kInTable,
     {"USER1:0"}, 0, 1, {}, {}, true},
    // ResendLogoff: rows that touch it run their refused re-send rounds, then
    // healthy ones, which must leave the state as the notification left it.
    {"logoff refused, re-sent", true, K::kSessionLogoff, 1, Known::kInTable, {"USER1:0", "USER1:0"},
     0, 1, {"ResendLogoff: kept the logoff of CORP\\user1 at 10.0.0.5, session 1, that reached no "
            "server (1 kept)", "ResendLogoff: re-sent the logoff of CORP\\user1 at 10.0.0.5, try 1 "
            "of 20: delivered", "dropped the logoff of CORP\\user1 at 10.0.0.5: delivered"},
     {}, false, {true, true}},
    {"logoff refused, ResendLogoff 0", true, K::kSessionLogoff, 1, Known::kInTable, {"USER1:0"}, 0,
     1, {}, {"ResendLogoff"}, false, {false, true}},
    {"logoff refused 20 times", true, K::kSessionLogoff, 1, Known::kInTable,
     std::vector<std::string>(21, "USER1:0"), 0, 1, {"try 20 of 20: not delivered",
     "dropped the logoff of CORP\\user1 at 10.0.0.5: not delivered after the last try"}, {},
     false, {true, true, 0, 20}},
    {"logoff refused 19 times", true, K::kSessionLogoff, 1, Known::kInTable,
     std::vector<std::string>(21, "USER1:0"), 0, 1, {"try 20 of 20: delivered"}, {}, false,
     {true, true, 0, 19}},
    // Kept at the addresses the servers were told last.
    {"logoff without an address", true, K::kSessionLogoff, 1, Known::kInTable, {"USER1:0"}, 0, 1,
     {"kept the logoff of CORP\\user1 at 10.0.0.5,"}, {}, false, {true, false, 0, 0, true}},
    {"logoff refused again", false, K::kSessionLogoff, 1, Known::kInTable, {"USER1:0", "USER1:0"},
     0, 1, {"(1 kept)"}, {"(2 kept)"}, false, {true, true, 1}},
    {"logon of the departed user", false, K::kSessionLogon, 1, Known::kResolvable, {"USER1:1"}, 1,
     1, {"dropped the logoff of CORP\\user1 at 10.0.0.5: the user logged on again"}, {"re-sent"},
     false, {true, false, 1}},
    {"logon of another user", false, K::kSessionLogon, 2, Known::kResolvable,
     {"USER2:1", "USER1:0"}, 1, 2, {}, {"logged on again"}, false, {true, false, 1}},
    // A refused round tries the oldest only.
    {"two kept, one refused round", false, K::kSessionLock, 9, Known::kNoUser,
     {"USER1:0", "USER1:0", "USER2:0"}, 0, 2, {"user1 at 10.0.0.5, try 2 of 20: delivered",
     "user2 at 10.0.0.5, try 1 of 20: delivered"}, {}, false, {true, false, 2, 1}},
    {"eleven kept", false, K::kSessionLock, 9, Known::kNoUser,
     {"USER2:0", "USER3:0", "USER4:0", "USER5:0", "USER6:0", "USER7:0", "USER8:0", "USER9:0",
      "USER10:0", "USER11:0"}, 0, 11, {}, {"user1 at 10.0.0.5, try"}, false, {true, false, 11}},
    {"unlock, reported user excluded since, refused", true, K::kSessionUnlock, 1, Known::kInTable,
     {"USER1:0"}, 0, 1, {"the logoff of CORP\\user1 at 10.0.0.5 is not kept: its user is on "
     "ExcludedUsers"}, {"kept the"}, true, {true, true}},
};

class StateTableTest : public SessionFixture, public ::testing::WithParamInterface<StateRow> {};

TEST_P(StateTableTest, SendsTheEventsAndMovesTheState) {
  const StateRow& row = GetParam();
  const ResendSteps& resend = row.resend;
  sessions.consoleSession = 2;
  events.SetResendLogoff(resend.on);
  AddUser(1);
  if (row.known != Known::kNoUser) AddUser(row.session);
  if (row.known == Known::kNotReady) notReady.insert(row.session);
  ASSERT_EQ(table.AddSession(1), 1u);
  if (row.loggedOn) {
    ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  }
  for (uint32_t user = 1; user <= resend.keptBefore; ++user) {
    AddUser(user);
    Notify(K::kSessionLogon, user);
    host.accept = false;
    Notify(K::kSessionLogoff, user);
    host.accept = true;
  }
  if (row.known == Known::kInTable) {
    ASSERT_EQ(table.AddSession(row.session), 1u);
  }
  if (row.excluded) Exclude({u"nobody", u"corp\\USER" + AnsiToWide(std::to_string(row.session))});
  host.deliveries.clear();
  const size_t linesBefore = support.Lines().size();
  if (resend.noAddress) SetAddresses({});
  host.accept = !resend.refused;

  Notify(row.kind, row.session);

  host.accept = true;
  SetAddresses({FakeNetwork::V4(10, 0, 0, 5)});
  if (resend.Active()) {
    const auto state = [this] {
      return std::vector<uint32_t>{events.Logon(), events.CurrentSession(), events.ResendPending(),
                                   events.ResendTries()};
    };
    const auto before = state();
    const size_t first = host.deliveries.size();
    host.accept = false;
    for (uint32_t i = 0; i < resend.failedRounds; ++i) events.ResendLogoffEvents();
    host.accept = true;
    events.ResendLogoffEvents();
    const size_t sent = host.deliveries.size();
    events.ResendLogoffEvents();  // nothing is left to send
    EXPECT_EQ(host.deliveries.size(), sent);
    EXPECT_EQ(state(), before);
    // For no session: nobody's NTLM proof for a departed user.
    for (size_t i = first; i < sent; ++i) EXPECT_EQ(host.deliveries[i].session, kNoSession);
  }
  EXPECT_EQ(std::make_tuple(host.Summary(), events.Logon(), events.CurrentSession()),
            std::make_tuple(row.sent, row.nextL, row.nextC));
  std::string logged;
  const auto lines = support.Lines();
  for (size_t i = linesBefore; i < lines.size(); ++i) logged += lines[i].text + "\n";
  for (const std::string& l : row.lines) EXPECT_NE(logged.find(l), std::string::npos) << l;
  for (const std::string& l : row.absent) EXPECT_EQ(logged.find(l), std::string::npos) << l;
  // Only a not-ready logon parks its session.
  EXPECT_EQ(table.PendingSessionCount(),
            row.kind == K::kSessionLogon && row.known == Known::kNotReady ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Rows, StateTableTest, ::testing::ValuesIn(kStateRows),
                         RowName);

TEST_F(SessionFixture, LogoffRemovesTheEntryAndItsPendingRecordAfterSending) {
  AddUser(4);
  notReady.insert(4);
  Notify(K::kSessionLogon, 4);
  ASSERT_EQ(table.PendingSessionCount(), 1u);
  notReady.clear();
  ASSERT_EQ(table.AddSession(4), 1u);
  Notify(K::kSessionLogoff, 4);
  EXPECT_EQ(host.Summary(), (std::vector<std::string>{"USER4:0"}));
  EXPECT_EQ(std::make_tuple(table.FindSession(4), table.PendingSessionCount()), std::make_tuple(nullptr, 0u));
}

TEST_F(SessionFixture, ResumeTriesFiveTimesThenLogsTheFailure) {
  sessions.consoleSession = 3;
  AddUser(3);
  ASSERT_EQ(table.AddSession(3), 1u);
  host.accept = false;
  timings.wakeupRetryMs = 0;
  events.SetTickLogging(false);
  Notify(K::kResume);
  EXPECT_EQ(host.deliveries.size(), 5u);
  EXPECT_EQ(support.CountLines(Format(
                "Failed to  send logon event when computer is recovering from sleep, TID:%d",
                static_cast<int>(CurrentThreadId()))),
            1u);
}

// --- SendSessionEvent --------------------------------------------------------

TEST_F(SessionFixture, TheLastSentSetAdvancesWithEachDeliveredChangeOnly) {
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);  // same addresses: one record
  SetAddresses({FakeNetwork::V4(10, 0, 0, 9), FakeNetwork::V4(10, 0, 0, 5)});
  host.accept = false;  // a failed send does not advance the last sent set
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 0u);
  host.accept = true;
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  // A logoff carries its change too: the logon after it withdraws nothing.
  SetAddresses({FakeNetwork::V4(10, 0, 0, 7)});
  ASSERT_EQ(events.SendSessionEvent(1, 0, 0), 1u);
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  EXPECT_EQ(host.Summary(), (std::vector<std::string>{"USER1:1", "USER1:1", "USER1:0+USER1:1",
                                                      "USER1:0+USER1:1", "USER1:1", "USER1:0",
                                                      "USER1:1"}));
}

TEST_F(SessionFixture, WithoutAddressesNothingIsSentAndTheResendFlagRises) {
  AddUser(1);
  // Before the table exists the flag stays down.
  SetAddresses({});
  EXPECT_EQ(events.SendSessionEvent(1, 1, 0), 0u);
  EXPECT_EQ(events.ResendPending(), 0u);
  ASSERT_EQ(table.AddSession(1), 1u);
  EXPECT_EQ(events.SendSessionEvent(1, 1, 0), 0u);
  EXPECT_TRUE(host.deliveries.empty());
  EXPECT_EQ(std::make_tuple(events.ResendPending(), events.CurrentSession(), events.Logon()),
            std::make_tuple(1u, 1u, 1u));
}

TEST_F(SessionFixture, EveryDeliveryWritesItsLogRecord) {
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  events.SetTickLogging(false);
  events.SendSessionEvent(1, 1, 1);
  host.accept = false;
  events.SendSessionEvent(1, 0, 0);
  const std::string tid = std::to_string(CurrentThreadId());
  EXPECT_EQ(support.FieldEvents(),
            (std::vector<std::string>{
                "96980 6 action=4 domain=CORP,Workstation Name:ws1,IP:10.0.0.5,BRK:127.0.0.1,TID:" +
                    tid + " user=user1",
                "96980 6 action=2 domain=CORP,Workstation Name:ws1,IP:10.0.0.5,BRK:127.0.0.1,TID:" +
                    tid + " user=user1"}));
}

// --- keep-alive, re-send and address change ------------------------------------

// An excluded user beside a reported one: the reported user's keep-alives go
// on through the excluded user's logon and logoff, and stop (withdrawn) once
// the list names the reported user too.
TEST_F(SessionFixture, AnExcludedSessionLeavesTheReportedOneAlone) {
  AddUser(1);
  AddUser(2);
  Exclude({u"*\\user2"});
  Notify(K::kSessionLogon, 1);
  Notify(K::kSessionLogon, 2);
  events.SendKeepAliveEvent();
  SetAddresses({FakeNetwork::V4(10, 0, 0, 6)});
  events.CheckAddressChange();
  Notify(K::kSessionLogoff, 2);
  events.SendKeepAliveEvent();
  Exclude({u"user1"});
  events.SendKeepAliveEvent();
  events.ResendLogonEvent();
  EXPECT_EQ(host.Summary(), (std::vector<std::string>{"USER1:1", "USER1:1", "USER1:0+USER1:1",
                                                      "USER1:1", "USER1:0"}));
  EXPECT_EQ(std::make_tuple(events.Logon(), table.FindSession(1)), std::make_tuple(0u, nullptr));
}

TEST_F(SessionFixture, KeepAliveAndResendReportTheLoggedOnSessionOnly) {
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  events.SendKeepAliveEvent();  // nobody reported as logged on
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  events.SendKeepAliveEvent();
  EXPECT_EQ(events.ResendTries(), 0u);
  // A re-send counts a try; its failure leaves the report pending.
  host.accept = false;
  events.ResendLogonEvent();
  EXPECT_EQ(std::make_tuple(events.ResendTries(), events.ResendPending()), std::make_tuple(1u, 1u));
  SetAddresses({});
  events.SendKeepAliveEvent();  // no address
  EXPECT_EQ(host.Summary(), (std::vector<std::string>{"USER1:1", "USER1:1", "USER1:1"}));
  const std::string keepAlive = "CSessionManager::SendKeepAliveEvent:934, m_bLogon:";
  EXPECT_EQ(support.CountLines(keepAlive + "0, m_dwCurrentSession:0"), 1u);
  EXPECT_EQ(support.CountLines(keepAlive + "1, m_dwCurrentSession:1"), 2u);
  EXPECT_TRUE(support.HasLine("CSessionManager::ResendLogonEvent:1002, m_bLogon:1, "
                              "m_dwCurrentSession:1"));
  // Records: the logon (1) and the keep-alive (5); the re-send writes none.
  const auto records = support.FieldEvents();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].rfind("96980 6 action=5 ", 0), 0u);
}

struct AddressRow {
  const char* name;
  std::vector<ResolvedAddress> before;  // the last sent set
  std::vector<ResolvedAddress> now;
  std::vector<std::string> sent;  // summaries; empty: nothing sent
  std::vector<std::string> newIPv4;
  uint32_t resendPending;
  bool withdrawn = false;  // the user's logon was withdrawn (logon flag 0) before the change
  bool firstFails = false;  // the first round's delivery fails; the next round tries again
};

class AddressChangeTest : public SessionFixture,
                          public ::testing::WithParamInterface<AddressRow> {};

const ResolvedAddress kA5 = FakeNetwork::V4(10, 0, 0, 5);
const ResolvedAddress kA6 = FakeNetwork::V4(10, 0, 0, 6);
const AddressRow kAddressRows[] = {
    {"added", {kA5}, {kA5, kA6}, {"USER1:0+USER1:1"}, {"10.0.0.5", "10.0.0.6"}, 0},
    {"replaced", {kA5}, {FakeNetwork::V4(10, 0, 0, 7)}, {"USER1:0+USER1:1"}, {"10.0.0.7"}, 0},
    {"first round fails", {kA5}, {kA6}, {"USER1:0+USER1:1", "USER1:0+USER1:1"}, {"10.0.0.6"}, 0,
     false, true},
    {"reordered", {kA5, kA6}, {kA6, kA5}, {}, {}, 0},
    {"ipv6 only", {kA5}, {FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1})}, {}, {}, 1},
    {"none left", {kA5}, {}, {}, {}, 1},
    // A locked-out or departed user is not mapped to the new addresses.
    {"withdrawn user", {kA5}, {kA6}, {}, {}, 0, true},
};

TEST_P(AddressChangeTest, ReportsTheNewSetWhenAnIPv4AddressIsLeft) {
  const AddressRow& row = GetParam();
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  SetAddresses(row.before);
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  if (row.withdrawn) {
    ASSERT_EQ(events.SendSessionEvent(1, 0, 0), 1u);
  }
  host.deliveries.clear();
  SetAddresses(row.now);
  host.accept = !row.firstFails;
  events.CheckAddressChange();
  host.accept = true;
  if (row.firstFails) events.CheckAddressChange();
  EXPECT_EQ(std::make_tuple(host.Summary(), events.ResendPending()), std::make_tuple(row.sent, row.resendPending));
  if (!row.sent.empty()) {
    EXPECT_EQ(host.deliveries.back().records[1].IPv4Text(), row.newIPv4);
    EXPECT_TRUE(support.HasLine("old ip address:10.0.0.5"));
    EXPECT_TRUE(support.HasLine("new ip address:" + row.newIPv4.back()));
    // Records: the logon's and the successful change's only.
    ASSERT_EQ(support.FieldEvents().size(), 2u);
    EXPECT_EQ(support.FieldEvents().back().rfind("96980 6 action=3 ", 0), 0u);
    // The new set is now the last sent one: a further round sends nothing.
    events.CheckAddressChange();
    EXPECT_EQ(host.deliveries.size(), row.sent.size());
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, AddressChangeTest, ::testing::ValuesIn(kAddressRows),
                         RowName);

// An address report that is in flight when another report is made: the
// other waits for it, so the servers see them in the order they were made
// and never see the user of a logoff at new addresses after it.
enum class Meanwhile { kLogoff, kLogonSend, kKeepAlive };

struct InFlightRow {
  const char* name;
  Meanwhile action;
  std::vector<std::string> sent;  // after the first logon
  uint32_t logon;                 // the logon flag at the end
};

class InFlightTest : public SessionFixture, public ::testing::WithParamInterface<InFlightRow> {};

const InFlightRow kInFlightRows[] = {
    {"logoff", Meanwhile::kLogoff, {"USER1:0+USER1:1", "USER1:0"}, 0},
    // This send refreshes the identifiers and the last sent set while the
    // round reads them.
    {"logon send", Meanwhile::kLogonSend, {"USER1:0+USER1:1", "USER1:1"}, 1},
    {"keep-alive", Meanwhile::kKeepAlive, {"USER1:0+USER1:1", "USER1:1"}, 1},
};

TEST_P(InFlightTest, AnAddressReportInFlightComesFirst) {
  const InFlightRow& row = GetParam();
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  ASSERT_EQ(events.SendSessionEvent(1, 1, 0), 1u);
  host.deliveries.clear();
  SetAddresses({kA6});
  host.HoldNextDelivery();
  Worker round([this] { events.CheckAddressChange(); });
  ASSERT_TRUE(host.WaitUntilHeld());
  // While the round holds the table lock through its delivery, the other
  // report waits for it; a round that does not hold it lets the other
  // report finish first, which is the order this test refuses.
  std::unique_lock<std::recursive_mutex> probe(table.Lock(), std::try_to_lock);
  const bool roundHoldsLock = !probe.owns_lock();
  if (probe.owns_lock()) probe.unlock();
  Worker other([this, &row] {
    switch (row.action) {
      case Meanwhile::kLogoff: Notify(K::kSessionLogoff, 1); break;
      case Meanwhile::kLogonSend: events.SendSessionEvent(1, 1, 0); break;
      case Meanwhile::kKeepAlive: events.SendKeepAliveEvent(); break;
    }
  });
  if (!roundHoldsLock) other.Wait();
  host.ReleaseDelivery();
  round.Wait();
  other.Wait();
  EXPECT_EQ(std::make_tuple(host.Summary(), events.Logon()), std::make_tuple(row.sent, row.logon));
}

INSTANTIATE_TEST_SUITE_P(Rows, InFlightTest, ::testing::ValuesIn(kInFlightRows), RowName);

// --- the event message --------------------------------------------------------

// The event message of each report path: which record withdraws the last
// sent addresses, and the record of the current ones. Rows: the kind, the
// last sent set, the current set, and the records the message carries.
struct ReportRow {
  const char* name;
  ReportKind kind;
  std::vector<ResolvedAddress> last;  // the last sent set; empty: none was sent
  std::vector<ResolvedAddress> now;
  std::vector<std::string> records;  // "<logon flag>:<addresses>", in order
};

const ResolvedAddress kV6a = FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1});
const ResolvedAddress kV6b = FakeNetwork::V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 2});
const ResolvedAddress kV6ff = FakeNetwork::V6({0x00ff, 0, 0, 0, 0, 0, 0, 1});  // a zero first byte

const ReportRow kReportRows[] = {
    // Logon, wakeup and keep-alive: once the addresses changed, the last set
    // is withdrawn when its IPv4 list or the NEW IPv6 list has an entry, so
    // a first report with IPv6 withdraws an empty set...
    {"logon, unchanged", ReportKind::kLogon, {kA5}, {kA5}, {"1:10.0.0.5"}},
    {"logon, IPv4 changed", ReportKind::kLogon, {kA5}, {kA6}, {"0:10.0.0.5", "1:10.0.0.6"}},
    {"logon, none before, IPv6 now", ReportKind::kLogon, {}, {kA5, kV6a},
     {"0:", "1:10.0.0.5,2001:db8::1"}},
    // ...and an IPv6-only last set is not withdrawn.
    {"logon, IPv6 before", ReportKind::kLogon, {kV6a}, {kA5}, {"1:10.0.0.5"}},
    {"wakeup, unchanged", ReportKind::kWakeup, {kA5}, {kA5}, {"1:10.0.0.5"}},
    {"wakeup, IPv4 before, IPv6 now", ReportKind::kWakeup, {kA5}, {kV6b},
     {"0:10.0.0.5", "1:2001:db8::2"}},
    {"keep-alive, unchanged", ReportKind::kKeepAlive, {kA5, kV6a}, {kA5, kV6a},
     {"1:10.0.0.5,2001:db8::1"}},
    {"keep-alive, reordered", ReportKind::kKeepAlive, {kA5, kA6}, {kA6, kA5},
     {"1:10.0.0.6,10.0.0.5"}},
    {"keep-alive, IPv4 changed", ReportKind::kKeepAlive, {kA5}, {kA6},
     {"0:10.0.0.5", "1:10.0.0.6"}},
    {"keep-alive, none before, IPv6 now", ReportKind::kKeepAlive, {}, {kA5, kV6a},
     {"0:", "1:10.0.0.5,2001:db8::1"}},
    {"keep-alive, IPv6 before", ReportKind::kKeepAlive, {kV6a}, {kA5}, {"1:10.0.0.5"}},
    // An IPv6 address counts by its first 16-bit group, not its first byte.
    {"keep-alive, none before, ff::1 now", ReportKind::kKeepAlive, {}, {kA5, kV6ff},
     {"0:", "1:10.0.0.5,ff::1"}},
    // Logoff: never; the logoff withdraws the user anyway.
    {"logoff, IPv4 changed", ReportKind::kLogoff, {kA5}, {kA6}, {"0:10.0.0.6"}},
    // Address change (made only when the set changed): withdrawn when the
    // last IPv4 list or the PREVIOUS IPv6 list has an entry.
    {"address change, IPv4 added", ReportKind::kAddressChange, {kA5}, {kA5, kA6},
     {"0:10.0.0.5", "1:10.0.0.5,10.0.0.6"}},
    {"address change, none before, IPv6 now", ReportKind::kAddressChange, {}, {kA5, kV6a},
     {"1:10.0.0.5,2001:db8::1"}},
    {"address change, IPv6 before", ReportKind::kAddressChange, {kV6a}, {kA5},
     {"0:2001:db8::1", "1:10.0.0.5"}},
};

class EventReportTest : public SessionFixture, public ::testing::WithParamInterface<ReportRow> {};

TEST_P(EventReportTest, EachPathWithdrawsTheLastSetByItsOwnRule) {
  const ReportRow& row = GetParam();
  AddUser(1);
  ASSERT_EQ(table.AddSession(1), 1u);
  const auto set = [this](const std::vector<ResolvedAddress>& addresses) {
    SetAddresses(addresses);
    AddressSet s;
    this->addresses.GetIPAddress(&s.ipv4, s.count4, &s.ipv6, s.count6);
    return s;
  };
  CEncoder event(kEventEncoderCapacity);
  BuildEventReport(event, row.kind, set(row.last), set(row.now), *table.FindSession(1), machine);
  std::vector<std::string> records;
  for (const auto& r : Decoded(event).records) {
    // Both records are the entry's: its user at the machine's name.
    EXPECT_EQ(r.user + "@" + r.workstation, "USER1@WS1.CORP.EXAMPLE");
    std::string s = std::to_string(r.logon) + ":";
    for (const auto& list : {r.IPv4Text(), r.IPv6Text()})
      for (const std::string& a : list) s += (s.back() == ':' ? "" : ",") + a;
    records.push_back(s);
  }
  EXPECT_EQ(records, row.records);
}

INSTANTIATE_TEST_SUITE_P(Rows, EventReportTest, ::testing::ValuesIn(kReportRows), RowName);

// The Azure AD account attribute carries the entry's Azure tenant id: sent
// exactly when prefer-Azure is 1 and the lookup took the Azure answer.
struct AzureRecordRow {
  const char* name;
  uint32_t preferAzure;
  const char16_t* adDomain;  // u"AzureAD": the AD answer is discarded
  bool joined;               // the device-registration tool reports the user
  const char* user;
  const char* azureAccount;  // "": the attribute is absent
};
const AzureRecordRow kAzureRecordRows[] = {
    {"PreferredAndTaken", 1, u"CORP", true, "MARA.LIND", "4F1C2B7E-9D3A-4E55-8A61-0C2F7D9B1E44"},
    {"NotPreferred", 0, u"CORP", true, "USER2", ""},
    {"TakenWithoutPreference", 0, u"AzureAD", true, "MARA.LIND", ""},
    {"PreferredButNotJoined", 1, u"CORP", false, "USER2", ""},
};

class AzureRecordTest : public SessionFixture,
                        public ::testing::WithParamInterface<AzureRecordRow> {};

TEST_P(AzureRecordTest, TheAzureAccountAttributeFollowsTheAnswerTaken) {
  const AzureRecordRow& row = GetParam();
  accounts.SetUser(2, {DomainSid(1002), u"user2", row.adDomain});
  console.script = {PipeStep{row.joined ? kJoinedOutput : kNotJoinedOutput}};
  table.SetPreferAzure(row.preferAzure);
  WorkstationFacts facts = machine;
  facts.preferAzure = row.preferAzure;
  SetMachine(facts);
  ASSERT_EQ(table.AddSession(2), 1u);
  ASSERT_EQ(events.SendSessionEvent(2, 1, 0), 1u);
  ASSERT_EQ(host.deliveries.size(), 1u);
  const SessionRecord& r = host.deliveries[0].records.back();
  EXPECT_EQ(std::tie(r.user, r.azureAccount), std::make_tuple(row.user, row.azureAccount));
}

INSTANTIATE_TEST_SUITE_P(Rows, AzureRecordTest, ::testing::ValuesIn(kAzureRecordRows), RowName);

TEST(SessionMessage, WorkstationNameTakesTheDnsDomainElseTheUsersDomain) {
  for (const auto& [dnsDomain, userDomain, expected] :
       {std::tuple("corp.example", "OTHER", "ws1.corp.example"), std::tuple("", "CORP", "ws1.CORP"),
        std::tuple("", "", "ws1.")}) {
    WorkstationFacts m;
    m.computerName = "ws1";
    m.dnsDomain = dnsDomain;
    EXPECT_EQ(WorkstationName(m, userDomain), expected);
  }
}

TEST(SessionMessage, LogDomainTextHasBothTickVariants) {
  SessionLogRecord r;
  r.domain = "CORP";
  r.computerName = "ws1";
  r.localIPv4 = 0x0500000A;
  r.serverIPv4 = 0;
  r.tickCount = 42;
  r.threadId = 7;
  const std::string head = "CORP,Workstation Name:ws1,IP:10.0.0.5,BRK:0.0.0.0,";
  for (const auto& [delivered, tick, tail] :
       {std::tuple(true, true, "succeeded to send session info, TICC:42, TID:7"),
        std::tuple(false, true, "failed to send session info, TICC:42, TID:7"),
        std::tuple(false, false, "TID:7")}) {
    r.delivered = delivered;
    r.tickLogging = tick;
    EXPECT_EQ(SessionLogDomainText(r), head + tail);
  }
}

}  // namespace
}  // namespace lindqvar::testing
