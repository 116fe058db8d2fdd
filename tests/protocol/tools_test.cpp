// The lab authenticator's logon table and output (its program's JSON lines
// are what every Wine scenario reads), the two programs' refusals and
// lindqvar-diag's exit codes against labs on 127.0.0.1, and its report on a
// machine made of fakes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "agent/state.h"
#include "tests/identity/identity_fakes.h"
#include "tests/protocol/tls_test_support.h"
#include "tools/diag/diag.h"
#include "tools/lab_authenticator/lab_output.h"
#include "tools/lab_authenticator/logon_table.h"

namespace lindqvar::testing {
namespace {

using lab::CLogonTable;

SessionRecord Record(uint32_t logon, const std::string& user, std::vector<std::string> v4,
                     std::vector<std::string> v6 = {}) {
  SessionRecord r{.logon = logon, .domain = "CORP", .user = user, .workstation = "WS1.CORP.EXAMPLE"};
  SocketAddress a;
  for (const auto& text : v4) {
    EXPECT_TRUE(SocketAddress::FromLiteral(text, 0, a)) << text;
    std::memcpy(&r.ipv4.emplace_back(), a.bytes.data(), 4);
  }
  for (const auto& text : v6) {
    EXPECT_TRUE(SocketAddress::FromLiteral(text, 0, a)) << text;
    r.ipv6.push_back(a.bytes);
  }
  return r;
}

std::vector<std::string> Addresses(const CLogonTable& t, const std::string& user) {
  for (const auto& e : t.Entries())
    if (e.user == user) return e.addresses;
  return {"<absent>"};
}

// One table through a script of records: a logon reports the user at exactly
// its addresses (a keep-alive replaces them), an address belongs to one user
// (losing the last one drops the entry), and a withdrawing record removes its
// addresses and, without any, the user; one for a user not there changes nothing.
TEST(LogonTable, RecordsMoveAddressesBetweenUsers) {
  const std::string a = "192.0.2.10", b = "192.0.2.11", c = "192.0.2.12";
  const struct {
    uint32_t logon;
    const char* user;
    std::vector<std::string> v4, v6;
    const char* checked;  // the user whose addresses follow
    std::vector<std::string> addresses;
    size_t entries;
  } steps[] = {
      {1, "ALICE", {a, b}, {"fe80::1"}, "ALICE", {a, b, "fe80::1"}, 1},
      {1, "ALICE", {c}, {}, "ALICE", {c}, 1},
      {1, "ALICE", {a, b}, {}, "ALICE", {a, b}, 1},
      {1, "BOB", {a}, {}, "ALICE", {b}, 2},
      {1, "BOB", {a, b}, {}, "ALICE", {"<absent>"}, 1},
      {0, "BOB", {a}, {}, "BOB", {b}, 1},
      {0, "BOB", {b}, {}, "BOB", {"<absent>"}, 0},
      {1, "ALICE", {a}, {}, "ALICE", {a}, 1},
      {0, "CAROL", {}, {}, "ALICE", {a}, 1},
      {0, "ALICE", {}, {}, "ALICE", {"<absent>"}, 0},
  };
  CLogonTable t;
  for (size_t i = 0; i < std::size(steps); ++i) {
    SCOPED_TRACE(i);
    t.Apply(Record(steps[i].logon, steps[i].user, steps[i].v4, steps[i].v6), "agent", 100 * (i + 1));
    EXPECT_EQ(steps[i].addresses, Addresses(t, steps[i].checked));
    EXPECT_EQ(steps[i].entries, t.Entries().size());
    const std::time_t since = 100, lastSeen = 200;  // ALICE's first logon, then the keep-alive
    if (i == 1) {
      EXPECT_EQ(std::tie(since, lastSeen), std::tie(t.Entries()[0].since, t.Entries()[0].lastSeen));
    } else if (i == 3) {
      EXPECT_EQ("BOB", t.FindByAddress(a)->user);
    }
  }
  EXPECT_NE(std::string::npos, t.FormatText().find("nobody"));
}

TEST(LabOutput, JsonLinesQuoteEverythingAProgramMustParse) {
  EXPECT_EQ("\"a\\\"b\\\\c\\n\\u0001\"", lab::JsonQuote("a\"b\\c\n\x01"));
  CLogonTable t;
  t.Apply(Record(1, "AL\"ICE", {"192.0.2.10"}), "127.0.0.1:5000", 0);
  const std::string json = lab::JsonTable(t);
  EXPECT_NE(std::string::npos, json.find("\"user\":\"AL\\\"ICE\""));
  EXPECT_NE(std::string::npos, json.find("\"addresses\":[\"192.0.2.10\"]"));
  EXPECT_EQ(std::string::npos, json.find('\n'));

  lab::ConnectionReport r;
  r.records.push_back(Record(1, "ALICE", {"192.0.2.10"}, {"fe80::1"}));
  r.end = "complete";
  const std::string line = lab::JsonConnection(r);
  EXPECT_NE(std::string::npos, line.find("\"ipv6\":[\"fe80::1\"]"));
  EXPECT_NE(std::string::npos, line.find("\"end\":\"complete\""));
}

// --- the programs -------------------------------------------------------------------

struct RunResult {
  int exitCode = -1;
  std::string output;
};

RunResult RunProgram(const std::string& command) {
  RunResult r;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (!p) return r;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, p)) > 0) r.output.append(buffer, n);
  const int status = pclose(p);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::string KeyFile(const std::string& key) {
  const std::string path = ::testing::TempDir() + "lindqvar-test-key.txt";
  std::ofstream(path) << key << "\n";
  return path;
}

