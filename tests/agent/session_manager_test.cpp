#include "agent/session_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "agent/agent_main.h"
#include "agent/args.h"
#include "agent/catalogue.h"
#include "agent/state.h"
#include "agent/verification_settings.h"
#include "tests/fakes/fake_platform.h"
#include "tests/identity/identity_fakes.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar {
namespace {

using testing::FakeNetwork;

class ManagerTest : public ::testing::Test {
 protected:
  void Configure(const std::u16string& servers, const std::u16string& key = u"psk") {
    fake.registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
    fake.support.SetSettings(1, servers, key);
  }
  Platform P() { return fake.Get(); }
  uint32_t RegistryState() {
    uint32_t v = 0xDEAD;
    fake.registry.GetDword(RegistryHive::kLocalMachine, kAgentKeyPath, u"LINDQState", v);
    return v;
  }
  // The process entry, with a control event the test can signal.
  int Run(std::vector<const char*> argv, const LeaveRunning& leaveRunning = {}) {
    return AgentMain(static_cast<int>(argv.size()), argv.data(), P(),
                     [this](const std::string& name) {
                       createdNames.push_back(name);
                       // Kept here too: the test may still signal it after
                       // the agent has ended.
                       control = std::make_shared<CEvent>(CEvent::ResetPolicy::kAutomatic,
                                                          CEvent::InitialState::kNotSignaled);
                       controlReady.Set();
                       return control;
                     },
                     leaveRunning);
  }
  // Signals the control event once the agent waits on it.
  void Signal() {
    ASSERT_EQ(controlReady.Wait(20000), WaitResult::kSignaled);
    control->Set();
  }
  testing::FakePlatform fake;
  std::vector<std::string> createdNames;
  std::shared_ptr<CEvent> control;
  CEvent controlReady{CEvent::ResetPolicy::kManual, CEvent::InitialState::kNotSignaled};
};

// Construction writes NOT_CONFIGURED, Init raises it once servers are
// configured, and destruction writes NOT_CONFIGURED again.
TEST_F(ManagerTest, InitReadsSettingsAndRaisesStateWhenServersAreConfigured) {
  Configure(u"10.0.0.5:9001;10.0.0.6");
  fake.network.domain = u"corp.example.test";
  {
    CSessionManager m(P());
    EXPECT_EQ(RegistryState(), kNotConfigured);
    EXPECT_EQ(m.Init(), 1u);
    // The NTLM package is prepared by Init too.
    EXPECT_EQ(std::make_tuple(m.State(), RegistryState(), m.Settings().Servers().size(),
                              m.Settings().PresharedKey(), m.DomainName(), fake.network.startups.load(),
                              m.NtlmPackage()->PackageName()),
              std::make_tuple(kConfiguredUnreachable, kConfiguredUnreachable, 2u, "psk",
                              "corp.example.test", 1, u"NTLM"));
  }
  EXPECT_EQ(RegistryState(), kNotConfigured);
}

TEST_F(ManagerTest, InitWithMissingSettingsKeyStopsEarly) {
  fake.support.SetSettings(1, u"a.b", u"k");  // the record exists, the key does not
  CSessionManager m(P());
  m.Start();
  EXPECT_TRUE(fake.support.HasLine("Failed to open registry software\\Orvane\\Velmora\\FA_LINDQ"));
  EXPECT_EQ(m.State(), kNotConfigured);
  // Every state write now fails with the key's "not found" and the agent
  // runs on.
  m.SetState(kConfiguredReachable);
  EXPECT_TRUE(fake.support.HasLine("Failed to open registry key for LINDQState update. Error: 2"));
  EXPECT_TRUE(m.Settings().Servers().empty());
  // The threads still start and still stop.
  EXPECT_EQ(m.ThreadExitCode(CWorkerThreads::kKeepAliveThread), CWorkerThread::kStillActive);
  m.Stop();
  EXPECT_EQ(m.ThreadExitCode(CWorkerThreads::kKeepAliveThread), 1u);
}

// A failed or empty domain answer is an error and leaves the name empty even
// when the platform left a name in the buffer.
TEST_F(ManagerTest, DomainFailuresAreErrorsAndLeaveItEmpty) {
  struct Row {
    bool fails;
    const char16_t* domain;
    const char* line;
  };
  const Row rows[] = {{true, u"stale.example.test", "Failed to get computer domain name\n"},
                      {false, u"", "Failed to get computer domain name, dwSize = 0\n"}};
  Configure(u"a.b");
  for (const Row& row : rows) {
    fake.network.domainFails = row.fails;
    fake.network.domain = row.domain;
    CSessionManager m(P());
    m.Start();
    EXPECT_EQ(m.DomainName(), "") << row.line;
    EXPECT_TRUE(fake.support.HasLine(row.line)) << row.line;
    m.Stop();
  }
}

TEST_F(ManagerTest, StopEndsAllSixThreadsThenClosesTheLog) {
  Configure(u"a.b");
  CSessionManager m(P());
  m.Start();
  m.Sessions().AddPendingSession(4);
  EXPECT_EQ(fake.support.OpenLogs(), 1);
  m.Stop();
  for (size_t i = 0; i < CWorkerThreads::kThreadCount; ++i)
    EXPECT_EQ(m.ThreadExitCode(static_cast<CWorkerThreads::Index>(i)), 1u) << i;
  EXPECT_EQ(std::make_tuple(fake.support.CatalogueEvents(), fake.support.OpenLogs(), m.Sessions().PendingSessionCount(),
                            m.Settings().Servers().size(), fake.network.cleanups.load(), fake.window.destroyed.load()),
            std::make_tuple(std::vector<uint32_t>{kEventStarting, kEventStopping}, 0, 0u, 0u, 1, 1));
}

TEST_F(ManagerTest, NotificationThreadRetriesRegistrationAndDispatches) {
  Configure(u"a.b");
  fake.window.registrationFailuresLeft = 3;
  CSessionManager m(P());
  m.Start();
  fake.window.Post(NotificationKind::kSessionLogon, 5);  // nobody there
  EXPECT_TRUE(testing::WaitUntil([&] {
    return fake.support.HasLine("After processing WTS_SESSION_LOGON, m_bLogon:0, "
                                "m_dwCurrentSession:0") &&
           fake.window.registerCalls >= 4;
  }));
  m.Stop();
  // No further tries once registered. Two rounds ran unregistered and waited
  // the pump interval; every later round sleeps until a message or the stop.
  EXPECT_EQ(std::make_tuple(fake.window.registerCalls.load(), fake.window.timedWaits.load()), std::make_tuple(4, 2));
  EXPECT_GE(fake.window.untimedWaits, 1);
}

TEST_F(ManagerTest, WindowCreationFailureEndsOnlyTheNotificationThread) {
  Configure(u"a.b");
  fake.window.createSucceeds = false;
  fake.network.armError = 50;  // address-change requests not supported
  CSessionManager m(P());
  m.Start();
  ASSERT_TRUE(testing::WaitUntil([&] {
    return m.ThreadExitCode(CWorkerThreads::kNotificationThread) != CWorkerThread::kStillActive &&
           m.ThreadExitCode(CWorkerThreads::kAddressWatchThread) != CWorkerThread::kStillActive;
  }));
  EXPECT_EQ(std::make_tuple(m.ThreadExitCode(CWorkerThreads::kNotificationThread),
                            m.ThreadExitCode(CWorkerThreads::kAddressWatchThread),
                            m.ThreadExitCode(CWorkerThreads::kResendThread)),
            std::make_tuple(0u, 0u, CWorkerThread::kStillActive));
  EXPECT_TRUE(fake.support.HasLine("NotifyAddrChange error...50"));
  m.Stop();
  EXPECT_EQ(m.ThreadExitCode(CWorkerThreads::kResendThread), 1u);
}

TEST_F(ManagerTest, RereadKeepsTheStateWhileTheListHasEntries) {
  Configure(u"a.b;c.d");
  CSessionManager m(P());
  m.Init();
  ASSERT_EQ(RegistryState(), kConfiguredUnreachable);
  fake.support.SetSettings(1, u"x.y;z.w", u"psk");  // other hosts, same ports
  // ResendLogoff is taken by the re-read and is no change either.
  fake.registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, kResendLogoffValue, 4, {1, 0, 0, 0});
  ASSERT_FALSE(m.Events().ResendLogoff());
  EXPECT_EQ(m.ReloadSettings(), 0u);
  EXPECT_TRUE(m.Events().ResendLogoff());
  EXPECT_EQ(RegistryState(), kConfiguredUnreachable);
  fake.support.SetSettings(0, u"", u"");
  const size_t writes = fake.registry.DwordWrites();
  EXPECT_EQ(m.ReloadSettings(), 1u);
  // An empty text still parses to one (empty) entry, so the list is not
  // empty and the state is left for the next sending pass to set.
  EXPECT_EQ(m.Settings().Servers().size(), 1u);
  EXPECT_EQ(fake.registry.DwordWrites(), writes);
}

