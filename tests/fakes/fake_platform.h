// In-memory stand-ins for the platform interfaces, for native tests.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/event.h"
#include "platform/platform.h"
#include "tests/fakes/fake_security_package.h"

namespace lindqvar::testing {

// The support library: a log that remembers its lines, catalogue events, a
// settings record the test writes, and a desired status the test sets.
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
  bool cfg_is_fips_mode_enabled() override { return false; }
  bool cfg_get_velmora_guid(std::u16string& guid) override;
  // No registry behind it: every key is missing.
  SupportKeyHandle reg_openkeyW(SupportHive, std::u16string_view) override { return nullptr; }
  void reg_closekeyW(SupportKeyHandle) override {}
  bool reg_getstringW(SupportKeyHandle, std::u16string_view, std::u16string&, uint32_t*) override {
    return false;
  }
  bool reg_valueexistsbykeyW(SupportKeyHandle, std::u16string_view) override { return false; }
  bool GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) override;

  // False: log lines and events are dropped, so that a long run's memory is
  // the agent's alone.
  std::atomic<bool> keepRecords{true};
  std::u16string guid;  // empty: cfg_get_velmora_guid fails
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

// A platform made of the fakes above, with short timings.
struct FakePlatform {
  FakeSupport support;
  FakeRegistry registry;
  FakeNetwork network;
  FakeSessions sessions;
  FakeSessionWindow window;
  FakeSecurityPackage ntlm;
  FakeImpersonation impersonation;
  FakeWaits waits{network};
  Timings timings = ShortTimings();

  static Timings ShortTimings();
  Platform Get();
};

}  // namespace lindqvar::testing
