// The values of the agent's settings key as the service last saw them. The
// service compares two snapshots to decide whether a change notification of
// the key is worth a re-read: the agent writes its own state value into the
// same key after every sending pass, and that write must not wake it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace lindqvar::service {

// Registry value types the snapshot looks into.
inline constexpr uint32_t kRegDword = 4;

class SettingsSnapshot {
 public:
  // A snapshot of a key that does not exist.
  static SettingsSnapshot Missing() { return SettingsSnapshot(false); }
  SettingsSnapshot() = default;

  // Adds one value of the key. The agent's state value is left out; names
  // are compared without regard to case, as the registry does.
  void Add(std::u16string_view name, uint32_t type, std::vector<uint8_t> data);

  bool KeyPresent() const { return m_present; }
  // False only when "Enabled" is a REG_DWORD 0: the agent's own reading
  // takes an absent or mistyped value as enabled. A missing key counts as
  // enabled here: the agent then runs, says so in its log and reports
  // NOT_CONFIGURED.
  bool Enabled() const;

  bool operator==(const SettingsSnapshot&) const = default;

 private:
  explicit SettingsSnapshot(bool present) : m_present(present) {}
  struct Value {
    uint32_t type = 0;
    std::vector<uint8_t> data;
    bool operator==(const Value&) const = default;
  };
  bool m_present = true;
  std::map<std::u16string, Value> m_values;  // by upper-cased name
};

}  // namespace lindqvar::service
