#include "service/settings_snapshot.h"

namespace lindqvar::service {

namespace {

// Registry names are case-insensitive; the names of interest are ASCII.
std::u16string UpperAscii(std::u16string_view name) {
  std::u16string out(name);
  for (auto& c : out) {
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  }
  return out;
}

}  // namespace

void SettingsSnapshot::Add(std::u16string_view name, uint32_t type, std::vector<uint8_t> data) {
  std::u16string key = UpperAscii(name);
  if (key == u"LINDQSTATE") return;  // written by the agent, not a setting
  m_values[std::move(key)] = Value{type, std::move(data)};
}

bool SettingsSnapshot::Enabled() const {
  const auto it = m_values.find(u"ENABLED");
  if (it == m_values.end() || it->second.type != kRegDword || it->second.data.size() != 4) {
    return true;
  }
  const auto& d = it->second.data;
  return (d[0] | d[1] | d[2] | d[3]) != 0;
}

}  // namespace lindqvar::service
