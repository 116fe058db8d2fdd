#include "platform/win32/support_win32.h"

#include "platform/win32/windows_include.h"

#include <atomic>
#include <cstring>
#include <vector>

#include "platform/os.h"
#include "platform/secret.h"
#include "platform/win32/accounts_win32.h"
#include "platform/win32/log_file_win32.h"
#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/support_key_win32.h"

namespace lindqvar::win32 {

// A log opened by log_initialize: its file and its level.
struct LogFile {
  std::mutex mutex;
  ScopedFileHandle file;
  uint32_t level = 0;
};

}  // namespace lindqvar::win32

namespace lindqvar {
// The library's log handle is an opaque pointer to this context.
struct LogContext : win32::LogFile {};
}  // namespace lindqvar

namespace lindqvar::win32 {

namespace {

constexpr uint32_t kLevelErrors = 1;  // errors only
constexpr uint32_t kLevelDebug = 2;   // errors and debug lines

void PutU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t ReadU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void PutWide(uint8_t* p, const std::u16string& s, size_t maxUnits) {
  // Always leaves room for the terminator.
  const size_t n = std::min(s.size(), maxUnits - 1);
  for (size_t i = 0; i < n; ++i) {
    p[2 * i] = static_cast<uint8_t>(s[i] & 0xFF);
    p[2 * i + 1] = static_cast<uint8_t>(s[i] >> 8);
  }
}

std::u16string ProgramDirectory() {
  wchar_t path[MAX_PATH] = {};
  const DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::u16string p = U(path, n);
  const auto slash = p.find_last_of(u"\\/");
  return slash == std::u16string::npos ? std::u16string() : p.substr(0, slash + 1);
}

std::string Timestamp() {
  SYSTEMTIME t;
  ::GetLocalTime(&t);
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay,
                t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
  return buf;
}

// Opens the named log for appending; a refused file is reported to the
// event log once per process and the agent carries on without it.
ScopedFileHandle OpenLog(std::u16string_view name) {
  static std::atomic<bool> reported{false};
  const std::u16string file = std::u16string(name) + u".log";
  const std::u16string folder = CSupportLibraryWin32::LogFolder();
  ScopedFileHandle handle;
  if (OpenLogFileForAppend(std::wstring(W(folder)), std::wstring(W(file)), handle) ==
          LogFileOpen::kRefused &&
      !reported.exchange(true)) {
    const std::u16string text =
        u"The log file " + folder + file + u" is a link or not a plain file; logging to it is off";
    ScopedEventSource source(::RegisterEventSourceW(nullptr, L"Lindqvar"));
    if (source) {
      const wchar_t* strings[] = {W(text)};
      ::ReportEventW(source.get(), EVENTLOG_ERROR_TYPE, 0, kEventLogFileRefused, nullptr, 1, 0,
                     strings, nullptr);
    }
  }
  return handle;
}

// One line: time, thread, kind, then the text without its own line ends.
void AppendLine(HANDLE file, const char* kind, std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  std::string line = Timestamp();
  line += " [";
  line += std::to_string(::GetCurrentThreadId());
  line += "] ";
  line += kind;
  line += ' ';
  line.append(text);
  line += "\r\n";
  DWORD written = 0;
  ::WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

// Replaces the first "%s" of a catalogue title with the insertion text.
std::u16string RenderTitle(const CatalogueEvent& e, const char16_t* data) {
  std::u16string title = e.title;
  const auto at = title.find(u"%s");
  if (at != std::u16string::npos) title.replace(at, 2, data ? data : u"");
  return title;
}

}  // namespace

CSupportLibraryWin32::CSupportLibraryWin32(std::span<const CatalogueEvent> catalogue)
    : m_catalogue(catalogue) {}

std::u16string CSupportLibraryWin32::LogFolder() {
  std::u16string dir = ReadString(HKEY_LOCAL_MACHINE, kLoggingKey, u"LogDirectory", u"");
  if (dir.empty()) dir = ProgramDirectory();
  if (!dir.empty() && dir.back() != u'\\' && dir.back() != u'/') dir += u'\\';
  return dir;
}

LogHandle CSupportLibraryWin32::log_initialize(std::u16string_view name) {
  auto* log = new LogContext();
  log->file = OpenLog(name);
  uint8_t record[logging_record::kSize] = {};
  cfg_get_logging_info(record);
  const uint32_t enabled = ReadU32(record + logging_record::kEnabled);
  log->level = enabled ? ReadU32(record + logging_record::kLevel) : 0;
  return log;
}

void CSupportLibraryWin32::log_deinitialize(LogHandle handle) { delete handle; }

void CSupportLibraryWin32::log_setlevel(LogHandle handle, uint32_t level) {
  if (!handle) return;
  std::lock_guard<std::mutex> lock(handle->mutex);
  handle->level = level;
}

void CSupportLibraryWin32::log_debug(LogHandle handle, std::string_view line) {
  if (!handle) return;
  std::lock_guard<std::mutex> lock(handle->mutex);
  if (handle->level >= kLevelDebug && handle->file) AppendLine(handle->file.get(), "DEBUG", line);
}

void CSupportLibraryWin32::log_error(LogHandle handle, std::string_view line) {
  if (!handle) return;
  std::lock_guard<std::mutex> lock(handle->mutex);
  if (handle->level >= kLevelErrors && handle->file) AppendLine(handle->file.get(), "ERROR", line);
}

const CatalogueEvent* CSupportLibraryWin32::FindEvent(uint32_t eventId) const {
  for (const auto& e : m_catalogue) {
    if (e.id == eventId) return &e;
  }
  return nullptr;
}

void CSupportLibraryWin32::LogW(uint32_t eventId, const char16_t* data) {
  const CatalogueEvent* event = FindEvent(eventId);
  const std::u16string text =
      event ? RenderTitle(*event, data) : u"event " + AnsiToWide(std::to_string(eventId));
  WriteEvent(eventId, event && event->severity == 4 ? 4 : 6, text);
}

void CSupportLibraryWin32::LogW(uint32_t eventId, uint32_t level,
                                std::span<const LogField> fields) {
  // The title, then the pairs as key=value, each after one blank:
  // "Single Sign-On event action=1 domain=... user=alice".
  const CatalogueEvent* event = FindEvent(eventId);
  std::u16string text =
      event ? RenderTitle(*event, nullptr) : u"event " + AnsiToWide(std::to_string(eventId));
  for (const LogField& f : fields) {
    text += u' ';
    text += f.key;
    text += u'=';
    text += f.value;
  }
  WriteEvent(eventId, level, text);
}

void CSupportLibraryWin32::WriteEvent(uint32_t eventId, uint32_t level,
                                      const std::u16string& text) {
  // Levels as in the catalogue: 4 warning, anything else informational.
  const WORD type = level == 4 ? EVENTLOG_WARNING_TYPE : EVENTLOG_INFORMATION_TYPE;
  std::lock_guard<std::mutex> lock(m_eventMutex);
  BOOL reported = FALSE;
  {
    ScopedEventSource source(::RegisterEventSourceW(nullptr, L"Lindqvar"));
    if (source) {
      const wchar_t* strings[] = {W(text)};
      reported = ::ReportEventW(source.get(), type, 0, eventId, nullptr, 1, 0, strings, nullptr);
    }
  }
  // Catalogue events also go to the log file, whatever the level, so that
  // the start and stop of the agent and every delivery can be read in one
  // place.
  ScopedFileHandle file = OpenLog(kAgentLogName);
  if (file) {
    const std::string line = std::to_string(eventId) + " " + WideToUtf8(text) +
                             (reported ? "" : " (event log unavailable)");
    AppendLine(file.get(), "EVENT", line);
  }
}

uint32_t CSupportLibraryWin32::get_desired_status(uint32_t component, std::u16string_view key) {
  const std::u16string path =
      std::u16string(kDesiredStatusKey) + u"\\" + AnsiToWide(std::to_string(component));
  return ReadDword(HKEY_LOCAL_MACHINE, path, key, 0);
}

void CSupportLibraryWin32::cfg_get_lindqvar_settings(uint8_t* record) {
  namespace r = settings_record;
  ScopedRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(kAgentKey), 0, KEY_READ | KEY_WOW64_64KEY,
                      key.receive()) != ERROR_SUCCESS) {
    return;  // the record stays zero: no servers, disabled, no key
  }
  PutU32(record + r::kEnabled, ReadDword(key.get(), u"Enabled", 1));
  PutU32(record + r::kAddressCategory, ReadDword(key.get(), u"AddressCategory", 0));
  PutU32(record + r::kPreferAzure, ReadDword(key.get(), u"PreferAzure", 0));
  PutWide(record + r::kServerList, ReadString(key.get(), u"Servers", u""), r::kServerListUnits);
  const SecretU16String presharedKey(ReadString(key.get(), u"PresharedKey", u""));
  PutWide(record + r::kPresharedKey, presharedKey, r::kPresharedKeyUnits);
}

