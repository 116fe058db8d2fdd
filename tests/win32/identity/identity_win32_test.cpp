// The identity code on Wine's own token, accounts, registry, pipes, IP
// helper and WMI, with a stand-in dsregcmd.exe installed into the prefix's
// system folder (the only place the agent takes it from).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "identity/address_discovery.h"
#include "identity/address_text.h"
#include "identity/azure.h"
#include "identity/identifiers.h"
#include "identity/terminal_session.h"
#include "platform/os.h"
#include "platform/win32/accounts_win32.h"
#include "platform/win32/adapters_win32.h"
#include "platform/win32/console_runner_win32.h"
#include "platform/win32/hyperv_win32.h"
#include "platform/win32/network_win32.h"
#include "platform/win32/registry_win32.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/support_win32.h"
#include "platform/win32/windows_include.h"
#include "tests/fakes/fake_platform.h"
#include "tests/win32/lib/registry_writer.h"

#include <sddl.h>

namespace lindqvar::win32 {
namespace {

using testing::FakeSupport;
using testing::kJoinedOutput;
using testing::kNotJoinedOutput;

std::string TempPath(const char* name) {
  char dir[MAX_PATH];
  ::GetTempPathA(MAX_PATH, dir);
  return std::string(dir) + name;
}

// Chooses what the stand-in prints; the child inherits this environment.
class StandIn {
 public:
  explicit StandIn(const std::string& output) {
    std::ofstream(m_file, std::ios::binary) << output;
    ::SetEnvironmentVariableA("LINDQVAR_DSREG_OUTPUT", m_file.c_str());
    ::SetEnvironmentVariableA("LINDQVAR_DSREG_ARGS", m_args.c_str());
  }
  ~StandIn() {
    for (const char* v : {"LINDQVAR_DSREG_OUTPUT", "LINDQVAR_DSREG_ARGS", "LINDQVAR_DSREG_STDERR"})
      ::SetEnvironmentVariableA(v, nullptr);
    ::DeleteFileA(m_file.c_str());
    ::DeleteFileA(m_args.c_str());
  }
  void Stderr(const char* text) { ::SetEnvironmentVariableA("LINDQVAR_DSREG_STDERR", text); }
  std::string CommandLine() const {
    std::ostringstream s;
    s << std::ifstream(m_args, std::ios::binary).rdbuf();
    return s.str();
  }

