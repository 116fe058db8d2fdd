// The fault sweep: the agent's life driven through CSessionManager on the
// fakes behind CFaultPlatform (bench/fault_platform.h), against a lab
// authenticator on 127.0.0.1 that asks every report for the NTLM proof.
// A run without a fault counts the calls each interface gets; then every
// (interface, call number) runs with that one call failing, each in a
// process of its own, and must show: no crash, no sanitizer report, no step
// past its time limit, the agent's own line for that failure where it logs
// one, a failed last report left pending for the re-send, and recovery (the
// next logon reaches the lab, whose table then holds the user at the
// current address, and LINDQState says reachable, then 0 once stopped).
//   fault_sweep                    every call of every interface
//   fault_sweep --sample N SEED    N calls drawn with SEED, every interface once at least
//   fault_sweep --run IFACE CALL   one run in this process (CALL 0: none fails)
// Prints, per interface, the calls reached, the faults injected, those
// survived, and every one that was not, with its step and why.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "agent/session_manager.h"
#include "agent/state.h"
#include "bench/fault_platform.h"
#include "tests/identity/identity_fakes.h"
#include "tests/protocol/tls_test_support.h"

extern char** environ;

namespace lindqvar::testing {
namespace {

constexpr uint32_t kSession = 1;
constexpr uint32_t kStepLimitMs = 10000;  // the longest a step may take
constexpr int kRunLimitS = 90;            // the longest a run may take

// What the agent logs when that call fails, where it logs anything. None of
// these texts appears in a run without a fault (the run with call 0 checks).
const std::map<std::string, std::vector<const char*>> kDesignedLines = {
    {"Enumerate", {"failed to call WTSEnumerateSessions"}},
    {"PhysicalDnsDomain", {"Failed to get computer domain name\n"}},
    {"QueryUserToken", {"Failed to call WTSQueryUserToken for session ID:1,error:5"}},
    {"HasQueryUserToken",
     {"Failed to get token for session ID:1,error:",
      "GetAZureSessionUserInfo(), GetTokenOfSession() failed, err="}},
    {"TokenUserSid", {"Failed to get token information for session ID:1,error:5"}},
    {"Arm", {"NotifyAddrChange error...50"}},
    {"CreateAddressChangeWatch", {"NotifyAddrChange error...1"}},
    {"WaitAny", {"waiting for an address change failed, error 6"}},
    {"SetDword", {"Failed to set LINDQState in registry. Error: 5"}},
    {"SetThreadToken", {"Failed to impersonate the user of session 1, no NTLM authentication"}},
    {"Start", {"GetAZureSessionUserInfo(), Calling of RunExternalProgram is failed"}},
};

class CFaultScenario : protected FakePlatform {
 public:
  CFaultScenario() : m_lab(ServerOptions()), m_faults(Base(), m_plan) {
    m_support.registry = &registry;
    registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
    registry.AddKey(RegistryHive::kLocalMachine, kVelmoraKeyPath);
    registry.SetString(RegistryHive::kLocalMachine, kEsnacKeyPath, u"hvq_sn",
                       u"{5B3F}"
                       u";VRX-0042;x");
    registry.SetString(RegistryHive::kLocalMachine, kEsnacKeyPath, u"tenantid", u"t-1");
    m_support.guid = u"{5B3F}";
    m_support.sessionUsers[kSession] = {"CORP", "anna"};
    m_support.SetSettings(1, u"127.0.0.1:" + AnsiToWide(std::to_string(m_lab.Port())), u"psk");
    network.hostName = "ws1";
    network.SetNames("ws1", {FakeNetwork::V4(10, 0, 0, 5)});
    network.domain = u"corp.example";
    FakeAccounts::User u;
    u.sid = DomainSid(1000 + kSession);
    u.name = u"anna";
    u.domain = u"CORP";
    u.sessionDnsDomain = u"corp.example";
    accounts.SetUser(kSession, u);
    console.script = {{"AzureAdJoined : NO\r\n"}};
    sessions.sessions = {{kSession, SessionState::kActive}};
    sessions.consoleSession = kSession;
    // Only the scenario sends: the timers stay quiet unless it asks.
    timings.keepAliveUnitMs = 1000;
    timings.resendPeriodMs = 600000;
    timings.pendingRetryPeriodMs = 600000;
    timings.addressRoundWaitMs = 1;
    timings.wakeupRetryMs = 0;
    timings.consoleIdlePolls = 1;
    timings.consoleIdlePollMs = 0;
    timings.socketTimeoutMs = 2000;
    timings.exchangeLimitMs = 6000;
  }

