// The endpoint client's agent-support library, as the agent calls it:
// logging, catalogue events, settings records, desired status, registry
// helpers and session tokens. platform/win32/support_win32.cpp is our own
// implementation backed by the agent's registry key and a log file; tests use
// fakes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace lindqvar {

struct LogContext;                           // owned by the library
using LogHandle = LogContext*;               // null: no log
struct SupportKeyObject;                     // owned by the library
using SupportKeyHandle = SupportKeyObject*;  // null: failure

// A primary user token; closed by its destructor.
class IUserToken {
 public:
  virtual ~IUserToken() = default;
  virtual void* Native() const = 0;  // HANDLE on Windows
};

// The settings record that cfg_get_lindqvar_settings fills. The caller
// zero-fills it; the agent reads the fields at these byte offsets
// (little-endian 32-bit words, UTF-16 texts).
namespace settings_record {
inline constexpr size_t kSize = 660;
inline constexpr size_t kEnabled = 4;
inline constexpr size_t kAddressCategory = 8;
inline constexpr size_t kPreferAzure = 12;
inline constexpr size_t kServerList = 16;
inline constexpr size_t kServerListUnits = 256;
inline constexpr size_t kPresharedKey = 528;
inline constexpr size_t kPresharedKeyUnits = (kSize - kPresharedKey) / 2;  // 66
}  // namespace settings_record

// The logging record of cfg_get_logging_info: a larger record of which the
// agent reads two words.
namespace logging_record {
inline constexpr size_t kSize = 512;
inline constexpr size_t kEnabled = 72;
inline constexpr size_t kLevel = 192;
}  // namespace logging_record

// The only desired status the agent tells apart: stop.
inline constexpr uint32_t kDesiredStatusStop = 3;
// The component number the agent passes to get_desired_status.
inline constexpr uint32_t kDesiredStatusComponent = 25;

enum class SupportHive { kLocalMachine };

// One record of the agent's event catalogue, which LogW renders.
struct CatalogueEvent {
  uint32_t id;
  uint32_t severity;  // 6 informational, 4 warning
  const char16_t* title;
  const char16_t* messageTemplate;
  const char16_t* description;
};

// One key/value pair of a catalogue event.
struct LogField {
  std::u16string_view key;
  std::u16string value;
};

class ISupportLibrary {
 public:
  virtual ~ISupportLibrary() = default;

  // Logging. Lines arrive formatted, as UTF-8.
  virtual LogHandle log_initialize(std::u16string_view name) = 0;
  virtual void log_deinitialize(LogHandle handle) = 0;
  virtual void log_setlevel(LogHandle handle, uint32_t level) = 0;
  virtual void log_debug(LogHandle handle, std::string_view line) = 0;
  virtual void log_error(LogHandle handle, std::string_view line) = 0;

  // Writes a catalogue event (id and optional insertion text).
  virtual void LogW(uint32_t eventId, const char16_t* data) = 0;
  // Writes a catalogue event with a level and key/value pairs.
  virtual void LogW(uint32_t eventId, uint32_t level, std::span<const LogField> fields) = 0;

  // What the parent service wants of the component: kDesiredStatusStop or
  // anything else (re-read the settings).
  virtual uint32_t get_desired_status(uint32_t component, std::u16string_view key) = 0;

  // Fill zero-filled records of settings_record::kSize and
  // logging_record::kSize bytes.
  virtual void cfg_get_lindqvar_settings(uint8_t* record) = 0;
  virtual void cfg_get_logging_info(uint8_t* record) = 0;

  virtual bool cfg_is_fips_mode_enabled() = 0;
  // The endpoint client's GUID. False when it has none.
  virtual bool cfg_get_velmora_guid(std::u16string& guid) = 0;

  // Registry helpers (strings are returned by value; the library's own
  // allocation is released inside the call).
  virtual SupportKeyHandle reg_openkeyW(SupportHive hive, std::u16string_view path) = 0;
  virtual void reg_closekeyW(SupportKeyHandle key) = 0;
  virtual bool reg_getstringW(SupportKeyHandle key, std::u16string_view name, std::u16string& value,
                              uint32_t* length) = 0;
  virtual bool reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) = 0;

  // A primary token of the session's user.
  virtual bool GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) = 0;
};

// Closes a support-library key when it goes out of scope.
class CScopedSupportKey final {
 public:
  CScopedSupportKey(ISupportLibrary& lib, SupportKeyHandle key) : m_lib(lib), m_key(key) {}
  ~CScopedSupportKey() {
    if (m_key) m_lib.reg_closekeyW(m_key);
  }
  CScopedSupportKey(const CScopedSupportKey&) = delete;
  CScopedSupportKey& operator=(const CScopedSupportKey&) = delete;
  SupportKeyHandle get() const { return m_key; }
  explicit operator bool() const { return m_key != nullptr; }

 private:
  ISupportLibrary& m_lib;
  SupportKeyHandle m_key;
};

}  // namespace lindqvar
