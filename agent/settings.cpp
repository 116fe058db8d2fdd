#include "agent/settings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/support.h"

namespace lindqvar {

namespace {

uint32_t ReadU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

std::u16string ReadWide(const uint8_t* p, size_t maxUnits) {
  std::u16string out;
  for (size_t i = 0; i < maxUnits; ++i) {
    const char16_t unit = static_cast<char16_t>(p[2 * i] | p[2 * i + 1] << 8);
    if (unit == 0) break;
    out.push_back(unit);
  }
  return out;
}

bool IsSeparator(char c) { return c == ';' || c == ','; }

}  // namespace

SettingsRecordView DecodeSettingsRecord(const uint8_t* record) {
  namespace r = settings_record;
  SettingsRecordView v;
  v.enabled = ReadU32(record + r::kEnabled);
  v.addressCategory = ReadU32(record + r::kAddressCategory);
  v.preferAzure = ReadU32(record + r::kPreferAzure);
  v.serverList = ReadWide(record + r::kServerList, r::kServerListUnits);
  v.presharedKey = ReadWide(record + r::kPresharedKey, r::kPresharedKeyUnits);
  return v;
}

SettingsRecordView ReadSettingsRecord(ISupportLibrary& support) {
  uint8_t record[settings_record::kSize] = {};
  support.cfg_get_lindqvar_settings(record);
  SettingsRecordView view = DecodeSettingsRecord(record);
  WipeMemory(record, sizeof record);  // it holds the preshared key
  return view;
}

void ParseServerList(const std::string& text, ServerList& list) {
  list.clear();
  // The walk cuts the text in place, as the items are found.
  std::string buffer = text;
  buffer.push_back('\0');
  char* p = buffer.data();
  for (;;) {
    auto entry = std::make_unique<ServerEntry>();
    entry->port = kDefaultServerPort;
    bool noDot = true;
    char* const host = p;
    while (*p != '\0' && !IsSeparator(*p)) {
      if (*p == '.') {
        noDot = false;
      } else if (*p == ':' && (!noDot || (p > host && p[-1] == ']'))) {
        break;
      }
      ++p;
    }
    if (*p == ':') {
      *p++ = '\0';
      if (*p != '\0') {
        char* const portText = p;
        while (*p != '\0' && !IsSeparator(*p)) ++p;
        if (*p != '\0') *p++ = '\0';
        // No range check: a non-number gives 0.
        entry->port = static_cast<uint32_t>(std::atol(portText));
      }
    } else if (IsSeparator(*p)) {
      *p++ = '\0';
    }
    std::strncpy(entry->host, host, sizeof entry->host - 1);
    const std::u16string wide = AnsiToWide(entry->host);
    const size_t units = std::min(wide.size(), std::size(entry->hostW) - 1);
    std::copy_n(wide.begin(), units, entry->hostW);
    list.push_back(std::move(entry));
    if (*p == '\0') break;
  }
}

uint32_t CAgentSettings::IsChanged(ISupportLibrary& support) const {
  const SettingsRecordView fresh = ReadSettingsRecord(support);
  ServerList freshList;
  ParseServerList(WideToAnsi(fresh.serverList), freshList);
  const SecretString freshKey(WideToUtf8(fresh.presharedKey));

  const ServerList& inForce = Servers();
  if (std::strcmp(freshKey.c_str(), PresharedKey().c_str()) != 0) return 1;
  if (fresh.enabled == 0) return 1;
  if (freshList.size() != inForce.size()) return 1;
  // _stricmp in the "C" locale: only A-Z and a-z pair up.
  const auto hostEqualsNoCase = [](const char* a, const char* b) {
    for (;; ++a, ++b) {
      const char x = (*a >= 'A' && *a <= 'Z') ? static_cast<char>(*a - 'A' + 'a') : *a;
      const char y = (*b >= 'A' && *b <= 'Z') ? static_cast<char>(*b - 'A' + 'a') : *b;
      if (x != y) return false;
      if (x == '\0') return true;
    }
  };
  // An entry matches an entry in force with the same port or, failing that,
  // the same host ignoring case. Equal ports alone are enough, so a list
  // whose hosts changed on the same ports counts as unchanged; a port
  // change of a server whose host stayed is no change either. The list
  // applied right after the test puts the new hosts and ports in force.
  for (const auto& candidate : freshList) {
    const bool matched = std::any_of(inForce.begin(), inForce.end(), [&](const auto& entry) {
      return candidate->port == entry->port || hostEqualsNoCase(candidate->host, entry->host);
    });
    if (!matched) return 1;
  }
  return 0;
}

void CAgentSettings::Load(ISupportLibrary& support, CLog& log) {
  const SettingsRecordView record = ReadSettingsRecord(support);
  const std::string servers = WideToAnsi(record.serverList);
  log.Debug("Brannock config:%s", WideToUtf8(record.serverList).c_str());
  log.Debug("Address Category:%d", static_cast<int>(record.addressCategory));
  log.Debug("prefer azure:%d", static_cast<int>(record.preferAzure));
  m_addressCategory.store(record.addressCategory);
  m_preferAzure.store(record.preferAzure);
  auto config = std::make_shared<DeliveryConfig>();
  ParseServerList(servers, config->servers);
  const SecretString key(WideToUtf8(record.presharedKey));
  config->presharedKey = key;
  std::lock_guard<std::mutex> lock(m_configLock);
  m_config = std::move(config);
}

DeliveryConfigPtr CAgentSettings::Delivery() const {
  std::lock_guard<std::mutex> lock(m_configLock);
  return m_config;
}

void CAgentSettings::ClearServers() {
  auto config = std::make_shared<DeliveryConfig>();
  config->presharedKey = PresharedKey();
  std::lock_guard<std::mutex> lock(m_configLock);
  m_config = std::move(config);
}

void CAgentSettings::Apply(ISupportLibrary& support, CLog& log) {
  if (LogHandle handle = log.Handle()) {
    uint8_t logging[logging_record::kSize] = {};
    support.cfg_get_logging_info(logging);
    const uint32_t enabled = ReadU32(logging + logging_record::kEnabled);
    const uint32_t level = ReadU32(logging + logging_record::kLevel);
    support.log_setlevel(handle, enabled != 0 ? level : 0);
  }
  Load(support, log);
}

}  // namespace lindqvar