 private:
  std::string m_file = TempPath("lindqvar-dsreg-output.txt");
  std::string m_args = TempPath("lindqvar-dsreg-args.txt");
};

// Copies the stand-in built beside this program into the system folder.
class StandInInstaller : public ::testing::Environment {
 public:
  void SetUp() override {
    char self[MAX_PATH] = {};
    std::string built(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
    built = built.substr(0, built.find_last_of("\\/") + 1) + "dsregcmd.exe";
    const std::string installed = SystemProgramPath("dsregcmd.exe");
    ASSERT_FALSE(installed.empty());
    ASSERT_TRUE(::CopyFileA(built.c_str(), installed.c_str(), FALSE))
        << built << " -> " << installed << ": " << ::GetLastError();
  }
};
[[maybe_unused]] const auto* const kStandInInstaller = ::testing::AddGlobalTestEnvironment(new StandInInstaller);

// The Wine user's own token, as the agent would get it for the console session.
std::unique_ptr<IUserToken> UserToken() {
  static CAccountsWin32 accounts;
  static FakeSupport sink;
  static CLog log(sink);
  std::unique_ptr<IUserToken> token;
  EXPECT_EQ(0, QuerySessionUserToken(accounts, log, ::WTSGetActiveConsoleSessionId(), &token, false));
  return token;
}

// The process's open handles. GetProcessHandleCount says 0 under Wine 8,
// so the handle values are probed instead (Wine and Windows give multiples
// of 4, the lowest free one first).
size_t OpenHandleCount() {
  size_t count = 0;
  for (ULONG_PTR value = 4; value < 0x10000; value += 4) {
    DWORD flags = 0;
    if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++count;
  }
  return count;
}

Timings ShortTimings() {
  Timings t;
  t.consoleIdlePolls = 50;
  t.consoleIdlePollMs = 20;  // one second of silence ends the reading
  return t;
}

class ConsoleRunnerUnderWine : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(token); }
  CConsoleRunnerWin32 runner;
  std::string output;
  const std::unique_ptr<IUserToken> token = UserToken();
};

TEST_F(ConsoleRunnerUnderWine, LongOutputArrivesWholeInSeveralReadsAndAMissingProgramFails) {
  std::string expected;
  for (int i = 0; expected.size() < 5000; ++i) {
    expected += "        Line " + std::to_string(i) + " : " + std::string(40, static_cast<char>('a' + i % 26)) + "\r\n";
  }
  StandIn standIn(expected);
  standIn.Stderr("stderr text\r\n");
  ASSERT_EQ(0, RunExternalProgram(runner, ShortTimings(), *token, "dsregcmd.exe", "/status", output));
  EXPECT_EQ(expected + "stderr text\r\n", output);
  // The program seen by its name, started from the system folder although
  // a program of that name sits in this program's folder (searched first).
  EXPECT_EQ("dsregcmd.exe /status\n" + SystemProgramPath("dsregcmd.exe"), standIn.CommandLine());
  // A program that cannot be started.
  output.clear();
  EXPECT_EQ(-2, RunExternalProgram(runner, ShortTimings(), *token, "lindqvar-no-such-tool.exe",
                                   "/status", output));
  EXPECT_EQ("", output);
}

TEST_F(ConsoleRunnerUnderWine, LookupsLeaveNoHandlesBehind) {
  StandIn standIn(kNotJoinedOutput);
  Timings quick;
  quick.consoleIdlePolls = 2;
  quick.consoleIdlePollMs = 10;
  ASSERT_EQ(0, RunExternalProgram(runner, quick, *token, "dsregcmd.exe", "/status", output));
  const size_t before = OpenHandleCount();
  ASSERT_GT(before, 0u);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(0, RunExternalProgram(runner, quick, *token, "dsregcmd.exe", "/status", output));
  }
  const size_t after = OpenHandleCount();
  // Two pipe ends a lookup were left open before: 100 here.
  EXPECT_LE(after, before + 5) << before << " -> " << after;
}

class UserLookupUnderWine : public ::testing::Test {
 protected:
  UserLookupUnderWine()
      : log(support), timings(ShortTimings()), system{accounts, registry, runner, timings} {
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
  }
  void SetUp() override {
    ASSERT_TRUE(accounts.HasQueryUserToken());
    // The user's SID as the system writes it.
    ScopedHandle process;
    ASSERT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, process.receive()));
    alignas(8) BYTE buffer[1000];
    DWORD n = 0;
    ASSERT_TRUE(::GetTokenInformation(process.get(), TokenUser, buffer, sizeof buffer, &n));
    wchar_t* text = nullptr;
    ASSERT_TRUE(::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text));
    sidText = U(text);
    ::LocalFree(text);
    wchar_t name[260];
    DWORD length = 260;
    ASSERT_TRUE(::GetUserNameW(name, &length));
    userName = WideToUtf8(U(name));
    SetDnsDomain(nullptr);
    token = UserToken();
    ASSERT_TRUE(token);
    ASSERT_TRUE(accounts.TokenUserSid(*token, sid));
  }
  void TearDown() override { SetDnsDomain(nullptr); }

  void SetDnsDomain(const wchar_t* text, DWORD type = REG_SZ) {
    SetDnsDomainBytes(text, text ? (std::wcslen(text) + 1) * sizeof(wchar_t) : 0, type);
  }
  // Writes the user's USERDNSDOMAIN as exactly these bytes (null: removes it).
  void SetDnsDomainBytes(const void* bytes, size_t size, DWORD type) {
    const std::u16string env = sidText + u"\\Volatile Environment";
    if (bytes) return SetValue(env, u"USERDNSDOMAIN", type, bytes, size, HKEY_USERS);
    ::RegDeleteKeyValueW(HKEY_USERS, W(env), L"USERDNSDOMAIN");
  }

  FakeSupport support;
  CLog log;
  CAccountsWin32 accounts;
  CRegistryWin32 registry;
  CConsoleRunnerWin32 runner;
  Timings timings;
  UserLookup system;
  CTerminalSession record;
  std::u16string sidText;
  std::string userName;
  std::unique_ptr<IUserToken> token;
  SidBytes sid;
  const uint32_t session = ::WTSGetActiveConsoleSessionId();
};

