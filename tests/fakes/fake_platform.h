// In-memory stand-ins for the platform interfaces, for native tests.
#pragma once

#include <atomic>
#include <cctype>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/accounts.h"
#include "platform/adapters.h"
#include "platform/console_runner.h"
#include "platform/event.h"
#include "platform/hyperv.h"
#include "platform/platform.h"
#include "tests/fakes/fake_security_package.h"

namespace lindqvar::testing {

class FakeRegistry;

// The support library: a log that remembers its lines, catalogue events, a
// settings record the test writes, and a desired status the test sets. Its
// registry helpers read `registry`'s HKEY_LOCAL_MACHINE (without one, every
// key is missing), so that they and IRegistry see the same keys.
class FakeSupport : public ISupportLibrary {
 public:
  struct Line {
    bool error;
    std::string text;
  };

  // Settings record fields.
  void SetSettings(uint32_t enabled, const std::u16string& servers, const std::u16string& key,
                   uint32_t category = 0, uint32_t preferAzure = 0);
  void SetLogging(uint32_t enabled, uint32_t level);
  void SetDesiredStatus(uint32_t status) { m_desired = status; }

  std::vector<Line> Lines() const { return Locked(m_lines); }
  bool HasLine(const std::string& text) const;
  size_t CountLines(const std::string& text) const;
  std::vector<std::string> LinesStartingWith(const std::string& prefix) const;
  bool Logged(const std::string& prefix) const { return !LinesStartingWith(prefix).empty(); }
  std::vector<uint32_t> CatalogueEvents() const { return Locked(m_events); }
  // Events written with a level and pairs: "<id> <level> key=value key=value".
  std::vector<std::string> FieldEvents() const { return Locked(m_fieldEvents); }
  std::vector<uint32_t> LevelsSet() const { return Locked(m_levels); }
  int OpenLogs() const { return m_openLogs; }
  std::u16string LastStatusKey() const { return Locked(m_lastKey); }

  LogHandle log_initialize(std::u16string_view name) override;
  void log_deinitialize(LogHandle handle) override;
  void log_setlevel(LogHandle handle, uint32_t level) override;
  void log_debug(LogHandle, std::string_view line) override { Record(false, line); }
  void log_error(LogHandle, std::string_view line) override { Record(true, line); }
  void LogW(uint32_t eventId, const char16_t* data) override;
  void LogW(uint32_t eventId, uint32_t level, std::span<const LogField> fields) override;
  uint32_t get_desired_status(uint32_t component, std::u16string_view key) override;
  void cfg_get_lindqvar_settings(uint8_t* record) override;
  void cfg_get_logging_info(uint8_t* record) override;
  bool cfg_is_fips_mode_enabled() override { return fips; }
  bool cfg_get_velmora_guid(std::u16string& guid) override;
  SupportKeyHandle reg_openkeyW(SupportHive hive, std::u16string_view path) override;
  void reg_closekeyW(SupportKeyHandle key) override;
  bool reg_getstringW(SupportKeyHandle key, std::u16string_view name, std::u16string& value,
                      uint32_t* length) override;
  bool reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) override;
  bool GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) override;

  // False: log lines and events are dropped, so that a long run's memory is
  // the agent's alone.
  std::atomic<bool> keepRecords{true};
  std::u16string guid;  // empty: cfg_get_velmora_guid fails
  bool fips = false;     // what cfg_is_fips_mode_enabled says
  FakeRegistry* registry = nullptr;
  // Sessions whose token GetTokenOfSession gives: id -> (domain, user).
  std::map<uint32_t, std::pair<std::string, std::string>> sessionUsers;

 private:
  template <class T>
  T Locked(const T& value) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return value;
  }
  void Record(bool error, std::string_view line);
  mutable std::mutex m_mutex;
  uint8_t m_settings[settings_record::kSize] = {};
  uint8_t m_logging[logging_record::kSize] = {};
  std::vector<Line> m_lines;
  std::vector<uint32_t> m_events;
  std::vector<std::string> m_fieldEvents;
  std::vector<uint32_t> m_levels;
  std::atomic<uint32_t> m_desired{0};
  std::u16string m_lastKey;
  int m_openLogs = 0;
  int m_handleSerial = 0;
};