// --- reporting to a lab authenticator ------------------------------------------

// The lab's options for key "psk", changed by `change`.
lab::LabOptions Lab(const std::function<void(lab::LabOptions&)>& change) {
  lab::LabOptions o = testing::CLabFixture::Options("psk");
  change(o);
  return o;
}

class ReportingTest : public ManagerTest {
 protected:
  explicit ReportingTest(lab::LabOptions options = Lab([](auto&) {})) : lab(options) {
    Configure(u"127.0.0.1:" + AnsiToWide(std::to_string(lab.Port())));
    fake.network.hostName = "ws1";
    fake.network.names["ws1"] = {FakeNetwork::V4(10, 0, 0, 5)};
    fake.network.domain = u"corp.example";
    fake.timings.consoleIdlePolls = 1;
    fake.timings.keepAliveUnitMs = 1000;  // no keep-alive report unless a test asks for one
  }
  void User(uint32_t session, const std::u16string& name) {
    fake.accounts.SetUser(session, {testing::DomainSid(1000 + session), name, u"CORP"});
  }
  void WaitForLine(const std::string& prefix) {
    EXPECT_TRUE(testing::WaitUntil([&] { return fake.support.Logged(prefix); })) << prefix;
  }
  std::vector<std::string> Users(const lab::ConnectionReport& r) {
    std::vector<std::string> out;
    for (const auto& rec : r.records) out.push_back(rec.user + ":" + std::to_string(rec.logon));
    return out;
  }
  testing::CLabFixture lab;
};