  // The life with that call failing (none for call 0); empty when every
  // check held, else what did not.
  std::string Run(Iface iface, uint64_t call) {
    m_plan.Arm(iface, call);
    m_plan.SetStep("construction");
    m_manager = std::make_unique<CSessionManager>(m_faults.Get());
    CSessionManager& m = *m_manager;
    // Each step false when it did not end within its limit.
    const std::pair<const char*, std::function<bool()>> steps[] = {
        {"start-up", [&] { return m.Start() == 0; }},
        {"logon", [&] { return Notify(NotificationKind::kSessionLogon); }},
        {"lock", [&] { return Notify(NotificationKind::kSessionLock); }},
        {"unlock", [&] { return Notify(NotificationKind::kSessionUnlock); }},
        {"keep-alive", [&] { return m.Events().SendKeepAliveEvent(), true; }},
        {"address change", [&] { return ChangeAddress(); }},
        {"resume", [&] { return Notify(NotificationKind::kResume); }},
        {"re-send",
         [&] {
           if (m.Events().ResendPending() == 1) m.Events().ResendLogonEvent();
           return true;
         }},
        {"settings re-read", [&] { return m.ReloadSettings(), true; }},
        {"logoff", [&] { return Notify(NotificationKind::kSessionLogoff); }},
    };
    std::string failure;
    for (const auto& [name, step] : steps) {
      m_plan.SetStep(name);
      std::printf("step %s\n", name);
      if (!step()) failure += std::string("step ") + name + " did not end within its limit; ";
    }
    m_plan.SetStep("recovery");
    m_plan.Disarm();
    const std::string fired = m_plan.FiredMethod();
    // A failed last report stays pending for the re-send timer.
    const auto records = m_support.FieldEvents();
    if (!records.empty() && records.back().find("failed to send") != std::string::npos &&
        m.Events().ResendPending() != 1)
      failure += "a failed report is not pending for the re-send; ";
    for (const auto& [method, lines] : kDesignedLines) {
      bool logged = false;
      for (const char* line : lines) logged = logged || HasLine(line);
      if (call == 0 && logged)
        failure += std::string("a run without a fault logs ") + lines[0] + "; ";
      // Before Start, or when it could not open the log, nothing is logged.
      if (call != 0 && method == fired && !logged && m_plan.FiredStep() != "construction" &&
          fired != "log_initialize")
        failure += std::string("not logged: ") + lines[0] + "; ";
    }
    // Recovery: the re-send path where it is pending, the next re-read and
    // the next logon.
    if (m.Events().ResendPending() == 1) m.Events().ResendLogonEvent();
    m.ReloadSettings();
    m.Notifications().OnNotification({NotificationKind::kSessionLogon, kSession});
    const auto table = m_lab.Server().Table().Entries();
    if (table.size() != 1 || table[0].user != "ANNA" ||
        table[0].addresses != std::vector<std::string>{"10.0.0.9"})
      failure += "the lab's table is not ANNA at 10.0.0.9 after recovery; ";
    if (m.State() != kConfiguredReachable || RegistryState() != kConfiguredReachable)
      failure += "LINDQState is not CONFIGURED_REACHABLE after recovery; ";
    m_plan.SetStep("stop");
    m.Stop();
    m_manager.reset();
    if (RegistryState() != kNotConfigured) failure += "LINDQState is not 0 after the stop; ";
    return failure;
  }

  // The calls made while faults could be armed (before the recovery).
  uint64_t Reached(Iface iface) const { return m_plan.Reached(iface); }
  void PrintLog() const {
    for (const auto& l : m_support.Lines())
      std::printf("%s %s\n", l.error ? "E" : "D", l.text.c_str());
  }

 private:
  static lab::LabOptions ServerOptions() {
    auto o = CLabFixture::Options("psk");
    o.eventResult = 2;  // every report proves its user by NTLM
    o.ntlm = std::make_shared<ScriptedAcceptor>(std::set<std::string>{"CORP\\anna"});
    o.keepReports = false;
    return o;
  }
  Platform Base() {
    Platform p = Get();
    p.support = &m_support;
    return p;
  }
  bool HasLine(const char* text) const {
    for (const auto& l : m_support.Lines())
      if (l.text.find(text) != std::string::npos) return true;
    return false;
  }
  uint32_t RegistryState() {
    uint32_t v = 0xDEAD;
    registry.GetDword(RegistryHive::kLocalMachine, kAgentKeyPath, kStateValueName, v);
    return v;
  }
  bool ThreadEnded(CWorkerThreads::Index i) {
    return m_manager->ThreadExitCode(i) != CWorkerThread::kStillActive;
  }
  // Posted to the window; true once handled, or at once when the window's
  // thread has ended.
  bool Notify(NotificationKind kind) {
    const int before = window.delivered;
    window.Post(kind, kind == NotificationKind::kResume ? 0 : kSession);
    return WaitUntil(
        [&] {
          return window.delivered > before || ThreadEnded(CWorkerThreads::kNotificationThread);
        },
        kStepLimitMs);
  }
  // A new address, signalled by the watch; true after the handler's three
  // rounds (each looks at the adapters once), or at once when the watch
  // thread has ended.
  bool ChangeAddress() {
    network.SetNames("ws1", {FakeNetwork::V4(10, 0, 0, 9)});
    const auto rounds = [&] { return m_plan.Calls(Iface::kAdapters); };
    const uint64_t before = rounds();
    const auto watchEnded = [&] { return ThreadEnded(CWorkerThreads::kAddressWatchThread); };
    if (!WaitUntil([&] { return network.WatchChanged() || watchEnded(); }, kStepLimitMs))
      return false;
    if (watchEnded()) return true;
    network.WatchChanged()->Set();
    return WaitUntil([&] { return rounds() >= before + 3 || watchEnded(); }, kStepLimitMs);
  }