// A registry of keys (which must exist to be opened) holding DWORD and
// string values; every failure code can be forced per key.
class FakeRegistry : public IRegistry {
 public:
  void AddKey(RegistryHive hive, const std::u16string& path);
  void RemoveKey(RegistryHive hive, const std::u16string& path);
  void FailSetValue(uint32_t error) { m_setError = error; }
  bool GetDword(RegistryHive hive, const std::u16string& path, const std::u16string& name,
                uint32_t& value) const;
  void SetString(RegistryHive hive, const std::u16string& path, const std::u16string& name,
                 const std::u16string& value);
  // A value of any type, as stored (what QueryValue answers for it).
  void SetValue(RegistryHive hive, const std::u16string& path, const std::u16string& name,
                uint32_t type, std::vector<uint8_t> data);
  size_t DwordWrites() const { return m_dwordWrites; }
  std::vector<uint32_t> AccessMasks() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_access;
  }

  uint32_t OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                   std::unique_ptr<IRegistryKey>& key) override;
  uint32_t OpenKey(SupportKeyHandle parent, std::u16string_view path, uint32_t access,
                   std::unique_ptr<IRegistryKey>& key) override;

  // Keys of a support library that reads this registry (HKEY_LOCAL_MACHINE).
  SupportKeyHandle OpenSupportKey(std::u16string_view path, uint32_t access);
  void CloseSupportKey(SupportKeyHandle key);
  IRegistryKey* SupportKey(SupportKeyHandle key);
  size_t OpenSupportKeys() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_supportKeys.size();
  }

 private:
  friend class FakeRegistryKey;
  struct Values {
    std::map<std::u16string, uint32_t> dwords;
    std::map<std::u16string, std::u16string> strings;
    std::map<std::u16string, std::pair<uint32_t, std::vector<uint8_t>>> raw;
  };
  static std::u16string Lower(std::u16string_view s);
  mutable std::mutex m_mutex;
  std::map<std::pair<RegistryHive, std::u16string>, Values> m_keys;
  uint32_t m_setError = 0;
  size_t m_dwordWrites = 0;
  std::vector<uint32_t> m_access;
  std::map<SupportKeyHandle, std::unique_ptr<IRegistryKey>> m_supportKeys;
  uintptr_t m_nextSupportKey = 0x5000;
};

class FakeNetwork : public INetwork {
 public:
  void Startup() override { ++startups; }
  void Cleanup() override { ++cleanups; }
  std::string HostName() override { return hostName; }
  int Resolve(const std::string& name, std::vector<ResolvedAddress>& out) override;
  bool PhysicalDnsDomain(std::u16string& d, uint32_t& error) override;
  std::unique_ptr<IAddressChangeWatch> CreateAddressChangeWatch() override;

  static ResolvedAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d);
  static ResolvedAddress V6(std::initializer_list<uint16_t> groups);

  // Replaces a name's addresses while the agent's threads may resolve it.
  void SetNames(const std::string& name, std::vector<ResolvedAddress> addresses);
  // The change event of the last watch made, for tests that signal a change.
  CEvent* WatchChanged() const { return m_watchChanged.load(); }

  std::string hostName = "workstation";
  std::map<std::string, std::vector<ResolvedAddress>> names;
  bool domainFails = false;
  std::u16string domain;
  uint32_t armError = 0;  // what the address-change watch's Arm returns
  std::atomic<int> startups{0}, cleanups{0};

 private:
  mutable std::mutex m_namesLock;
  std::atomic<CEvent*> m_watchChanged{nullptr};
};

class FakeSessions : public ISessions {
 public:
  bool Enumerate(std::vector<SessionInfo>& s) override {
    s = sessions;
    return enumerateSucceeds;
  }
  uint32_t ActiveConsoleSession() override { return consoleSession; }
  std::vector<SessionInfo> sessions;
  bool enumerateSucceeds = true;
  uint32_t consoleSession = kNoSession;
};

// A window whose queue of notifications the test fills; Drain delivers the
// queue to the sink on the pumping thread, and the wait ends for a posted
// notification (or at once while one is queued), as the system's does.
class FakeSessionWindow : public ISessionWindow {
 public:
  bool Create(ISessionNotificationSink& sink) override;
  bool RegisterNotifications() override;
  void Drain() override;
  // Records whether the wait had a limit; a limited one lasts at most a
  // millisecond.
  PumpWait WaitForStopOrMessage(CEvent& stop, uint32_t milliseconds) override;
  void DestroyAndUnregister() override;
  void Post(NotificationKind kind, uint32_t session);

