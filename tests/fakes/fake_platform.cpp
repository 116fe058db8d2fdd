#include "tests/fakes/fake_platform.h"

#include <algorithm>

#include "platform/event.h"
#include "platform/os.h"

namespace lindqvar::testing {

namespace {
void PutU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void PutWide(uint8_t* p, const std::u16string& s, size_t maxUnits) {
  for (size_t i = 0; i < maxUnits; ++i) {
    const char16_t u = i < s.size() ? s[i] : 0;
    p[2 * i] = static_cast<uint8_t>(u & 0xFF);
    p[2 * i + 1] = static_cast<uint8_t>(u >> 8);
  }
}
}  // namespace

void FakeSupport::SetSettings(uint32_t enabled, const std::u16string& servers,
                              const std::u16string& key, uint32_t category, uint32_t preferAzure) {
  namespace r = settings_record;
  std::lock_guard<std::mutex> lock(m_mutex);
  std::memset(m_settings, 0, sizeof m_settings);
  PutU32(m_settings + r::kEnabled, enabled);
  PutU32(m_settings + r::kAddressCategory, category);
  PutU32(m_settings + r::kPreferAzure, preferAzure);
  PutWide(m_settings + r::kServerList, servers, r::kServerListUnits);
  PutWide(m_settings + r::kPresharedKey, key, r::kPresharedKeyUnits);
}

void FakeSupport::SetLogging(uint32_t enabled, uint32_t level) {
  std::lock_guard<std::mutex> lock(m_mutex);
  PutU32(m_logging + logging_record::kEnabled, enabled);
  PutU32(m_logging + logging_record::kLevel, level);
}

bool FakeSupport::HasLine(const std::string& text) const { return CountLines(text) > 0; }

size_t FakeSupport::CountLines(const std::string& text) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return static_cast<size_t>(
      std::count_if(m_lines.begin(), m_lines.end(), [&](const Line& l) { return l.text == text; }));
}

std::vector<std::string> FakeSupport::LinesStartingWith(const std::string& prefix) const {
  std::vector<std::string> out;
  for (const Line& l : Lines())
    if (l.text.compare(0, prefix.size(), prefix) == 0) out.push_back(l.text);
  return out;
}

LogHandle FakeSupport::log_initialize(std::u16string_view name) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ++m_openLogs;
  // Any distinct non-null value serves as a handle; it is never dereferenced.
  return reinterpret_cast<LogHandle>(static_cast<uintptr_t>(0x1000 + ++m_handleSerial));
}

void FakeSupport::log_deinitialize(LogHandle) {
  std::lock_guard<std::mutex> lock(m_mutex);
  --m_openLogs;
}

void FakeSupport::log_setlevel(LogHandle, uint32_t level) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_levels.push_back(level);
}

void FakeSupport::Record(bool error, std::string_view line) {
  if (!keepRecords) return;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.push_back({error, std::string(line)});
}

void FakeSupport::LogW(uint32_t eventId, const char16_t*) {
  if (!keepRecords) return;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_events.push_back(eventId);
}

void FakeSupport::LogW(uint32_t eventId, uint32_t level, std::span<const LogField> fields) {
  if (!keepRecords) return;
  std::string text = std::to_string(eventId) + " " + std::to_string(level);
  for (const LogField& f : fields) text += " " + WideToUtf8(f.key) + "=" + WideToUtf8(f.value);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_events.push_back(eventId);
  m_fieldEvents.push_back(std::move(text));
}

uint32_t FakeSupport::get_desired_status(uint32_t component, std::u16string_view key) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lastKey = std::u16string(key);
  return component == kDesiredStatusComponent ? m_desired.load() : 0;
}

void FakeSupport::cfg_get_lindqvar_settings(uint8_t* record) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::memcpy(record, m_settings, sizeof m_settings);
}

void FakeSupport::cfg_get_logging_info(uint8_t* record) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::memcpy(record, m_logging, sizeof m_logging);
}

bool FakeSupport::cfg_get_velmora_guid(std::u16string& out) {
  if (guid.empty()) return false;
  out = guid;
  return true;
}

SupportKeyHandle FakeSupport::reg_openkeyW(SupportHive, std::u16string_view path) {
  // As our Windows library opens them: for reading, in the 64-bit view.
  return registry ? registry->OpenSupportKey(path, reg_access::kRead | reg_access::kWow64_64Key)
                  : nullptr;
}

void FakeSupport::reg_closekeyW(SupportKeyHandle key) {
  if (registry) registry->CloseSupportKey(key);
}