  FakeSupport m_support;
  CLabFixture m_lab;
  CFaultPlan m_plan;
  CFaultPlatform m_faults;
  std::unique_ptr<CSessionManager> m_manager;
};

int RunOne(Iface iface, uint64_t call) {
  CFaultScenario scenario;
  const std::string failure = scenario.Run(iface, call);
  if (std::getenv("SWEEP_LOG")) scenario.PrintLog();
  std::printf("calls");
  for (size_t i = 0; i < kIfaceNames.size(); ++i)
    std::printf(" %llu", static_cast<unsigned long long>(scenario.Reached(static_cast<Iface>(i))));
  std::printf("\nresult %s\n", failure.empty() ? "ok" : failure.c_str());
  return failure.empty() ? 0 : 1;
}

// The rest of the output's last line that starts with "<key> ".
std::string Field(const std::string& output, const std::string& key) {
  std::string value;
  for (size_t at = 0, end; at < output.size(); at = end + 1) {
    end = output.find('\n', at);
    if (end == std::string::npos) end = output.size();
    if (output.compare(at, key.size() + 1, key + " ") == 0)
      value = output.substr(at + key.size() + 1, end - at - key.size() - 1);
  }
  return value;
}

// One run in a child process: its output, and how it ended.
struct Outcome {
  std::string output;
  std::string verdict;  // empty: survived
};

Outcome Spawn(const char* self, Iface iface, uint64_t call) {
  Outcome o;
  int fds[2];
  if (pipe(fds) != 0) return {"", "no pipe"};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  const std::string n = std::to_string(call);
  const char* name = iface == Iface::kCount ? "none" : kIfaceNames[static_cast<size_t>(iface)];
  const char* argv[] = {self, "--run", name, n.c_str(), nullptr};
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, self, &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (spawned != 0) {
    close(fds[0]);
    return {"", "not started"};
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kRunLimitS);
  bool hung = false;
  for (;;) {
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, 200) > 0) {
      char buffer[4096];
      const ssize_t got = read(fds[0], buffer, sizeof buffer);
      if (got <= 0) break;
      o.output.append(buffer, static_cast<size_t>(got));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      hung = true;
      kill(pid, SIGKILL);
      break;
    }
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  const std::string said = Field(o.output, "result");
  const std::string sanitizer = Field(o.output, "SUMMARY:");
  if (hung)
    o.verdict = "hung (no end within " + std::to_string(kRunLimitS) + " s)";
  else if (WIFSIGNALED(status))
    o.verdict = std::string("crashed: ") + strsignal(WTERMSIG(status));
  else if (!sanitizer.empty())
    o.verdict = sanitizer;
  else if (said != "ok")
    o.verdict = said.empty() ? "ended with status " + std::to_string(WEXITSTATUS(status)) : said;
  else if (WEXITSTATUS(status) != 0)
    o.verdict = "ended with status " + std::to_string(WEXITSTATUS(status));
  return o;
}

int Sweep(const char* self, bool all, int jobs, uint32_t seed, size_t sample) {
  std::vector<std::pair<Iface, uint64_t>> cases;
  const Outcome clean = Spawn(self, Iface::kCount, 0);
  if (!clean.verdict.empty()) {
    std::printf("the run without a fault failed: %s\n%s", clean.verdict.c_str(),
                clean.output.c_str());
    return 1;
  }
  std::vector<uint64_t> reached;
  {
    const std::string calls = Field(clean.output, "calls");
    char* p = const_cast<char*>(calls.c_str());
    for (size_t i = 0; i < kIfaceNames.size(); ++i) reached.push_back(std::strtoull(p, &p, 10));
  }
  if (all) {
    for (size_t i = 0; i < reached.size(); ++i)
      for (uint64_t n = 1; n <= reached[i]; ++n) cases.emplace_back(static_cast<Iface>(i), n);
  } else {
    // Every interface once, then draws over all calls. The one sure call of
    // an interface comes from the first half of its calls: the later ones
    // hang on the timers and the threads' order, and a run may not reach
    // them.
    std::mt19937 draw(seed);
    std::set<std::pair<Iface, uint64_t>> chosen;
    uint64_t total = 0;
    for (size_t i = 0; i < reached.size(); ++i) {
      total += reached[i];
      if (reached[i])
        chosen.emplace(static_cast<Iface>(i), 1 + draw() % std::max<uint64_t>(1, reached[i] / 2));
    }
    while (chosen.size() < std::min<uint64_t>(sample, total)) {
      uint64_t k = draw() % total;
      size_t i = 0;
      while (k >= reached[i]) k -= reached[i++];
      chosen.emplace(static_cast<Iface>(i), k + 1);
    }
    cases.assign(chosen.begin(), chosen.end());
  }
  struct Count {
    uint64_t injected = 0, survived = 0;
  };
  std::vector<Count> counts(kIfaceNames.size());
  std::vector<std::string> failures;
  std::mutex lock;
  std::atomic<size_t> next{0};
  const auto worker = [&] {
    for (size_t k; (k = next++) < cases.size();) {
      const auto [iface, call] = cases[k];
      const Outcome o = Spawn(self, iface, call);
      const std::string fired = Field(o.output, "fired");
      const size_t blank = fired.find(' ');
      std::lock_guard<std::mutex> hold(lock);
      if (fired.empty() && o.verdict.empty()) continue;  // the call was not reached in this run
      Count& c = counts[static_cast<size_t>(iface)];
      ++c.injected;
      if (o.verdict.empty()) {
        ++c.survived;
        continue;
      }
      char line[512];
      std::snprintf(line, sizeof line, "%s call %llu (%s, step %s): %s",
                    kIfaceNames[static_cast<size_t>(iface)], static_cast<unsigned long long>(call),
                    fired.empty() ? "?" : fired.substr(0, blank).c_str(),
                    blank == std::string::npos ? Field(o.output, "step").c_str()
                                               : fired.substr(blank + 1).c_str(),
                    o.verdict.c_str());
      failures.emplace_back(line);
      std::printf("FAILED %s\n", line);
      const size_t tail = o.output.size() > 1500 ? o.output.size() - 1500 : 0;
      std::printf("%s\n", o.output.substr(tail).c_str());
      std::fflush(stdout);
    }
  };
  std::vector<std::thread> threads;
  for (int j = 0; j < jobs; ++j) threads.emplace_back(worker);
  for (auto& t : threads) t.join();

  std::printf("%-14s %8s %9s %9s\n", "interface", "reached", "injected", "survived");
  Count sum;
  uint64_t reachedSum = 0;
  for (size_t i = 0; i < kIfaceNames.size(); ++i) {
    std::printf("%-14s %8llu %9llu %9llu\n", kIfaceNames[i],
                static_cast<unsigned long long>(reached[i]),
                static_cast<unsigned long long>(counts[i].injected),
                static_cast<unsigned long long>(counts[i].survived));
    reachedSum += reached[i];
    sum.injected += counts[i].injected;
    sum.survived += counts[i].survived;
  }
  std::printf("%-14s %8llu %9llu %9llu\n", "all", static_cast<unsigned long long>(reachedSum),
              static_cast<unsigned long long>(sum.injected),
              static_cast<unsigned long long>(sum.survived));
  for (const std::string& f : failures) std::printf("not survived: %s\n", f.c_str());
  // A wrapper that never fires, or a life that never reaches an interface,
  // would let every run pass untouched.
  bool unreached = false;
  for (size_t i = 0; i < kIfaceNames.size(); ++i) {
    if (counts[i].injected != 0) continue;
    std::printf("no fault injected in %s\n", kIfaceNames[i]);
    unreached = true;
  }
  return failures.empty() && !unreached ? 0 : 1;
}

}  // namespace
}  // namespace lindqvar::testing

int main(int argc, char** argv) {
  using namespace lindqvar::testing;
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc == 4 && std::strcmp(argv[1], "--run") == 0) {
    size_t i = 0;
    while (i < kIfaceNames.size() && std::strcmp(kIfaceNames[i], argv[2]) != 0) ++i;
    return RunOne(static_cast<Iface>(i), std::strtoull(argv[3], nullptr, 10));
  }
  const int jobs = std::getenv("SWEEP_JOBS") ? std::atoi(std::getenv("SWEEP_JOBS")) : 2;
  char self[4096] = {};
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return 2;
  if (argc == 4 && std::strcmp(argv[1], "--sample") == 0)
    return Sweep(self, false, jobs, static_cast<uint32_t>(std::atoi(argv[3])),
                 std::strtoul(argv[2], nullptr, 10));
  if (argc == 1) return Sweep(self, true, jobs, 0, 0);
  std::fprintf(stderr, "usage: fault_sweep [--sample N SEED | --run IFACE CALL]\n");
  return 2;
}