// Each row: the command, the exit code, and texts the output holds. The
// server verification of the other CA's server is reported whatever the
// setting and enforced when asked; the lab refuses to start without being
// told where to listen.
TEST(DiagProgram, ExitCodesTellWhatWentWrong) {
  const std::string diagTool = std::string(LINDQVAR_DIAG_BINARY) + " ";
  CLabFixture good(CLabFixture::Options("diag-key"));
  CLabFixture foreign(CLabFixture::Options("diag-key", "other-server"));
  auto longOptions = CLabFixture::Options("diag-key");
  longOptions.fault = lab::Fault::kLongVersion;
  CLabFixture longVersion(longOptions);
  const auto server = [](const CLabFixture& lab) { return " --server 127.0.0.1:" + std::to_string(lab.Port()); };
  const std::string pin = CertificateFingerprint(PkiFile("server.pem"));
  const struct {
    std::string command;
    int exitCode;
    std::vector<std::string> holds;
  } rows[] = {
      {diagTool + "check" + server(good) + " --key wrong-key", diag::kExitAllFailed,
       {"FAILED at hello-reject: the server rejected the hello: check the preshared key",
        "please check your preshared key"}},
      {diagTool + "check" + server(good) + " --server 127.0.0.1:" + std::to_string(ClosedPort()) + " --key-file " +
           KeyFile("diag-key"),
       diag::kExitSomeFailed,
       {"FAILED at connect", "Server verification off: every server is accepted", "hello accepted",
        "server verification: passes (the chain verifies against the built-in CA bundle, the "
        "certificate is issued for 127.0.0.1)",
        "1 of 2 server(s) passed"}},
      {diagTool + "check --key diag-key", diag::kExitNotConfigured, {}},
      {diagTool + "send" + server(good) + " --key diag-key --user bob", diag::kExitUsage,
       {"send needs --user, --domain and --workstation"}},
      {diagTool + "check --server 127.0.0.1:99999", diag::kExitUsage, {}},
      {diagTool + "check" + server(foreign) + " --key diag-key", diag::kExitOk,
       {"SHA-256 " + CertificateFingerprint(PkiFile("other-server.pem")),
        "unable to get local issuer certificate; with VerifyServer 0 the agent connects all the same"}},
      {diagTool + "check" + server(foreign) + server(good) + " --key diag-key --verify-server", diag::kExitSomeFailed,
       {"the agent refuses this server", "FAILED at verify"}},
      {diagTool + "check" + server(good) + " --key diag-key --verify-server --pin " + pin, diag::kExitOk,
       {"pin list of 1 fingerprint(s) (--pin)", "it is in the pin list"}},
      {diagTool + "check" + server(good) + " --pin 0123", diag::kExitUsage, {}},
      {diagTool + "check" + server(longVersion) + " --key diag-key", diag::kExitAllFailed, {"FAILED at hello-parse"}},
  };
  for (const auto& row : rows) {
    const RunResult r = RunProgram(row.command);
    EXPECT_EQ(row.exitCode, r.exitCode) << row.command << "\n" << r.output;
    for (const std::string& text : row.holds)
      EXPECT_NE(std::string::npos, r.output.find(text)) << text << "\n" << r.output;
  }
  // check sends the servers that accept its key no event.
  const auto reports = good.WaitReports(4);
  ASSERT_EQ(4u, reports.size());
  EXPECT_EQ(1u, reports[1].helloResult);
  for (const auto& report : reports) EXPECT_FALSE(report.eventReceived);
}