TEST_F(ReportingTest, StartReportsTheLastActiveSessionOfTheEnumeration) {
  User(1, u"anna");
  User(3, u"mlind");
  fake.sessions.sessions = {{1, SessionState::kActive}, {2, SessionState::kActive},
                            {3, SessionState::kActive}, {4, SessionState::kDisconnected}};
  CSessionManager m(P());
  m.Start();
  const auto reports = lab.WaitReports(1);
  m.Stop();
  ASSERT_EQ(reports.size(), 1u);
  ASSERT_EQ(reports[0].records.size(), 1u);
  const SessionRecord& r = reports[0].records[0];
  EXPECT_EQ(std::make_tuple(r.user, r.domain, r.workstation, r.logon, r.IPv4Text()),
            std::make_tuple("MLIND", "CORP", "WS1.CORP.EXAMPLE", 1u, std::vector<std::string>{"10.0.0.5"}));
  EXPECT_EQ(RegistryState(), kConfiguredReachable);
  for (const char* line :
       {"m_count:1, m_count6:0", "Succeeded to call WTSEnumerateSessions, dwSICount:4",
        "Succeede to add session 1", "failed to add session 2", "Found current user, session ID: 3",
        "current active session 3", "Found current logon session 3 in session list"}) {
    EXPECT_TRUE(fake.support.HasLine(line)) << line;
  }
  const auto events = fake.support.FieldEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].rfind("96980 6 action=1 domain=CORP,Workstation Name:ws1,IP:10.0.0.5,"
                            "BRK:127.0.0.1,succeeded to send session info, TICC:",
                            0),
            0u)
      << events[0];
}