TEST_F(UserLookupUnderWine, SidTextMatchesTheSystemsAndFindsTheVolatileEnvironment) {
  std::u16string text;
  uint32_t length = 260;
  ASSERT_EQ(1u, SidToText(sid, text, length));
  EXPECT_EQ(sidText, text);
  // Too small a buffer: the system's last error says so.
  ::SetLastError(0);
  length = 10;
  EXPECT_EQ(0u, SidToText(sid, text, length));
  EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), ::GetLastError());

  std::u16string domain;
  EXPECT_EQ(0u, GetUserDnsDomain(registry, sid, domain));
  SetDnsDomain(L"%USERDOMAIN%.TEST", REG_EXPAND_SZ);
  ASSERT_EQ(1u, GetUserDnsDomain(registry, sid, domain));
  EXPECT_EQ(u"%USERDOMAIN%.TEST", domain);  // not expanded
}

TEST_F(UserLookupUnderWine, StringValuesAreReadAsStored) {
  struct Row {
    std::string bytes;
    DWORD type;
    uint32_t result;
    std::u16string text;
    uint32_t length;
  };
  const Row rows[] = {
      {"", REG_SZ, 0, u"", 0},                                    // no bytes: refused
      {std::string("a\0b\0c", 5), REG_SZ, 1, u"abc", 2},         // odd size
      {std::string("a\0b\0\0\0c\0\0\0", 10), REG_SZ, 1, u"ab", 5},  // embedded NUL
      {std::string("C\0O\0R\0P\0", 8), REG_EXPAND_SZ, 1, u"CORP", 4},  // no terminator
      {std::string("\x01\0\0\0", 4), REG_DWORD, 0, u"", 0},
  };
  for (const Row& row : rows) {
    // Text follows the given bytes: the system adds a terminator that the
    // size leaves out only when one follows.
    const std::string stored = row.bytes + "XXXX";
    SetDnsDomainBytes(stored.data(), row.bytes.size(), row.type);
    std::unique_ptr<IRegistryKey> env;
    ASSERT_EQ(0u, registry.OpenKey(RegistryHive::kUsers, sidText + u"\\Volatile Environment",
                                   reg_access::kRead, env));
    std::u16string value = u"unchanged";
    uint32_t length = 99;
    SCOPED_TRACE(row.bytes.size());
    const uint32_t result = RegQueryStringValue(*env, u"USERDNSDOMAIN", value, &length);
    EXPECT_EQ(std::make_tuple(row.result, row.length), std::make_tuple(result, length));
    if (row.result) {
      EXPECT_EQ(row.text, value);
    }
    std::u16string domain;
    EXPECT_EQ(row.result, GetUserDnsDomain(registry, sid, domain));
  }
}

TEST_F(UserLookupUnderWine, DomainUserFromTheVolatileEnvironment) {
  // Wine's logon session answers with no DNS domain, so USERDNSDOMAIN is
  // taken as the fallback it is where a session has none.
  std::u16string sessionDomain = u"unchanged";
  ASSERT_TRUE(accounts.LogonSessionDnsDomain(*token, sessionDomain));
  EXPECT_EQ(u"", sessionDomain);
  SetDnsDomain(L"CORP.EXAMPLE.TEST");
  StandIn standIn(kJoinedOutput);
  ASSERT_EQ(1u, LoadSessionUser(system, record, session, log, 0));
  EXPECT_EQ(std::make_tuple(userName, "CORP.EXAMPLE.TEST", ""),
            std::make_tuple(record.UserName(), record.Domain(), record.TenantId()));
  // The Azure lookup ran too, as the session's user.
  EXPECT_TRUE(support.HasLine(
      "GetAZureSessionUserInfo(), username:mara.lind, domain:fabrikam.example, "
      "tenantID:4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44"));

  ASSERT_EQ(1u, LoadSessionUser(system, record, session, log, 1));
  EXPECT_EQ(std::make_tuple("mara.lind", "4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44"),
            std::make_tuple(record.UserName(), record.TenantId()));
}