bool FakeSupport::reg_getstringW(SupportKeyHandle key, std::u16string_view name,
                                 std::u16string& value, uint32_t* length) {
  IRegistryKey* k = registry ? registry->SupportKey(key) : nullptr;
  if (!k || k->QueryString(name, value) != 0) return false;
  if (length) *length = static_cast<uint32_t>(value.size());
  return true;
}

bool FakeSupport::reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) {
  std::u16string ignored;
  return reg_getstringW(key, name, ignored, nullptr);
}

bool FakeSupport::GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto it = sessionUsers.find(session);
  if (it == sessionUsers.end()) return false;
  token = std::make_unique<FakeUserToken>(it->second.first, it->second.second);
  return true;
}

// --- registry ---------------------------------------------------------------

class FakeRegistryKey : public IRegistryKey {
 public:
  FakeRegistryKey(FakeRegistry& r, std::pair<RegistryHive, std::u16string> id, uint32_t access)
      : m_registry(r), m_id(std::move(id)), m_access(access) {}
  uint32_t SetDword(std::u16string_view name, uint32_t value) override {
    std::lock_guard<std::mutex> lock(m_registry.m_mutex);
    if (m_registry.m_setError) return m_registry.m_setError;
    auto it = m_registry.m_keys.find(m_id);
    if (it == m_registry.m_keys.end()) return 1018;  // ERROR_KEY_DELETED
    it->second.dwords[std::u16string(name)] = value;
    ++m_registry.m_dwordWrites;
    return 0;
  }
  // The named value of one of the key's maps: 1018 (ERROR_KEY_DELETED)
  // when the key is gone, 2 when the value is not there.
  template <class Map>
  uint32_t Find(Map FakeRegistry::Values::*map, std::u16string_view name,
                typename Map::mapped_type& value) {
    std::lock_guard<std::mutex> lock(m_registry.m_mutex);
    auto it = m_registry.m_keys.find(m_id);
    if (it == m_registry.m_keys.end()) return 1018;
    auto v = (it->second.*map).find(std::u16string(name));
    if (v == (it->second.*map).end()) return kErrorFileNotFound;
    value = v->second;
    return 0;
  }
  uint32_t QueryString(std::u16string_view name, std::u16string& value) override {
    return Find(&FakeRegistry::Values::strings, name, value);
  }
  // A value stored as raw bytes comes as it is; strings come with their
  // terminator, DWORDs as four bytes.
  uint32_t QueryValue(std::u16string_view name, uint32_t& type, std::vector<uint8_t>& data) override {
    std::pair<uint32_t, std::vector<uint8_t>> raw;
    std::u16string text;
    uint32_t dword = 0;
    uint32_t result = Find(&FakeRegistry::Values::raw, name, raw);
    if (result == 0) {
      std::tie(type, data) = raw;
    } else if ((result = QueryString(name, text)) == 0) {
      type = 1;
      const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
      data.assign(bytes, bytes + (text.size() + 1) * sizeof(char16_t));
    } else if (Find(&FakeRegistry::Values::dwords, name, dword) == 0) {
      type = 4;
      const auto* bytes = reinterpret_cast<const uint8_t*>(&dword);
      data.assign(bytes, bytes + sizeof dword);
      result = 0;
    }
    return result;
  }
  uint32_t OpenSubKey(std::u16string_view path, uint32_t access,
                      std::unique_ptr<IRegistryKey>& key) override {
    return m_registry.OpenKey(m_id.first, m_id.second + u"\\" + std::u16string(path),
                              access | (m_access & reg_access::kViewMask), key);
  }

 private:
  FakeRegistry& m_registry;
  std::pair<RegistryHive, std::u16string> m_id;
  uint32_t m_access;
};

std::u16string FakeRegistry::Lower(std::u16string_view s) {
  std::u16string out(s);
  for (auto& c : out) {
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
  }
  return out;
}

void FakeRegistry::AddKey(RegistryHive hive, const std::u16string& path) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_keys[{hive, Lower(path)}];
}

void FakeRegistry::RemoveKey(RegistryHive hive, const std::u16string& path) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_keys.erase({hive, Lower(path)});
}

bool FakeRegistry::GetDword(RegistryHive hive, const std::u16string& path,
                            const std::u16string& name, uint32_t& value) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_keys.find({hive, Lower(path)});
  if (it == m_keys.end()) return false;
  auto v = it->second.dwords.find(name);
  if (v == it->second.dwords.end()) return false;
  value = v->second;
  return true;
}