TEST_F(ReportingTest, StartWithoutAReportableSessionSendsNothing) {
  struct Row {
    bool enumerates;
    uint32_t console;
    const char* line;
  } rows[] = {{false, kNoSession, "call WTSGetActiveConsoleSessionId, session ID: -1"},
              {true, 6, "Did not find current logon session 6 in session list"}};
  for (const Row& row : rows) {
    fake.sessions.enumerateSucceeds = row.enumerates;
    fake.sessions.consoleSession = row.console;
    CSessionManager m(P());
    m.Start();
    EXPECT_TRUE(fake.support.HasLine(row.line)) << row.line;
    EXPECT_EQ(m.State(), kConfiguredUnreachable);
    m.Stop();
  }
  EXPECT_TRUE(fake.support.HasLine("failed to call WTSEnumerateSessions"));
  EXPECT_EQ(lab.Server().Finished(), 0u);
}

class NtlmReportingTest : public ReportingTest {
 protected:
  NtlmReportingTest()
      : ReportingTest(Lab([](lab::LabOptions& o) {
          o.eventResult = 2;
          o.ntlm = std::make_shared<testing::ScriptedAcceptor>(std::set<std::string>{"CORP\\mlind"});
        })) {}
};

TEST_F(NtlmReportingTest, ALogonWhoseAcknowledgementAsksForNtlmProvesTheSessionsUser) {
  User(3, u"mlind");
  fake.support.sessionUsers[3] = {"CORP", "mlind"};
  fake.sessions.sessions = {{3, SessionState::kActive}};
  CSessionManager m(P());
  m.Start();
  const auto r = lab.WaitReports(1)[0];
  m.Stop();
  EXPECT_EQ(std::tie(r.ntlmEnd, r.ntlmKey), std::make_tuple("proven", 100001u));
  EXPECT_TRUE(fake.support.HasLine("NTLM auth succeeded"));
  EXPECT_EQ(RegistryState(), kConfiguredReachable);
}

TEST_F(ReportingTest, NotificationsReachTheServerThroughTheDetectorThread) {
  User(5, u"anna");
  User(7, u"mlind");
  CSessionManager m(P());
  m.Start();
  fake.window.Post(NotificationKind::kSessionLogon, 5);
  lab.WaitReports(1);
  fake.window.Post(NotificationKind::kSessionLock, 5);
  fake.window.Post(NotificationKind::kSessionUnlock, 5);
  // A session parked for the retry thread, sent from there while the
  // notification thread and this thread send too.
  m.Sessions().AddPendingSession(7);
  m.Events().SendSessionEvent(5, 1, 0);
  fake.window.Post(NotificationKind::kSessionLogoff, 5);
  const auto reports = lab.WaitReports(5);
  m.Stop();
  std::vector<std::string> anna, mlind;
  for (const auto& r : reports) {
    for (const std::string& u : Users(r))
      (u.rfind("ANNA", 0) == 0 ? anna : mlind).push_back(u);
  }
  EXPECT_EQ(anna, (std::vector<std::string>{"ANNA:1", "ANNA:1", "ANNA:1", "ANNA:0"}));
  // The retry thread's logon may come before or after ANNA's logoff (both
  // from the same address, so the lab's table keeps whichever came last).
  EXPECT_EQ(mlind, (std::vector<std::string>{"MLIND:1"}));
  EXPECT_EQ(m.Sessions().PendingSessionCount(), 0u);
  EXPECT_EQ(RegistryState(), kConfiguredReachable);
}

class TimersTest : public ReportingTest {
 protected:
  TimersTest() : ReportingTest(Lab([](lab::LabOptions& o) { o.keepAliveInterval = 2; })) {
    User(1, u"anna");
    fake.sessions.sessions = {{1, SessionState::kActive}};  // reported at start
  }
  size_t Records(const char* action) {
    size_t n = 0;
    for (const std::string& e : fake.support.FieldEvents())
      n += e.find(std::string(" action=") + action + " ") != std::string::npos;
    return n;
  }
};