TEST_F(UserLookupUnderWine, LocalAccountNeedsAzure) {
  // Wine's account domain is the computer name: a local account.
  std::u16string user, domain;
  ASSERT_EQ(kTsLocalAccount, GetTSSessionUserName(system, log, session, user, domain, 1));
  EXPECT_EQ(userName, WideToUtf8(user));

  {
    StandIn standIn(kNotJoinedOutput);
    EXPECT_EQ(0u, LoadSessionUser(system, record, session, log, 0));
  }
  StandIn standIn(kJoinedOutput);
  ASSERT_EQ(1u, LoadSessionUser(system, record, session, log, 0));
  EXPECT_EQ(std::make_tuple("mara.lind", "fabrikam.example"), std::make_tuple(record.UserName(), record.Domain()));
}

// The endpoint client's identifiers from Wine's registry, through our own
// support library and the registry.
class IdentifiersUnderWine : public ::testing::Test {
 protected:
  IdentifiersUnderWine() : support({}), log(logSink), ids(log, support, registry) {
    log.SetHandle(logSink.log_initialize(u"FA_LINDQ"));
  }
  void SetUp() override { Clean(); }
  void TearDown() override { Clean(); }
  void Clean() {
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, W(kEsnacKeyPath));
    ScopedRegKey parent;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(kVelmoraKeyPath), 0, KEY_ALL_ACCESS,
                        parent.receive()) == ERROR_SUCCESS) {
      ::RegDeleteValueW(parent.get(), L"ClientGuid");
    }
  }
  CSupportLibraryWin32 support;
  CRegistryWin32 registry;
  FakeSupport logSink;
  CLog log;
  CIdentifiers ids;
};

TEST_F(IdentifiersUnderWine, SerialAndTenantRules) {
  const std::u16string guid = u"{3A7C55E1-0D4B-4C1E-9E2F-6B8D1C0A4F93}";
  SetValue(kVelmoraKeyPath, u"ClientGuid", guid);
  SetValue(kEsnacKeyPath, u"hvq_sn", guid + u";VRX-3318-PRIMARY");
  SetValue(kEsnacKeyPath, u"tenantid", u"tenant-eu-7");
  ids.LoadClientUuid();
  ids.LoadVrxSerial();
  ids.LoadVrxTenantId();
  EXPECT_EQ(std::make_tuple("{3A7C55E1-0D4B-4C1E-9E2F-6B8D1C0A4F93}", "VRX-3318-PRIMARY", "tenant-eu-7"),
            std::make_tuple(ids.ClientUuid(), ids.VrxSerial(), ids.VrxTenantId()));

  // (Which serial is taken is the native IdentifiersTest.SerialRows' table.)
  // A value of an odd number of bytes is read, its last byte a unit of its own.
  SetValue(kEsnacKeyPath, u"hvq_sn", u"other;VRX-1");
  SetValue(kEsnacKeyPath, u"SecondaryPingServer", u"mgmt-b.example.test");
  SetValue(kEsnacKeyPath, u"secondary_sn", REG_SZ, "V\0R\0X\0-\0" "7\0" "7\0Z", 13);
  ids.LoadVrxSerial();
  EXPECT_EQ("VRX-77Z", ids.VrxSerial());
}

bool HasUnicast(const AdapterAddresses& adapter, const ResolvedAddress& address) {
  return std::any_of(adapter.unicast.begin(), adapter.unicast.end(), [&](const ResolvedAddress& u) {
    return u.family == address.family && std::memcmp(u.bytes.data(), address.bytes.data(), 16) == 0;
  });
}