void FakeRegistry::SetString(RegistryHive hive, const std::u16string& path,
                             const std::u16string& name, const std::u16string& value) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_keys[{hive, Lower(path)}].strings[name] = value;
}

void FakeRegistry::SetValue(RegistryHive hive, const std::u16string& path,
                            const std::u16string& name, uint32_t type, std::vector<uint8_t> data) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_keys[{hive, Lower(path)}].raw[name] = {type, std::move(data)};
}

uint32_t FakeRegistry::OpenKey(RegistryHive hive, std::u16string_view path, uint32_t access,
                               std::unique_ptr<IRegistryKey>& key) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_access.push_back(access);
  auto id = std::make_pair(hive, Lower(path));
  if (m_keys.find(id) == m_keys.end()) return kErrorFileNotFound;
  key = std::make_unique<FakeRegistryKey>(*this, id, access);
  return 0;
}

uint32_t FakeRegistry::OpenKey(SupportKeyHandle parent, std::u16string_view path,
                               uint32_t access, std::unique_ptr<IRegistryKey>& key) {
  IRegistryKey* parentKey = SupportKey(parent);
  if (!parentKey) return 6;  // ERROR_INVALID_HANDLE
  return parentKey->OpenSubKey(path, access, key);
}

SupportKeyHandle FakeRegistry::OpenSupportKey(std::u16string_view path, uint32_t access) {
  std::unique_ptr<IRegistryKey> key;
  if (OpenKey(RegistryHive::kLocalMachine, path, access, key) != 0) return nullptr;
  std::lock_guard<std::mutex> lock(m_mutex);
  auto handle = reinterpret_cast<SupportKeyHandle>(m_nextSupportKey++);
  m_supportKeys[handle] = std::move(key);
  return handle;
}

void FakeRegistry::CloseSupportKey(SupportKeyHandle key) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_supportKeys.erase(key);
}

IRegistryKey* FakeRegistry::SupportKey(SupportKeyHandle key) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_supportKeys.find(key);
  return it == m_supportKeys.end() ? nullptr : it->second.get();
}

// --- network ----------------------------------------------------------------

namespace {
class FakeWatch : public IAddressChangeWatch {
 public:
  explicit FakeWatch(uint32_t armError) : m_armError(armError) {}
  uint32_t Arm() override { return m_armError; }
  CEvent& Changed() override { return m_changed; }
  void Rearm() override {}

 private:
  uint32_t m_armError;
  CEvent m_changed{CEvent::ResetPolicy::kManual, CEvent::InitialState::kNotSignaled};
};
}  // namespace

int FakeNetwork::Resolve(const std::string& name, std::vector<ResolvedAddress>& out) {
  std::lock_guard<std::mutex> lock(m_namesLock);
  auto it = names.find(name);
  if (it == names.end()) return 11001;  // WSAHOST_NOT_FOUND
  out = it->second;
  return 0;
}

bool FakeNetwork::PhysicalDnsDomain(std::u16string& d, uint32_t& error) {
  d = domain;  // a failed call may still leave text in the buffer
  if (domainFails) error = 0;
  return !domainFails;
}

std::unique_ptr<IAddressChangeWatch> FakeNetwork::CreateAddressChangeWatch() {
  auto watch = std::make_unique<FakeWatch>(armError);
  m_watchChanged = &watch->Changed();
  return watch;
}

void FakeNetwork::SetNames(const std::string& name, std::vector<ResolvedAddress> addresses) {
  std::lock_guard<std::mutex> lock(m_namesLock);
  names[name] = std::move(addresses);
}

ResolvedAddress FakeNetwork::V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  return {kFamilyIPv4, {a, b, c, d}};
}

ResolvedAddress FakeNetwork::V6(std::initializer_list<uint16_t> groups) {
  ResolvedAddress r;
  r.family = kFamilyIPv6;
  size_t i = 0;
  for (uint16_t g : groups) {
    r.bytes[i++] = static_cast<uint8_t>(g >> 8);
    r.bytes[i++] = static_cast<uint8_t>(g & 0xFF);
  }
  return r;
}

// --- window -----------------------------------------------------------------

bool FakeSessionWindow::Create(ISessionNotificationSink& sink) {
  if (!createSucceeds) return false;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_sink = &sink;
  return true;
}

bool FakeSessionWindow::RegisterNotifications() {
  ++registerCalls;
  if (registrationFailuresLeft > 0) {
    --registrationFailuresLeft;
    return false;
  }
  return true;
}