// The keep-alive thread's waits for the interval a server gives: in 64 bits,
// kept between 1 s and a day, and following the server when it changes it.
struct KeepAliveRow {
  const char* name;
  uint32_t served;       // by the server from the start
  uint32_t unitMs;
  uint32_t firstWait;
  uint32_t changedTo;    // then served from the first keep-alive on; 0: unchanged
  uint32_t nextWait;
};
const KeepAliveRow kKeepAliveRows[] = {
    {"Served", 2, 5, 10, 0, 0},
    {"WrapsToNothingIn32Bits", 536870912, 1000, 86400000, 0, 0},
    {"JustOverADay", 86401, 1000, 86400000, 0, 0},
    {"ChangedByTheServer", 2, 5, 10, 3600, 18000},
    {"ChangedToAHugeValue", 2, 5, 10, 536870912, 432000},
};

class KeepAliveWaitTest : public ReportingTest,
                          public ::testing::WithParamInterface<KeepAliveRow> {
 protected:
  KeepAliveWaitTest()
      : ReportingTest(Lab([](lab::LabOptions& o) { o.keepAliveInterval = GetParam().served; })) {
    User(1, u"anna");
    fake.sessions.sessions = {{1, SessionState::kActive}};  // its logon brings the interval
    fake.timings.keepAliveUnitMs = GetParam().unitMs;
  }
};

TEST_P(KeepAliveWaitTest, TheNextWaitUsesTheServersIntervalWithinTheKeptRange) {
  const KeepAliveRow& row = GetParam();
  CSessionManager m(P());
  m.Start();
  ASSERT_TRUE(testing::WaitUntil([&] { return !fake.waits.TimeOuts().empty(); }));
  EXPECT_EQ(fake.waits.TimeOuts()[0], row.firstWait);
  if (row.changedTo != 0) {
    lab.Server().SetKeepAliveInterval(row.changedTo);
    EXPECT_TRUE(testing::WaitUntil([&] {
      const auto t = fake.waits.TimeOuts();
      return std::find(t.begin(), t.end(), row.nextWait) != t.end();
    })) << "waits: " << ::testing::PrintToString(fake.waits.TimeOuts());
  }
  m.Stop();
}

INSTANTIATE_TEST_SUITE_P(Rows, KeepAliveWaitTest, ::testing::ValuesIn(kKeepAliveRows), testing::RowName);

// A failed wait in either address-change thread: a pause, one log line per
// run of failures, no change round; the next real change is reported.
struct FailedWaitRow {
  const char* name;
  testing::FakeWaits::Side side;
  int failures;
  const char* failedLine;
  const char* recoveredLine;
};
const FailedWaitRow kFailedWaitRows[] = {
    {"WatchRun", testing::FakeWaits::kWatch, 4,
     "address watch: waiting for an address change failed, error 6; trying again every 1 ms",
     "address watch: waiting for an address change works again after 4 failed waits"},
    {"HandlerRun", testing::FakeWaits::kHandler, 3,
     "address handler: waiting for an address change failed, error 6; trying again every 1 ms",
     "address handler: waiting for an address change works again after 3 failed waits"},
};

class FailedWaitTest : public ReportingTest,
                       public ::testing::WithParamInterface<FailedWaitRow> {
 protected:
  FailedWaitTest() {
    User(1, u"anna");
    fake.sessions.sessions = {{1, SessionState::kActive}};
    fake.timings.addressWaitRetryMs = 1;
  }
};