  bool createSucceeds = true;
  std::atomic<int> registrationFailuresLeft{0};
  std::atomic<int> registerCalls{0}, destroyed{0};
  std::atomic<int> timedWaits{0}, untimedWaits{0};
  std::atomic<int> delivered{0};  // notifications handed to the sink

 private:
  std::mutex m_mutex;
  ISessionNotificationSink* m_sink = nullptr;
  std::vector<SessionNotification> m_queue;
  CEvent m_posted{CEvent::ResetPolicy::kAutomatic, CEvent::InitialState::kNotSignaled};
};

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

// The device-registration tool's answers: joined, with a user, and not joined.
inline constexpr char kJoinedOutput[] =
    "+----------------------------------------------------------------------+\r\n"
    "| Device State                                                         |\r\n"
    "+----------------------------------------------------------------------+\r\n"
    "\r\n"
    "             AzureAdJoined : YES\r\n"
    "                  TenantId : 4f1c2b7e-9d3a-4e55-8a61-0c2f7d9b1e44\r\n"
    "    Executing Account Name : AzureAD\\MaraLind, mara.lind@fabrikam.example\r\n";

inline constexpr char kNotJoinedOutput[] = "             AzureAdJoined : NO\r\n";

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

// The worker loops' waits: records every single-event time-out asked for,
// and makes the two-event waits of the address-change threads fail on
// request. The failures start once the gate is opened.
class FakeWaits : public IWaits {
 public:
  enum Side { kWatch = 0, kHandler = 1 };
  explicit FakeWaits(const FakeNetwork& network) : m_network(network) {}
  WaitResult Wait(CEvent& event, uint32_t milliseconds) override;
  int WaitAny(CEvent& first, CEvent& second, uint32_t milliseconds) override;
  std::vector<uint32_t> TimeOuts() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_timeOuts;
  }

  // The next `count` waits of that thread fail with `error`, once Open() ran.
  void FailNext(Side side, int count, uint32_t error) {
    m_failuresLeft[side] = count;
    m_error = error;
  }
  void Open() { m_gate.Set(); }
  std::atomic<int> failed[2] = {0, 0};     // waits made to fail
  std::atomic<int> realWaits[2] = {0, 0};  // waits passed on to the events

 private:
  const FakeNetwork& m_network;
  CEvent m_gate{CEvent::ResetPolicy::kManual, CEvent::InitialState::kNotSignaled};
  std::atomic<int> m_failuresLeft[2] = {0, 0};
  std::atomic<uint32_t> m_error{0};
  mutable std::mutex m_mutex;
  std::vector<uint32_t> m_timeOuts;
};

// Polls `condition` every millisecond for at most `limitMs`; its last value.
bool WaitUntil(const std::function<bool()>& condition, uint32_t limitMs = 20000);

// The bytes a registry value stores: a DWORD, or UTF-16LE text with its
// terminator (NULs inside the text separate the strings of a multi-string).
std::vector<uint8_t> DwordBytes(uint32_t value);
std::vector<uint8_t> TextBytes(std::u16string_view text);

// A SID from its identifier authority (6 bytes) and sub-authorities.
SidBytes MakeSid(std::array<uint8_t, 6> authority, std::vector<uint32_t> subAuthorities);
// S-1-5-21-<a>-<b>-<c>-<rid>
SidBytes DomainSid(uint32_t rid);

// A test name from a table row's name: letters and digits, the rest '_'.
inline const auto RowName = [](const auto& info) {
  std::string n = info.param.name;
  for (char& c : n) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return n;
};

// Everything the agent takes from the system, made of the fakes above, with
// short timings.
struct FakePlatform {
  FakeSupport support;
  FakeRegistry registry;
  FakeNetwork network;
  FakeSessions sessions;
  FakeSessionWindow window;
  FakeSecurityPackage ntlm;
  FakeImpersonation impersonation;
  FakeWaits waits{network};
  FakeAccounts accounts;
  FakeAdapters adapters;
  FakeConsoleRunner console;
  FakeHyperV hyperv;
  Timings timings = ShortTimings();

  static Timings ShortTimings();
  Platform Get();
};

}  // namespace lindqvar::testing
