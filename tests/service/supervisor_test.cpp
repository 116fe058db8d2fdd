#include "service/supervisor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <optional>

#include "agent/args.h"
#include "platform/os.h"
#include "service/install_folder.h"

namespace lindqvar::service {
namespace {

SettingsSnapshot Settings(const std::u16string& servers, uint32_t enabled = 1,
                          uint32_t state = 0) {
  SettingsSnapshot s;
  s.Add(u"Servers", 1, std::vector<uint8_t>(servers.begin(), servers.end()));
  s.Add(u"Enabled", kRegDword, {static_cast<uint8_t>(enabled), 0, 0, 0});
  s.Add(u"LINDQState", kRegDword, {static_cast<uint8_t>(state), 0, 0, 0});
  return s;
}

// One thing that happens while the supervisor waits, `after` milliseconds
// into the wait.
struct Step {
  Step(Wake w, uint32_t a = 0, std::optional<SettingsSnapshot> s = std::nullopt)
      : wake(w), after(a), settings(std::move(s)) {}
  Wake wake;
  uint32_t after;
  std::optional<SettingsSnapshot> settings;  // the key's contents from now on
};

// The system as a script: every call is written to a journal, waits return
// the next step and move a fake clock. An empty script asks for a stop.
class ScriptedSystem : public ISupervisorSystem, public IServiceLog {
 public:
  class Process : public IAgentProcess {
   public:
    Process(ScriptedSystem& s, uint32_t id) : m_system(s), m_id(id) {}
    uint32_t Id() const override { return m_id; }
    uint32_t ExitCode() const override { return m_exitCode; }
    void Terminate() override {
      m_system.journal.push_back("terminate " + std::to_string(m_id));
      m_exitCode = 1;
      m_system.agentRunning = false;
    }
    uint32_t m_exitCode = 259;

   private:
    ScriptedSystem& m_system;
    uint32_t m_id;
  };

  uint32_t CreateControlEvent(const std::string& name) override {
    journal.push_back("event " + name);
    return eventError;
  }
  void SignalControlEvent() override { journal.push_back("signal"); }
  uint32_t SetDesiredStatus(const std::string& key, uint32_t status) override {
    journal.push_back("status " + key + "=" + std::to_string(status));
    return 0;
  }
  std::unique_ptr<IAgentProcess> StartAgent(const std::string& arguments,
                                            uint32_t& error) override {
    journal.push_back("start " + arguments + " at " + std::to_string(now));
    startArguments = arguments;
    if (startFailures > 0) {
      --startFailures;
      error = 2;
      return nullptr;
    }
    auto p = std::make_unique<Process>(*this, nextId++);
    agent = p.get();
    agentRunning = true;
    return p;
  }
  bool WatchSettings() override {
    journal.push_back("watch");
    return keyPresent;
  }
  SettingsSnapshot ReadSettings() override {
    journal.push_back("read");
    return keyPresent ? settings : SettingsSnapshot::Missing();
  }
  Wake Wait(IAgentProcess* waitedAgent, uint32_t ms) override {
    if (script.empty()) return Wake::kStop;
    Step step = std::move(script.front());
    script.pop_front();
    if (step.wake == Wake::kTimeout) {
      journal.push_back("wait " + std::to_string(ms));
      EXPECT_NE(ms, kInfinite) << "a time-out step while the supervisor waits for ever";
      now += ms;
    } else {
      EXPECT_LE(step.after, ms) << "the supervisor would have timed out first";
      now += step.after;
    }
    if (step.settings) {
      settings = *step.settings;
      keyPresent = settings.KeyPresent();
    }
    if (step.wake == Wake::kAgentEnded) {
      EXPECT_NE(waitedAgent, nullptr) << "an agent ended while none was waited for";
      if (waitedAgent) static_cast<Process*>(waitedAgent)->m_exitCode = 0;
      agentRunning = false;
    }
    return step.wake;
  }
  bool WaitAgent(IAgentProcess& a, uint32_t ms) override {
    journal.push_back("wait-agent " + std::to_string(ms));
    if (agentRunning && agentObeysStop && &a == agent) {
      static_cast<Process&>(a).m_exitCode = 0;
      agentRunning = false;
      now += 300;
      return true;
    }
    if (agentRunning) now += ms;
    return !agentRunning;
  }
  uint32_t TickCount() override { return now; }
  void WriteNotConfigured() override { journal.push_back("state 0"); }
  void Write(ServiceEvent id, EventKind kind, const std::string& text) override {
    events.push_back(static_cast<uint32_t>(id));
    texts.push_back(text);
  }