TEST_P(FailedWaitTest, IsNeitherASpinNorAChange) {
  const FailedWaitRow& row = GetParam();
  fake.waits.FailNext(row.side, row.failures, 6);
  CSessionManager m(P());
  m.Start();
  lab.WaitReports(1);
  // The addresses differ from those reported: a change round would send.
  fake.network.SetNames("ws1", {FakeNetwork::V4(10, 0, 0, 9)});
  fake.waits.Open();
  // The watch thread arms its watch on its own time: the handler's row can
  // be waiting before it.
  ASSERT_TRUE(testing::WaitUntil(
      [&] { return fake.waits.realWaits[row.side] > 0 && fake.network.WatchChanged(); }));
  EXPECT_EQ(fake.waits.failed[row.side], row.failures);
  EXPECT_EQ(fake.support.CountLines(row.failedLine), 1u);
  EXPECT_EQ(lab.Server().Finished(), 1u);  // no round ran for the failures
  fake.network.WatchChanged()->Set();
  const auto reports = lab.WaitReports(2);
  m.Stop();
  ASSERT_EQ(reports.size(), 2u);
  ASSERT_EQ(reports[1].records.size(), 2u);
  EXPECT_EQ(reports[1].records[1].IPv4Text(), (std::vector<std::string>{"10.0.0.9"}));
  EXPECT_EQ(fake.support.CountLines(row.recoveredLine), 1u);
  EXPECT_EQ(fake.support.CountLines(row.failedLine), 1u);
}

INSTANTIATE_TEST_SUITE_P(Rows, FailedWaitTest, ::testing::ValuesIn(kFailedWaitRows), testing::RowName);

TEST_F(TimersTest, ResendsTwentyTimesThenWaitsForAnOrdinarySuccess) {
  Configure(u"127.0.0.1:" + AnsiToWide(std::to_string(testing::ClosedPort())));
  fake.registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, kResendLogoffValue, 4, {1, 0, 0, 0});
  fake.timings.resendPeriodMs = 1;
  CSessionManager m(P());
  m.Start();  // the start-up logon fails
  ASSERT_TRUE(testing::WaitUntil([&] { return m.Events().ResendTries() >= 20; }));
  const std::string line = "CSessionManager::ResendLogonEvent:1002, m_bLogon:1, m_dwCurrentSession:1";
  SleepMs(50);  // 50 more periods: the timer must stay quiet
  EXPECT_EQ(fake.support.CountLines(line), 20u);
  EXPECT_EQ(m.Events().ResendPending(), 1u);
  // The server comes back; an ordinary exchange resets the re-send state.
  Configure(u"127.0.0.1:" + AnsiToWide(std::to_string(lab.Port())));
  m.ReloadSettings();
  EXPECT_EQ(m.Events().SendSessionEvent(1, 1, 0), 1u);
  EXPECT_EQ(std::make_tuple(m.Events().ResendPending(), m.Events().ResendTries()), std::make_tuple(0u, 0u));
  // The server goes again, and a logoff fails (ResendLogoff 1): the timer
  // re-sends it 20 times and drops it; the logon's re-sends stay at 20.
  Configure(u"127.0.0.1:" + AnsiToWide(std::to_string(testing::ClosedPort())));
  m.ReloadSettings();
  EXPECT_EQ(m.Events().SendSessionEvent(1, 0, 0), 0u);
  const std::string last = "ResendLogoff: re-sent the logoff of CORP\\anna at 10.0.0.5, try 20 of 20: not delivered";
  ASSERT_TRUE(testing::WaitUntil([&] { return fake.support.HasLine(last); }));
  SleepMs(50);  // 50 more periods: no 21st try
  EXPECT_EQ(fake.support.LinesStartingWith("ResendLogoff: re-sent").size(), 20u);
  m.Stop();
  EXPECT_EQ(fake.support.CountLines(line), 20u);
}