void FakeSessionWindow::Drain() {
  std::vector<SessionNotification> queue;
  ISessionNotificationSink* sink;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    queue.swap(m_queue);
    sink = m_sink;
  }
  for (const SessionNotification& n : queue) {
    sink->OnNotification(n);
    ++delivered;
  }
}

PumpWait FakeSessionWindow::WaitForStopOrMessage(CEvent& stop, uint32_t milliseconds) {
  ++(milliseconds == kInfinite ? untimedWaits : timedWaits);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_queue.empty()) return stop.Wait(0) == WaitResult::kSignaled ? PumpWait::kStop : PumpWait::kMessage;
  }
  switch (CEvent::WaitAny(stop, m_posted, milliseconds == kInfinite ? kInfinite : std::min<uint32_t>(milliseconds, 1))) {
    case 0: return PumpWait::kStop;
    case 1: return PumpWait::kMessage;
    default: return PumpWait::kTimeout;
  }
}

void FakeSessionWindow::DestroyAndUnregister() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_sink = nullptr;
  ++destroyed;
}

void FakeSessionWindow::Post(NotificationKind kind, uint32_t session) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.push_back({kind, session});
  }
  m_posted.Set();
}

// --- accounts and the console runner ------------------------------------------------

bool FakeAccounts::QueryUserToken(uint32_t session, std::unique_ptr<IUserToken>& token) {
  auto it = m_users.find(session);
  if (it == m_users.end()) {
    m_lastError = queryError;
    return false;
  }
  const int id = m_nextToken++;
  m_tokenSession[id] = session;
  token = std::make_unique<FakeToken>(tokensClosed, id);
  m_lastError = 0;
  return true;
}

const FakeAccounts::User* FakeAccounts::UserOf(IUserToken& token) const {
  auto t = m_tokenSession.find(static_cast<FakeToken&>(token).id());
  if (t == m_tokenSession.end()) return nullptr;
  auto u = m_users.find(t->second);
  return u == m_users.end() ? nullptr : &u->second;
}

std::unique_ptr<IUserToken> FakeAccounts::LinkedToken(IUserToken& token) {
  const User* user = UserOf(token);
  if (!user || user->linkedTokenId == 0) return nullptr;
  m_tokenSession[user->linkedTokenId] = m_tokenSession[static_cast<FakeToken&>(token).id()];
  return std::make_unique<FakeToken>(tokensClosed, user->linkedTokenId);
}

bool FakeAccounts::TokenUserSid(IUserToken& token, SidBytes& sid) {
  const User* user = UserOf(token);
  if (!user || user->tokenInformationFails) {
    m_lastError = tokenInformationError;
    return false;
  }
  sid = user->sid;
  return true;
}

bool FakeAccounts::LookupSidAccount(const SidBytes& sid, std::u16string& name,
                                    std::u16string& domain) {
  for (const auto& [session, user] : m_users) {
    if (user.sid == sid && !user.lookupFails) {
      name = user.name;
      domain = user.domain;
      return true;
    }
  }
  return false;
}

bool FakeAccounts::LogonSessionDnsDomain(IUserToken& token, std::u16string& dnsDomain) {
  const User* user = UserOf(token);
  if (!user || !user->sessionDnsDomain) return false;
  dnsDomain = *user->sessionDnsDomain;
  return true;
}

void FakeAccounts::AbandonToken(std::unique_ptr<IUserToken> token) {
  auto* fake = static_cast<FakeToken*>(token.get());
  fake->Abandon();
  ++tokensAbandoned;
}

namespace {
class ScriptedPipe : public IConsolePipe {
 public:
  ScriptedPipe(std::vector<PipeStep> script, std::shared_ptr<int> peeks, std::shared_ptr<int> reads)
      : m_script(std::move(script)), m_peeks(std::move(peeks)), m_reads(std::move(reads)) {}

  bool Peek(uint32_t& available) override {
    ++*m_peeks;
    available = 0;
    while (m_step < m_script.size()) {
      PipeStep& s = m_script[m_step];
      if (s.peekFails) return false;
      if (s.emptyPolls > 0) {
        --s.emptyPolls;
        return true;
      }
      if (m_offset < s.bytes.size()) {
        available = static_cast<uint32_t>(s.bytes.size() - m_offset);
        return true;
      }
      ++m_step;
      m_offset = 0;
    }
    return true;  // the write end stays open: nothing more, never an error
  }

