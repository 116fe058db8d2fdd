// The agent's settings: read from the support library's fixed-layout
// settings record, the server list parsed from its text, the change test
// that decides whether a re-read must end the process, and the apply step.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/secret.h"
#include "protocol/transport/server_entry.h"

namespace lindqvar {

class CLog;
class ISupportLibrary;

// The fields the agent takes from one settings record.
struct SettingsRecordView {
  uint32_t enabled = 0;
  uint32_t addressCategory = 0;
  uint32_t preferAzure = 0;
  std::u16string serverList;     // up to its NUL within 256 units
  SecretU16String presharedKey;  // up to its NUL within the rest of the record
};

// Decodes a raw record of settings_record::kSize bytes.
SettingsRecordView DecodeSettingsRecord(const uint8_t* record);
// Zero-fills a record, has the library fill it and decodes it.
SettingsRecordView ReadSettingsRecord(ISupportLibrary& support);

// Replaces the content of `list` with one entry per item of `text`.
// Items are separated by ";" or ","; each is a host optionally followed by
// ":" and a decimal port (default 8001). A ":" ends the host only after a
// "." in the same item or right after "]", so IPv6 literals stay whole and
// a dot-free name followed by ":port" is taken whole as the host.
void ParseServerList(const std::string& text, ServerList& list);

// Category, prefer-Azure switch, server list and preshared key in force.
class CAgentSettings {
 public:
  uint32_t AddressCategory() const { return m_addressCategory.load(); }
  uint32_t PreferAzure() const { return m_preferAzure.load(); }
  // The list and key in force. Only for the thread that loads and applies
  // the settings; senders take Delivery() snapshots.
  const ServerList& Servers() const { return m_config->servers; }
  const std::string& PresharedKey() const { return m_config->presharedKey; }  // UTF-8
  // A snapshot of the servers and key in force, for one delivery pass.
  DeliveryConfigPtr Delivery() const;

  // 1 when a fresh read differs from what is in force: the key differs, the
  // agent is disabled, the number of servers differs, or a new entry has no
  // entry in force with the same port or, failing that, the same host
  // (ignoring case). Equal ports alone make a match, so a list whose hosts
  // changed but whose ports did not counts as unchanged, and so does a port
  // change of a host that stayed. Nothing in force changes.
  uint32_t IsChanged(ISupportLibrary& support) const;

  // Reads the record and puts category, preference and server list in force
  // (with their log lines), then the preshared key. Used at start-up and,
  // after setting the log level, on every re-read.
  void Load(ISupportLibrary& support, CLog& log);

  // The re-read: sets the log level from the logging record (when a log
  // handle is held), then Load.
  void Apply(ISupportLibrary& support, CLog& log);

  // Empties the server list (at Stop).
  void ClearServers();

 private:
  std::atomic<uint32_t> m_addressCategory{0};
  std::atomic<uint32_t> m_preferAzure{0};
  // Replaced whole by Load; passes that took the old one keep it alive.
  mutable std::mutex m_configLock;
  DeliveryConfigPtr m_config = std::make_shared<DeliveryConfig>();
};

}  // namespace lindqvar