void CSupportLibraryWin32::cfg_get_logging_info(uint8_t* record) {
  PutU32(record + logging_record::kEnabled,
         ReadDword(HKEY_LOCAL_MACHINE, kLoggingKey, u"LoggingEnabled", 1));
  PutU32(record + logging_record::kLevel,
         ReadDword(HKEY_LOCAL_MACHINE, kLoggingKey, u"LogLevel", kLevelErrors));
}

bool CSupportLibraryWin32::cfg_is_fips_mode_enabled() {
  return ReadAgentDword(u"FipsMode", 0) != 0;
}

bool CSupportLibraryWin32::cfg_get_velmora_guid(std::u16string& guid) {
  guid = ReadString(HKEY_LOCAL_MACHINE, kClientKey, u"ClientGuid", u"");
  return !guid.empty();
}

SupportKeyHandle CSupportLibraryWin32::reg_openkeyW(SupportHive, std::u16string_view path) {
  auto* k = new SupportKeyObject();
  k->view = KEY_WOW64_64KEY;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(std::u16string(path)), 0, KEY_READ | k->view,
                      k->key.receive()) != ERROR_SUCCESS) {
    delete k;
    return nullptr;
  }
  return k;
}

void CSupportLibraryWin32::reg_closekeyW(SupportKeyHandle key) { delete key; }