// --- the report, on a machine of fakes ------------------------------------------------

class FakeServiceStatus : public IServiceStatus {
 public:
  ServiceRunState Query(std::u16string_view name, uint32_t& error) override {
    error = 0;
    return name == diag::kAgentServiceName ? ServiceRunState::kRunning : ServiceRunState::kNotInstalled;
  }
};

// Host pc7 in corp.example: its name resolves to a loopback, a reported
// IPv4 and IPv6 address and a link-local one. Session 2 is a service account
// on the ExcludedUsers list, 3 the active user, and the console session 1,
// which the system does not list, has nobody. Three servers: a literal, a
// name, and a name that does not resolve.
struct ReportMachine : FakePlatform {
  ReportMachine() {
    support.SetSettings(1, u"127.0.0.1:8001;auth.corp.example;gone.example", u"report-key-3141");
    support.guid = u"{5EED0000-1111-2222-3333-444455556666}";
    registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
    registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, kStateValueName, 4, {2, 0, 0, 0});
    Exclude(u"svc_*;bad\\x\\y");
    network.hostName = "pc7";
    network.domain = u"corp.example";
    network.names["pc7"] = {FakeNetwork::V4(127, 0, 1, 1), FakeNetwork::V4(10, 0, 0, 5),
                            FakeNetwork::V6({0xfd00, 0, 0, 0, 0, 0, 0, 5}),
                            FakeNetwork::V6({0xfe80, 0, 0, 0, 0, 0, 0, 1})};
    network.names["auth.corp.example"] = {FakeNetwork::V4(192, 0, 2, 7)};
    sessions.sessions = {{2, SessionState::kDisconnected}, {3, SessionState::kActive}};
    sessions.consoleSession = 1;
    User(2, u"svc_backup", 500);
    User(3, u"alice", 1107);
    timings.consoleIdlePolls = 1;
    timings.consoleIdlePollMs = 0;
  }
  void User(uint32_t session, const std::u16string& name, uint32_t rid) {
    accounts.SetUser(session, {DomainSid(rid), name, u"CORP", false, false, 0, u"CORP.EXAMPLE"});
  }
  void Exclude(const std::u16string& patterns) {
    registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, u"ExcludedUsers", 7, TextBytes(patterns));
  }
  // The report's exit code and output.
  std::pair<int, std::string> Report(bool json) {
    diag::DiagOptions options;
    options.command = "report";
    options.json = json;
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    FakeServiceStatus services;
    const int code = diag::RunReport(options, Get(), &services, out, stderr);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return {code, result};
  }
};

