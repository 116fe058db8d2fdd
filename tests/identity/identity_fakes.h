// Fakes of the identity code's platform interfaces: accounts and tokens, a
// console runner with a scripted pipe, adapter lists, Hyper-V ports, and a
// support library whose registry helpers read a FakeRegistry.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "identity/terminal_session.h"
#include "platform/accounts.h"
#include "platform/adapters.h"
#include "platform/console_runner.h"
#include "platform/hyperv.h"
#include "tests/fakes/fake_platform.h"

namespace lindqvar::testing {

// Tokens count their closes on the accounts fake that made them.
class FakeToken : public IUserToken {
 public:
  FakeToken(std::atomic<int>& closed, int id) : m_closed(closed), m_id(id) {}
  ~FakeToken() override {
    if (m_open) ++m_closed;
  }
  void* Native() const override { return reinterpret_cast<void*>(static_cast<intptr_t>(m_id)); }
  int id() const { return m_id; }
  void Abandon() { m_open = false; }

 private:
  std::atomic<int>& m_closed;
  int m_id;
  bool m_open = true;
};

class FakeAccounts : public IAccounts {
 public:
  struct User {
    SidBytes sid;
    std::u16string name;
    std::u16string domain;
    bool lookupFails = false;
    bool tokenInformationFails = false;
    int linkedTokenId = 0;  // 0: no linked token
    // The logon session's DNS domain; unset: the session data is unavailable.
    std::optional<std::u16string> sessionDnsDomain{};
  };

  // A session with this user; sessions not set fail with `queryError`.
  void SetUser(uint32_t session, User user) { m_users[session] = std::move(user); }

  bool HasQueryUserToken() override { return hasQueryUserToken; }
  bool QueryUserToken(uint32_t session, std::unique_ptr<IUserToken>& token) override;
  std::unique_ptr<IUserToken> LinkedToken(IUserToken& token) override;
  bool TokenUserSid(IUserToken& token, SidBytes& sid) override;
  bool LookupSidAccount(const SidBytes& sid, std::u16string& name, std::u16string& domain) override;
  bool LogonSessionDnsDomain(IUserToken& token, std::u16string& dnsDomain) override;
  std::u16string ComputerName() override { return computerName; }
  uint32_t LastError() override { return m_lastError; }
  void AbandonToken(std::unique_ptr<IUserToken> token) override;

  bool hasQueryUserToken = true;
  uint32_t queryError = kErrorNotLoggedOn;  // for sessions without a user
  uint32_t tokenInformationError = 6;       // ERROR_INVALID_HANDLE
  std::u16string computerName = u"WORKSTATION7";
  std::atomic<int> tokensClosed{0};
  std::atomic<int> tokensAbandoned{0};
  // Tokens handed out; each keeps its entry in the token map.
  int TokensIssued() const { return m_nextToken - 100; }

 private:
  const User* UserOf(IUserToken& token) const;
  std::map<uint32_t, User> m_users;
  std::map<int, uint32_t> m_tokenSession;  // token id -> session
  int m_nextToken = 100;
  uint32_t m_lastError = 0;
};

// One step of a scripted pipe: bytes that become available at once, or a
// number of polls that find nothing.
struct PipeStep {
  std::string bytes;
  uint32_t emptyPolls = 0;
  bool peekFails = false;
  bool readFails = false;  // the read of this step's bytes fails once
};

class FakeConsoleRunner : public IConsoleRunner {
 public:
  ConsoleStart Start(IUserToken& token, const std::string& program, const std::string& arguments,
                     std::unique_ptr<IConsolePipe>& pipe) override;

  ConsoleStart result;  // a failure to report instead of starting
  std::vector<PipeStep> script;
  // What the last start saw.
  std::vector<std::string> commandLines;
  std::optional<intptr_t> lastToken;  // native value of the token
  // Calls made on the pipe.
  std::shared_ptr<int> peeks = std::make_shared<int>(0);
  std::shared_ptr<int> reads = std::make_shared<int>(0);
};

class FakeAdapters : public IAdapters {
 public:
  uint32_t AllocateAdaptersAddresses(std::vector<AdapterAddresses>& out) override {
    if (addressesError == 0) out = addresses;
    return addressesError;
  }
  uint32_t GetAdaptersInfo(std::vector<AdapterInfo>& out) override {
    if (infoError == 0) out = infos;
    return infoError;
  }
  std::vector<AdapterAddresses> addresses;
  uint32_t addressesError = 0;
  std::vector<AdapterInfo> infos;
  uint32_t infoError = 0;
};

class FakeHyperV : public IHyperV {
 public:
  void QueryExternalPorts(std::vector<HyperVPortRow>& out) override { out = rows; }
  std::vector<HyperVPortRow> rows;
};

// The support library's registry helpers over a FakeRegistry's
// HKEY_LOCAL_MACHINE, so that they and IRegistry see the same keys.
class RegistrySupport : public FakeSupport {
 public:
  explicit RegistrySupport(FakeRegistry& registry) : m_registry(registry) {}
  SupportKeyHandle reg_openkeyW(SupportHive hive, std::u16string_view path) override;
  void reg_closekeyW(SupportKeyHandle key) override;
  bool reg_getstringW(SupportKeyHandle key, std::u16string_view name, std::u16string& value,
                      uint32_t* length) override;
  bool reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) override;
  int OpenKeys() const { return static_cast<int>(m_registry.OpenSupportKeys()); }

 private:
  FakeRegistry& m_registry;
};

// Everything the agent takes from the system, made of fakes.
struct FakeAgentPlatform : FakePlatform {
  FakeAccounts accounts;
  FakeAdapters adapters;
  FakeConsoleRunner console;
  FakeHyperV hyperv;
  Platform Get() {
    Platform p = FakePlatform::Get();
    p.accounts = &accounts;
    p.adapters = &adapters;
    p.console = &console;
    p.hyperv = &hyperv;
    return p;
  }
};

// The whole fake system with the user lookup's sources made of it, a log that
// keeps its lines and a console reader that ends after two empty polls
// without sleeping.
struct FakeUserLookup : FakeAgentPlatform {
  FakeUserLookup() : log(support), system{accounts, registry, console, timings} {
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
    timings.consoleIdlePolls = 2;
    timings.consoleIdlePollMs = 0;
  }
  CLog log;
  UserLookup system;
};

// A SID from its identifier authority (6 bytes) and sub-authorities.
SidBytes MakeSid(std::array<uint8_t, 6> authority, std::vector<uint32_t> subAuthorities);
// S-1-5-21-<a>-<b>-<c>-<rid>
SidBytes DomainSid(uint32_t rid);

}  // namespace lindqvar::testing