  std::deque<Step> script;
  std::vector<std::string> journal;
  std::vector<uint32_t> events;
  std::vector<std::string> texts;
  SettingsSnapshot settings = Settings(u"10.0.0.5:9001");
  bool keyPresent = true;
  bool agentObeysStop = true;
  bool agentRunning = false;
  uint32_t eventError = 0;
  int startFailures = 0;
  uint32_t now = 5000;
  uint32_t nextId = 7;
  IAgentProcess* agent = nullptr;
  std::string startArguments;
};

using J = std::vector<std::string>;
using E = std::vector<uint32_t>;
constexpr uint32_t id(ServiceEvent e) { return static_cast<uint32_t>(e); }

class SupervisorTest : public ::testing::Test {
 protected:
  uint32_t Run() { return CAgentSupervisor(sys, sys, timings).Run(); }
  ScriptedSystem sys;
  SupervisorTimings timings;
};

TEST_F(SupervisorTest, StartsTheAgentAsItsParentAndStopsItWithStatusThree) {
  EXPECT_EQ(Run(), 0u);
  EXPECT_EQ(sys.journal, (J{"event Global\\LindqvarAgent_Service", "watch", "read",
                            "status Service=1", "start -s Global\\LindqvarAgent_Service at 5000",
                            "status Service=3", "signal", "wait-agent 20000"}));
  EXPECT_EQ(sys.events, (E{id(ServiceEvent::kServiceStarted), id(ServiceEvent::kAgentStarted),
                           id(ServiceEvent::kAgentStopped), id(ServiceEvent::kServiceStopped)}));
  EXPECT_EQ(sys.texts[1], "Started the agent, process 7.");

  // The agent's own argument scan finds the event, and the key it asks the
  // desired status for is the one the service writes.
  std::vector<std::string> words{"lindqvar-agent.exe", "-s", kControlEventName};
  ASSERT_EQ(AgentArguments(), words[1] + " " + words[2]);
  const char* argv[] = {words[0].c_str(), words[1].c_str(), words[2].c_str()};
  const auto args = ScanArguments(3, argv);
  ASSERT_TRUE(args);
  EXPECT_EQ(args->eventName, kControlEventName);
  EXPECT_EQ("status " + args->controlKey + "=3", sys.journal[5]);
}

TEST_F(SupervisorTest, AnAgentThatIgnoresTheStopIsEndedByForceAfterTheLimit) {
  sys.agentObeysStop = false;
  Run();
  EXPECT_EQ(J(sys.journal.begin() + 5, sys.journal.end()),
            (J{"status Service=3", "signal", "wait-agent 20000", "terminate 7", "wait-agent 20000",
               "state 0"}));
  EXPECT_EQ(std::make_tuple(sys.events[2], sys.now), std::make_tuple(id(ServiceEvent::kAgentKilled), 5000u + 20000u));
}

TEST_F(SupervisorTest, ASettingsChangeIsPassedOnButTheAgentsOwnStateWriteIsNot) {
  sys.script = {
      {Wake::kSettingsChanged, 100, Settings(u"10.0.0.5:9001", 1, 2)},  // LINDQState only
      {Wake::kSettingsChanged, 100, Settings(u"10.0.0.6:9001", 1, 2)},
  };
  Run();
  EXPECT_EQ(J(sys.journal.begin() + 5, sys.journal.end()),
            (J{"watch", "read",                                // state write: nothing more
               "watch", "read", "status Service=1", "signal",  // re-armed before the read
               "status Service=3", "signal", "wait-agent 20000"}));
  EXPECT_EQ(std::count(sys.events.begin(), sys.events.end(), id(ServiceEvent::kAgentReread)), 1);
}

// Each row: how long each agent ran before it ended by itself, and the delay
// expected before the next one.
TEST_F(SupervisorTest, AnAgentThatKeepsEndingAtOnceIsRestartedLaterEachTime) {
  struct Row {
    uint32_t ranMs;
    uint32_t delayMs;
  };
  const Row rows[] = {
      {60000, 0},     // ended after a steady run (a settings change): at once
      {3000, 1000},   // ended at once: 1 s
      {100, 2000},    // again: 2 s
      {19999, 4000},  // still under the steady run: 4 s
      {25000, 0},     // a steady run resets the back-off
      {500, 1000},
  };
  for (const Row& r : rows) {
    sys.script.push_back({Wake::kAgentEnded, r.ranMs});
    if (r.delayMs) sys.script.push_back({Wake::kTimeout});
  }
  Run();
  std::vector<std::string> starts, waits;
  for (const auto& line : sys.journal) {
    if (line.rfind("start ", 0) == 0) starts.push_back(line.substr(line.rfind(' ') + 1));
    if (line.rfind("wait ", 0) == 0) waits.push_back(line.substr(5));
  }
  EXPECT_EQ(waits, (J{"1000", "2000", "4000", "1000"}));
  uint32_t t = 5000;
  J expectedStarts{std::to_string(t)};
  for (const Row& r : rows) {
    t += r.ranMs + r.delayMs;
    expectedStarts.push_back(std::to_string(t));
  }
  EXPECT_EQ(starts, expectedStarts);
  EXPECT_EQ(sys.nextId, 7u + 7u);  // seven agents, each stopped or ended once

  EXPECT_EQ(RestartDelayMs(10, timings), 300000u);  // the ceiling
  EXPECT_EQ(RestartDelayMs(1000, timings), 300000u);
}

TEST_F(SupervisorTest, DisablingStopsTheAgentAndEnablingStartsAFreshOne) {
  sys.script = {
      {Wake::kSettingsChanged, 50, Settings(u"10.0.0.5:9001", 0)},
      {Wake::kSettingsChanged, 50, Settings(u"10.0.0.5:9001", 1)},
  };
  Run();
  EXPECT_EQ(sys.events,
            (E{id(ServiceEvent::kServiceStarted), id(ServiceEvent::kAgentStarted), 96982,
               id(ServiceEvent::kAgentStopped), 96981, id(ServiceEvent::kAgentStarted),
               id(ServiceEvent::kAgentStopped), id(ServiceEvent::kServiceStopped)}));
  EXPECT_EQ(sys.nextId, 9u);

  // Disabled from the start: no agent until enabled.
  ScriptedSystem off;
  off.settings = Settings(u"a.b", 0);
  CAgentSupervisor(off, off, timings).Run();
  EXPECT_EQ(std::make_tuple(off.nextId, off.texts[0]),
            std::make_tuple(7u, "The service started; Enabled is 0, so no agent runs."));
}

TEST_F(SupervisorTest, FailuresOfTheSystemCalls) {
  // No control event, or one another process made first: no agent, and
  // the service reports why. Rows: the error, the event reported.
  const std::pair<uint32_t, ServiceEvent> refusals[] = {
      {5u, ServiceEvent::kControlFailed}, {kErrorAlreadyExists, ServiceEvent::kControlEventExists}};
  for (const auto& [error, event] : refusals) {
    ScriptedSystem r;
    r.eventError = error;
    EXPECT_EQ(CAgentSupervisor(r, r, timings).Run(), error);
    EXPECT_EQ(std::make_tuple(r.journal, r.events), std::make_tuple(J{"event Global\\LindqvarAgent_Service"}, E{id(event)}));
  }

  // The agent cannot start: retried with the back-off; a settings change
  // while waiting tries at once.
  ScriptedSystem s;
  s.startFailures = 2;
  s.script = {{Wake::kTimeout}, {Wake::kSettingsChanged, 10, Settings(u"x.y:1")}};
  CAgentSupervisor(s, s, timings).Run();
  J starts;
  for (const auto& line : s.journal) {
    if (line.rfind("start ", 0) == 0 || line.rfind("wait ", 0) == 0) starts.push_back(line);
  }
  EXPECT_EQ(starts, (J{"start -s Global\\LindqvarAgent_Service at 5000", "wait 1000",
                       "start -s Global\\LindqvarAgent_Service at 6000",
                       "start -s Global\\LindqvarAgent_Service at 6010"}));
  EXPECT_EQ(s.nextId, 8u);  // the fourth attempt started one

  // A missing settings key is looked for on every retry period, and the
  // agent still runs meanwhile.
  ScriptedSystem m;
  m.keyPresent = false;
  m.script = {{Wake::kTimeout}, {Wake::kTimeout, 0, Settings(u"k.l")}};
  CAgentSupervisor(m, m, timings).Run();
  EXPECT_EQ(J(m.journal.begin() + 1, m.journal.begin() + 12),
            (J{"watch", "read", "status Service=1",
               "start -s Global\\LindqvarAgent_Service at 5000", "wait 5000", "watch", "read",
               "wait 5000", "watch", "read", "status Service=1"}));
  // The key appeared: a re-read.
  EXPECT_EQ(std::make_tuple(m.journal[12], m.events[0]), std::make_tuple("signal", id(ServiceEvent::kWatchFailed)));
}

TEST(SettingsSnapshotTest, StateValueIgnoredAndEnabledReadAsTheAgentReadsIt) {
  EXPECT_EQ(Settings(u"a", 1, 0), Settings(u"a", 1, 2));
  SettingsSnapshot lower = Settings(u"a");
  lower.Add(u"lindqstate", kRegDword, {9, 0, 0, 0});
  EXPECT_EQ(lower, Settings(u"a"));
  EXPECT_NE(Settings(u"a"), Settings(u"b"));
  EXPECT_NE(Settings(u"a"), SettingsSnapshot::Missing());

  struct Row {
    uint32_t type;
    std::vector<uint8_t> data;
    bool enabled;
  };
  const Row rows[] = {
      {kRegDword, {0, 0, 0, 0}, false}, {kRegDword, {0, 1, 0, 0}, true},
      {1, {0, 0, 0, 0}, true},  // a string: the agent takes the default
      {kRegDword, {0, 0}, true},
  };
  for (const Row& r : rows) {
    SettingsSnapshot s;
    s.Add(u"ENABLED", r.type, r.data);
    EXPECT_EQ(s.Enabled(), r.enabled);
  }
  EXPECT_TRUE(SettingsSnapshot().Enabled() && SettingsSnapshot::Missing().Enabled());
}

TEST(InstallFolderTest, OnlyFoldersInsideProgramFilesGoUnprotected) {
  const std::u16string programFiles = u"C:\\Program Files";
  const std::pair<const char16_t*, bool> rows[] = {
      {u"C:\\Program Files\\Lindqvar\\", true},
      {u"c:/program files/Lindqvar", true},
      {u"C:\\Program Files", true},
      {u"C:\\Program Files2\\Lindqvar", false},  // a sibling sharing the prefix
      {u"C:\\Program Files (x86)\\Lindqvar", false},
      {u"C:\\Lindqvar\\", false},
      {u"D:\\Program Files\\Lindqvar", false},
      {u"C:\\Program", false},
  };
  for (const auto& [path, inside] : rows) {
    EXPECT_EQ(inside, IsWithinFolder(path, programFiles)) << WideToUtf8(path);
  }
  EXPECT_FALSE(IsWithinFolder(u"C:\\Lindqvar", u""));  // an unknown Program Files protects
}

}  // namespace
}  // namespace lindqvar::service
