// The support library seen through lindqvar-diag: shared by its commands.
#pragma once

#include <cstdio>
#include <memory>
#include <string_view>

#include "platform/os.h"
#include "platform/support.h"
#include "tools/diag/diag.h"

namespace lindqvar::diag {

// The support library as the agent's code sees it in this tool: log lines
// go to the console (debug lines with --verbose only; error lines always,
// unless `errorsOnlyVerbose`), settings and identity come from the
// machine's library when there is one, and the command line overrides them.
class CDiagSupport : public ISupportLibrary {
 public:
  CDiagSupport(ISupportLibrary* system, const DiagOptions& options, std::FILE* out,
               bool errorsOnlyVerbose = false)
      : m_system(system), m_options(options), m_out(out), m_errorsOnlyVerbose(errorsOnlyVerbose) {}

  LogHandle log_initialize(std::u16string_view) override {
    return reinterpret_cast<LogHandle>(&m_handleTag);
  }
  void log_deinitialize(LogHandle) override {}
  void log_setlevel(LogHandle, uint32_t) override {}
  void log_debug(LogHandle, std::string_view line) override {
    if (m_options.verbose) Print("log", line);
  }
  void log_error(LogHandle, std::string_view line) override {
    if (m_options.verbose || !m_errorsOnlyVerbose) Print("log error", line);
  }
  void LogW(uint32_t, const char16_t*) override {}
  void LogW(uint32_t, uint32_t, std::span<const LogField>) override {}
  uint32_t get_desired_status(uint32_t, std::u16string_view) override { return 0; }
  void cfg_get_lindqvar_settings(uint8_t* record) override {
    if (m_system) m_system->cfg_get_lindqvar_settings(record);
  }
  void cfg_get_logging_info(uint8_t* record) override {
    if (m_system) m_system->cfg_get_logging_info(record);
  }
  bool cfg_is_fips_mode_enabled() override {
    return m_options.fips || (m_system && m_system->cfg_is_fips_mode_enabled());
  }
  bool cfg_get_velmora_guid(std::u16string& guid) override {
    if (!m_options.clientGuid.empty()) {
      guid = Utf8ToWide(m_options.clientGuid);
      return true;
    }
    return m_system && m_system->cfg_get_velmora_guid(guid);
  }
  SupportKeyHandle reg_openkeyW(SupportHive hive, std::u16string_view path) override {
    return m_system ? m_system->reg_openkeyW(hive, path) : nullptr;
  }
  void reg_closekeyW(SupportKeyHandle key) override {
    if (m_system) m_system->reg_closekeyW(key);
  }
  bool reg_getstringW(SupportKeyHandle key, std::u16string_view name, std::u16string& value,
                      uint32_t* length) override {
    return m_system && m_system->reg_getstringW(key, name, value, length);
  }
  bool reg_valueexistsbykeyW(SupportKeyHandle key, std::u16string_view name) override {
    return m_system && m_system->reg_valueexistsbykeyW(key, name);
  }
  bool GetTokenOfSession(uint32_t session, std::unique_ptr<IUserToken>& token) override {
    return m_system && m_system->GetTokenOfSession(session, token);
  }

 private:
  void Print(const char* kind, std::string_view line) {
    std::fprintf(m_out, "      %s: %.*s\n", kind, static_cast<int>(line.size()), line.data());
  }
  ISupportLibrary* m_system;
  const DiagOptions& m_options;
  std::FILE* m_out;
  bool m_errorsOnlyVerbose;
  int m_handleTag = 0;
};

}  // namespace lindqvar::diag