class AdaptersUnderWine : public ::testing::Test {
 protected:
  AdaptersUnderWine() : log(support) { log.SetHandle(support.log_initialize(u"FA_LINDQ")); }
  FakeSupport support;
  CLog log;
  CAdaptersWin32 adapters;
  CNetworkWin32 network;
  CHyperVWin32 hyperv;
};

TEST_F(AdaptersUnderWine, BothListsDescribeTheSameAdapters) {
  std::vector<AdapterAddresses> chain;
  ASSERT_EQ(0u, adapters.AllocateAdaptersAddresses(chain));
  bool loopback = false;
  for (const AdapterAddresses& a : chain) loopback = loopback || HasUnicast(a, ParseIPv4Text("127.0.0.1"));
  EXPECT_TRUE(loopback);

  std::vector<AdapterInfo> infos;
  const uint32_t rc = adapters.GetAdaptersInfo(infos);
  if (rc == 232) return;  // only a loopback adapter: the list is empty (ERROR_NO_DATA)
  ASSERT_EQ(0u, rc);
  for (const AdapterInfo& info : infos) {
    if (info.ipAddresses.empty() || info.ipAddresses[0] == "0.0.0.0") continue;
    const ResolvedAddress address = ParseIPv4Text(info.ipAddresses[0]);
    bool found = false;
    for (const AdapterAddresses& a : chain) {
      found = found || (a.description == AnsiToWide(info.description) && HasUnicast(a, address));
    }
    EXPECT_TRUE(found) << info.description << " " << info.ipAddresses[0];
  }
}

TEST_F(AdaptersUnderWine, HyperVQueryIsQuietWithoutTheNamespace) {
  std::vector<HyperVPortRow> rows;
  hyperv.QueryExternalPorts(rows);
  EXPECT_TRUE(rows.empty());
  CAddressDiscovery discovery(log, network, adapters, hyperv, "localhost", 0);
  discovery.LoadHyperVExternalPorts();
  EXPECT_TRUE(discovery.HyperVExternalPorts().empty());
  EXPECT_TRUE(support.Lines().empty());
}

// Run inside a network namespace set up by identity_netns.sh: host name
// "idtest" resolving to addresses of three adapters, one of them virtual
// (hardware address 44:45:53:...).
TEST_F(AdaptersUnderWine, NamespaceAddressesSkipTheVirtualAdapter) {
  if (!std::getenv("LINDQVAR_IDENTITY_NETNS")) GTEST_SKIP() << "needs identity_netns.sh";
  network.Startup();
  EXPECT_EQ("idtest", network.HostName());
  CAddressDiscovery discovery(log, network, adapters, hyperv, network.HostName(), 1);
  discovery.LoadHyperVExternalPorts();
  discovery.BuildVirtualAdapterList();
  const std::vector<ResolvedAddress> excluded = discovery.ExcludedAddresses();
  ASSERT_EQ(1u, excluded.size());
  EXPECT_EQ("10.77.0.5", AddressText(excluded[0]));

  IPv4List ipv4{};
  IPv6List ipv6{};
  uint32_t count4 = 0, count6 = 0;
  discovery.GetIPAddress(&ipv4, count4, &ipv6, count6);
  EXPECT_TRUE(support.HasLine("VPN is down\n"));  // no VPN adapter here
  std::vector<std::string> v4;
  ResolvedAddress a;
  a.family = kFamilyIPv4;
  for (uint32_t i = 0; i < count4; ++i) {
    std::memcpy(a.bytes.data(), &ipv4[i], 4);
    v4.push_back(AddressText(a));
  }
  std::sort(v4.begin(), v4.end());  // in whatever order the resolver gives them
  EXPECT_EQ((std::vector<std::string>{"10.77.0.6", "10.78.0.9"}), v4);
  ASSERT_EQ(1u, count6);
  a.family = kFamilyIPv6;
  std::memcpy(a.bytes.data(), ipv6[0].data(), 16);
  EXPECT_EQ("fd00:77::9", AddressText(a));
  EXPECT_TRUE(support.HasLine("CSessionManager::GetIPAddress:1227 count:2, count6:1\n"));
  network.Cleanup();
}

}  // namespace
}  // namespace lindqvar::win32