TEST_F(TimersTest, AnAddressChangeIsReportedAndStopEndsTheWaitBetweenRounds) {
  fake.timings.addressRoundWaitMs = 600000;  // Stop must not wait for it
  fake.timings.keepAliveUnitMs = 1000;       // no keep-alive reports the change first
  CSessionManager m(P());
  m.Start();
  lab.WaitReports(1);
  fake.network.SetNames("ws1", {FakeNetwork::V4(10, 0, 0, 9)});
  ASSERT_TRUE(testing::WaitUntil([&] { return fake.network.WatchChanged() != nullptr; }));
  fake.network.WatchChanged()->Set();
  const auto reports = lab.WaitReports(2);
  m.Stop();
  ASSERT_EQ(reports.size(), 2u);
  ASSERT_EQ(Users(reports[1]), (std::vector<std::string>{"ANNA:0", "ANNA:1"}));
  EXPECT_EQ(std::make_tuple(reports[1].records[0].IPv4Text(), reports[1].records[1].IPv4Text()),
            std::make_tuple(std::vector<std::string>{"10.0.0.5"}, std::vector<std::string>{"10.0.0.9"}));
  EXPECT_EQ(Records("3"), 1u);
  EXPECT_EQ(m.ThreadExitCode(CWorkerThreads::kAddressHandlerThread), 1u);
}

// A server that says nothing, or dribbles its messages a byte at a time: a
// send to it ends within the limits of one message, so Stop is not held up.
class SilentServerTest : public ReportingTest, public ::testing::WithParamInterface<lab::Fault> {
 protected:
  SilentServerTest()
      : ReportingTest(Lab([](lab::LabOptions& o) {
          o.fault = GetParam();
          o.stallMs = 1500;
          o.dribbleMs = 100;
        })) {
    User(5, u"anna");
    fake.timings.socketTimeoutMs = 1000;
  }
};

TEST_P(SilentServerTest, StopDuringASendEndsOnceTheReadTimesOut) {
  CSessionManager m(P());
  m.Start();
  fake.window.Post(NotificationKind::kSessionLogon, 5);
  WaitForLine("SendAndReceive(), Local IP:");
  m.Stop();
  EXPECT_EQ(std::make_tuple(m.ThreadExitCode(CWorkerThreads::kNotificationThread), m.State()),
            std::make_tuple(1u, kConfiguredUnreachable));
  EXPECT_TRUE(fake.support.Logged("ReceiveServerReply(), failed to receive hello message"));
}

TEST_P(SilentServerTest, ASettingsChangeEndsTheProcessWithoutWaitingForTheSend) {
  std::unique_ptr<CSessionManager> left;
  std::thread parent([&] {
    ASSERT_EQ(controlReady.Wait(20000), WaitResult::kSignaled);
    fake.window.Post(NotificationKind::kSessionLogon, 5);
    WaitForLine("SendAndReceive(), Local IP:");
    fake.support.SetSettings(1, u"127.0.0.2:1", u"psk");  // another host and port: a change
    control->Set();
  });
  Run({"agent", "-s", "ctl"}, [&](std::unique_ptr<CSessionManager> manager) { left = std::move(manager); });
  parent.join();
  // The notification thread was still inside the send: the manager was
  // handed over instead of waiting for it.
  ASSERT_TRUE(left);
  // The process ends without destroying the manager: the state is already
  // NOT_CONFIGURED, and the send failing afterwards leaves it so.
  EXPECT_EQ(std::make_tuple(left->ThreadExitCode(CWorkerThreads::kNotificationThread),
                            left->ThreadExitCode(CWorkerThreads::kKeepAliveThread), RegistryState()),
            std::make_tuple(CWorkerThread::kStillActive, 1u, kNotConfigured));
  EXPECT_TRUE(testing::WaitUntil([&] {
    return left->ThreadExitCode(CWorkerThreads::kNotificationThread) != CWorkerThread::kStillActive;
  }));
  EXPECT_EQ(RegistryState(), kNotConfigured);
  left.reset();  // joins the sender once its read has timed out
  EXPECT_TRUE(fake.support.Logged("ReceiveServerReply(), failed to receive hello message"));
}

INSTANTIATE_TEST_SUITE_P(Faults, SilentServerTest,
                         ::testing::Values(lab::Fault::kStall, lab::Fault::kDribble,
                                           lab::Fault::kDribbleTls));

// --- the process entry ------------------------------------------------------