TEST(DiagReport, SaysWhatTheAgentWouldReportAndWhy) {
  ReportMachine machine;
  // Each row: a change to the machine, the exit code, and what the text
  // output (or, for a row starting with "{", the JSON output) holds.
  const struct {
    std::function<void(ReportMachine&)> change;
    int exitCode;
    bool json;
    std::vector<std::string> holds;
  } rows[] = {
      {[](ReportMachine&) {}, diag::kExitOk, false,
       {"service LindqvarAgent: running", "LINDQState 2 (CONFIGURED_REACHABLE)", "preshared key: set",
        "server 1: 127.0.0.1 port 8001: resolves to 127.0.0.1; the agent connects to 127.0.0.1",
        "server 2: auth.corp.example port 8001: resolves to 192.0.2.7; the agent connects to 192.0.2.7",
        "server 3: gone.example port 8001: does not resolve (error 11001); the agent uses the last "
        "address it obtained, 192.0.2.7",
        "ExcludedUsers: svc_*\n  WARNING: ExcludedUsers entry with more than one backslash is skipped: bad\\x\\y\n"
        "  ResendLogoff off",
        "host name pc7, DNS domain corp.example",
        "device UUID {5EED0000-1111-2222-3333-444455556666}, management-server serial (none)",
        "left out 127.0.1.1: loopback", "sent     10.0.0.5", "sent     fd00::5",
        "left out fe80::1: link-local",
        "session 2 (disconnected): CORP.EXAMPLE\\SVC_BACKUP from the domain lookup; EXCLUDED by the "
        "ExcludedUsers entry svc_*",
        "session 3 (active; current): CORP.EXAMPLE\\ALICE from the domain lookup\n",
        "session 1 (console session, not listed by the system): no user: nobody is logged on",
        "the agent reports session 3: user ALICE, domain CORP.EXAMPLE, workstation "
        "PC7.CORP.EXAMPLE, addresses 10.0.0.5, fd00::5"}},
      {[](ReportMachine&) {}, diag::kExitOk, true,
       {"\"presharedKey\": \"set\"", "\"agentState\": {\n    \"value\": 2,",
        "\"address\": \"127.0.1.1\",\n        \"source\": \"host-name\",\n        \"reason\": \"loopback\"",
        "\"ipv4\": [\n      \"10.0.0.5\"\n    ]", "\"excludedBy\": \"svc_*\"",
        "\"resendLogoff\": false", "\"reports\": true,\n    \"session\": 3,"}},
      // The user of the current session on the list.
      {[](ReportMachine& m) {
         m.Exclude(u"CORP.EXAMPLE\\al*");
         m.registry.SetValue(RegistryHive::kLocalMachine, kAgentKeyPath, u"ResendLogoff", 4, {1, 0, 0, 0});
       },
       diag::kExitNothingReported, false,
       {"ResendLogoff on", "nothing is reported: the current session 3 is excluded by the ExcludedUsers entry "
        "CORP.EXAMPLE\\al*"}},
      // Run as an administrator rather than as the agent's account.
      {[](ReportMachine& m) { m.sessions.sessions = {{4, SessionState::kActive}}; m.accounts.queryError = 1314; },
       diag::kExitNothingReported, true,
       {"\"domainLookup\": \"failed\",\n      \"domainLookupError\": 1314,",
        "needs the privilege of the account the agent runs as (LocalSystem)"}},
      // No settings key: the agent's start-up reads no settings.
      {[](ReportMachine& m) { m.registry.RemoveKey(RegistryHive::kLocalMachine, kAgentKeyPath); m.network.names.erase("pc7"); },
       diag::kExitNotConfigured, false,
       {"LINDQState not written", "FA_LINDQ: MISSING)", "preshared key: not set", "no server\n",
        "the host name does not resolve (error 11001)", "nothing is reported: no server is configured",
        "nothing is reported: no address to report"}},
  };
  for (const auto& row : rows) {
    row.change(machine);
    const auto [code, output] = machine.Report(row.json);
    EXPECT_EQ(row.exitCode, code) << output;
    for (const std::string& text : row.holds) EXPECT_NE(std::string::npos, output.find(text)) << text << "\n" << output;
    EXPECT_EQ(std::string::npos, output.find("report-key")) << output;  // never the key
  }
}

TEST(DiagArguments, ServersKeepIPv6BracketsAndDefaultThePort) {
  diag::DiagOptions o;
  std::string error;
  ASSERT_TRUE(diag::ParseArguments({"check", "--server", "[::1]", "--server", "h.example:9", "--ip", "fe80::2"}, o, error)) << error;
  EXPECT_EQ((std::vector<std::string>{"[::1]", "h.example:9"}), o.servers);
  EXPECT_EQ(1u, o.event.ipv6.size());
  EXPECT_FALSE(diag::ParseArguments({"check", "--server", "[::1"}, o, error));
  EXPECT_FALSE(diag::ParseArguments({"check", "send"}, o, error));
  EXPECT_FALSE(diag::ParseArguments({"check", "--ip", "not-an-address"}, o, error));
  EXPECT_FALSE(diag::ParseArguments({}, o, error));
  // report reads the agent's own settings and takes only --json and --verbose.
  EXPECT_TRUE(diag::ParseArguments({"report", "--json", "--verbose"}, o, error) && o.json) << error;
  EXPECT_FALSE(diag::ParseArguments({"report", "--server", "h.example"}, o, error));
  EXPECT_EQ("report reads the agent's own settings; --server is for check and send", error);
  EXPECT_FALSE(diag::ParseArguments({"check", "--json"}, o, error));
}

}  // namespace
}  // namespace lindqvar::testing