bool CSupportLibraryWin32::reg_getstringW(SupportKeyHandle key, std::u16string_view name,
                                          std::u16string& value, uint32_t* length) {
  if (!key) return false;
  bool found = false;
  value = ReadString(key->key.get(), name, u"", &found);
  if (!found) return false;
  if (length) *length = static_cast<uint32_t>(value.size());
  return true;
}

bool CSupportLibraryWin32::reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) {
  if (!key) return false;
  return ::RegQueryValueExW(key->key.get(), W(std::u16string(name)), nullptr, nullptr, nullptr,
                            nullptr) == ERROR_SUCCESS;
}

namespace {
class UserToken : public IUserToken {
 public:
  explicit UserToken(HANDLE h) : m_token(h) {}
  void* Native() const override { return m_token.get(); }

 private:
  ScopedHandle m_token;
};
}  // namespace

bool CSupportLibraryWin32::GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) {
  const QueryUserTokenFn queryUserToken = WtsQueryUserToken();
  if (!queryUserToken) {
    ::SetLastError(ERROR_PROC_NOT_FOUND);
    return false;
  }
  HANDLE h = nullptr;
  if (!queryUserToken(session, &h) || !h) return false;
  token = std::make_unique<UserToken>(h);
  return true;
}

}  // namespace lindqvar::win32