// Only leading spaces are skipped; then a dash and a lower-case s.
TEST(ControlSwitch, OnlyDashAndTheLetterAfterItCount) {
  const std::pair<const char*, bool> rows[] = {
      {"-s", true},   {"-stop", true}, {"  -service", true}, {" -s", true}, {"-S", false},
      {"/s", false},  {"\t-s", false}, {"s", false},          {"", false},   {"   ", false},
      {"-", false}};
  for (const auto& [text, isSwitch] : rows) EXPECT_EQ(IsControlSwitch(text), isSwitch) << text;
}

TEST(ScanArguments, TheNameAfterTheFirstSwitchIsTrimmedAndKeyedElseNothing) {
  for (const std::vector<const char*>& nothing :
       {std::vector<const char*>{"agent"}, {"agent", "-S", "Global\\Ctl_1", "/s"}, {"agent", "x", "-s"}})
    EXPECT_FALSE(ScanArguments(static_cast<int>(nothing.size()), nothing.data())) << nothing.back();

  const char* argv[] = {"agent", "-v", " -s", " \tGlobal\\Agent_Ctl_7\t ", "-s", "other"};
  auto args = ScanArguments(6, argv);
  ASSERT_TRUE(args);
  EXPECT_EQ(args->eventName, "Global\\Agent_Ctl_7");
  EXPECT_EQ(args->controlKey, "7");
}

// (The whole name without one: AgentMainTest's "Agentctl".)
TEST(ControlKey, IsTheTextBehindTheLastUnderscore) {
  EXPECT_EQ(ControlKeyOf("Agent_"), "");
  EXPECT_EQ(ControlKeyOf("_x"), "x");
  EXPECT_EQ(TrimBlanks(" \t a b \t"), "a b");
  EXPECT_EQ(TrimBlanks(" \t "), "");
}

using AgentMainTest = ManagerTest;

TEST_F(AgentMainTest, WithoutTheSwitchNothingStarts) {
  Configure(u"a.b");
  EXPECT_EQ(Run({"agent", "-S", "name"}), 0);
  EXPECT_EQ(std::make_tuple(createdNames.size(), fake.support.Lines().size(), fake.support.CatalogueEvents().size()),
            std::make_tuple(0u, 0u, 0u));
}

TEST_F(AgentMainTest, StopStatusRunsStopAndEndsWithZero) {
  Configure(u"a.b");
  fake.support.SetDesiredStatus(3);
  std::thread parent([this] { Signal(); });
  EXPECT_EQ(Run({"agent", " -s", "  Global\\Agent_Ctl_7\t"}), 0);
  parent.join();
  EXPECT_EQ(std::make_tuple(createdNames, fake.support.LastStatusKey(), fake.support.CatalogueEvents(), RegistryState()),
            std::make_tuple(std::vector<std::string>{"Global\\Agent_Ctl_7"}, u"7",
                            std::vector<uint32_t>{kEventStarting, kEventStopping}, kNotConfigured));
}

TEST_F(AgentMainTest, UnchangedRereadKeepsRunningChangedOneEndsWithoutStop) {
  Configure(u"a.b:1", u"psk");
  fake.support.SetDesiredStatus(0);
  std::atomic<bool> ended{false};
  std::thread parent([&] {
    Signal();
    ASSERT_TRUE(testing::WaitUntil(
        [&] { return fake.support.CountLines("Brannock config:a.b:1") >= 2; }));
    fake.support.SetSettings(1, u"x.y:2", u"psk");  // host and port changed
    // The loop resets the event after each re-read, which may swallow one
    // signal: signal until the agent has ended.
    EXPECT_TRUE(testing::WaitUntil([&] {
      control->Set();
      return ended.load();
    }));
  });
  EXPECT_EQ(Run({"agent", "-s", "Agentctl"}), 0);
  ended = true;
  parent.join();
  EXPECT_EQ(fake.support.LastStatusKey(), u"Agentctl");
  // Stop never ran: no stop event, log still open when the process ends.
  EXPECT_EQ(fake.support.CatalogueEvents(), (std::vector<uint32_t>{kEventStarting}));
  EXPECT_GE(fake.support.CountLines("Brannock config:x.y:2"), 1u);
  EXPECT_EQ(RegistryState(), kNotConfigured);
}

}  // namespace
}  // namespace lindqvar