  bool Read(char* buffer, uint32_t size, uint32_t& read) override {
    ++*m_reads;
    read = 0;
    if (m_step >= m_script.size()) return true;
    PipeStep& s = m_script[m_step];
    if (s.readFails) {
      s.readFails = false;
      return false;
    }
    const size_t n = std::min<size_t>(size, s.bytes.size() - m_offset);
    std::memcpy(buffer, s.bytes.data() + m_offset, n);
    m_offset += n;
    read = static_cast<uint32_t>(n);
    return true;
  }

 private:
  std::vector<PipeStep> m_script;
  size_t m_step = 0;
  size_t m_offset = 0;
  std::shared_ptr<int> m_peeks, m_reads;
};
}  // namespace

ConsoleStart FakeConsoleRunner::Start(IUserToken& token, const std::string& program,
                                      const std::string& arguments,
                                      std::unique_ptr<IConsolePipe>& pipe) {
  commandLines.push_back(program + " " + arguments);
  lastToken = reinterpret_cast<intptr_t>(token.Native());
  if (result.failure != ConsoleStartFailure::kNone) return result;
  pipe = std::make_unique<ScriptedPipe>(script, peeks, reads);
  return {};
}

SidBytes MakeSid(std::array<uint8_t, 6> authority, std::vector<uint32_t> subAuthorities) {
  SidBytes sid;
  sid.reserve(8 + 4 * subAuthorities.size());
  sid.push_back(1);
  sid.push_back(static_cast<uint8_t>(subAuthorities.size()));
  for (uint8_t b : authority) sid.push_back(b);
  for (uint32_t s : subAuthorities) {
    for (int i = 0; i < 4; ++i) sid.push_back(static_cast<uint8_t>(s >> (8 * i)));
  }
  return sid;
}

SidBytes DomainSid(uint32_t rid) {
  return MakeSid({0, 0, 0, 0, 0, 5}, {21, 1004336348, 1177238915, 682003330, rid});
}

// --- waits ------------------------------------------------------------------

WaitResult FakeWaits::Wait(CEvent& event, uint32_t milliseconds) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_timeOuts.push_back(milliseconds);
  }
  return event.Wait(milliseconds);
}

int FakeWaits::WaitAny(CEvent& first, CEvent& second, uint32_t milliseconds) {
  const Side side = &second == m_network.WatchChanged() ? kWatch : kHandler;
  if (m_failuresLeft[side] > 0) {
    // Held until the test has set the scene; a stop ends the hold.
    if (CEvent::WaitAny(first, m_gate, 20000) == 0) return 0;
    --m_failuresLeft[side];
    ++failed[side];
    SetLastErrorCode(m_error);
    return -2;
  }
  ++realWaits[side];
  return CEvent::WaitAny(first, second, milliseconds);
}

std::vector<uint8_t> DwordBytes(uint32_t value) {
  return {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)};
}

std::vector<uint8_t> TextBytes(std::u16string_view text) {
  std::vector<uint8_t> out;
  for (char16_t unit : text) out.insert(out.end(), {uint8_t(unit), uint8_t(unit >> 8)});
  out.insert(out.end(), {0, 0});
  return out;
}

bool WaitUntil(const std::function<bool()>& condition, uint32_t limitMs) {
  const uint32_t start = TickCount();
  while (!condition()) {
    if (TickCount() - start >= limitMs) return condition();
    SleepMs(1);
  }
  return true;
}

// --- platform ---------------------------------------------------------------

Timings FakePlatform::ShortTimings() {
  Timings t;
  t.startupDelayMs = 0;
  t.pumpIntervalMs = 1;
  t.threadExitPollMs = 1;
  t.processEndGraceMs = 200;
  t.resendPeriodMs = 20;
  t.pendingRetryPeriodMs = 20;
  t.addressRoundWaitMs = 20;
  t.addressWaitRetryMs = 1;
  t.wakeupRetryMs = 1;
  t.keepAliveUnitMs = 1;
  t.connectPolls = 20;
  t.connectPollUs = 10000;
  t.socketTimeoutMs = 500;
  t.exchangeLimitMs = 2000;
  t.consoleIdlePolls = 5;
  t.consoleIdlePollMs = 10;
  return t;
}

Platform FakePlatform::Get() {
  Platform p;
  p.support = &support;
  p.registry = &registry;
  p.network = &network;
  p.sessions = &sessions;
  p.window = &window;
  p.securityPackage = &ntlm;
  p.impersonation = &impersonation;
  p.waits = &waits;
  p.accounts = &accounts;
  p.adapters = &adapters;
  p.console = &console;
  p.hyperv = &hyperv;
  p.timings = timings;
  return p;
}

}  // namespace lindqvar::testing
