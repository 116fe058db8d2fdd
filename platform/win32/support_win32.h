// Our own implementation of the agent-support library on Windows: a log
// file with levels, catalogue events to the Windows event log (and the log
// file), settings and logging records filled from the agent's registry key,
// the desired status, the FIPS flag, the client GUID, the registry helpers
// and session tokens. docs/configuration.md lists every value it reads.
#pragma once

#include <mutex>
#include <span>
#include <string>

#include "platform/support.h"

namespace lindqvar::win32 {

class CSupportLibraryWin32 : public ISupportLibrary {
 public:
  explicit CSupportLibraryWin32(std::span<const CatalogueEvent> catalogue);

  LogHandle log_initialize(std::u16string_view name) override;
  void log_deinitialize(LogHandle handle) override;
  void log_setlevel(LogHandle handle, uint32_t level) override;
  void log_debug(LogHandle handle, std::string_view line) override;
  void log_error(LogHandle handle, std::string_view line) override;
  void LogW(uint32_t eventId, const char16_t* data) override;
  void LogW(uint32_t eventId, uint32_t level, std::span<const LogField> fields) override;
  uint32_t get_desired_status(uint32_t component, std::u16string_view key) override;
  void cfg_get_lindqvar_settings(uint8_t* record) override;
  void cfg_get_logging_info(uint8_t* record) override;
  bool cfg_is_fips_mode_enabled() override;
  bool cfg_get_velmora_guid(std::u16string& guid) override;
  SupportKeyHandle reg_openkeyW(SupportHive hive, std::u16string_view path) override;
  void reg_closekeyW(SupportKeyHandle key) override;
  bool reg_getstringW(SupportKeyHandle key, std::u16string_view name, std::u16string& value,
                      uint32_t* length) override;
  bool reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) override;
  bool GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) override;

  // The folder of the logs: the "LogDirectory" of the logging key, else the
  // program's folder.
  static std::u16string LogFolder();

 private:
  const CatalogueEvent* FindEvent(uint32_t eventId) const;
  // To the Windows event log and the agent's log file.
  void WriteEvent(uint32_t eventId, uint32_t level, const std::u16string& text);

  std::span<const CatalogueEvent> m_catalogue;
  std::mutex m_eventMutex;
};

// The event the agent's library reports, once per process, when a log file
// is refused (see platform/win32/log_file_win32.h).
inline constexpr uint32_t kEventLogFileRefused = 110;

}  // namespace lindqvar::win32
