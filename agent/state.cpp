#include "agent/state.h"

#include <memory>

#include "platform/log.h"
#include "platform/registry.h"

namespace lindqvar {

const char* StateName(uint32_t state) {
  switch (state) {
    case kNotConfigured: return "NOT_CONFIGURED";
    case kConfiguredUnreachable: return "CONFIGURED_UNREACHABLE";
    case kConfiguredReachable: return "CONFIGURED_REACHABLE";
    default: return "Unknown";
  }
}

void WriteState(IRegistry& registry, CLog& log, uint32_t state) {
  std::unique_ptr<IRegistryKey> key;
  const uint32_t openError = registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath,
                                              reg_access::kWrite | reg_access::kWow64_64Key, key);
  if (openError != kErrorSuccess || !key) {
    log.Error("Failed to open registry key for LINDQState update. Error: %d",
              static_cast<int>(openError));
    return;
  }
  const uint32_t setError = key->SetDword(kStateValueName, state);
  key.reset();
  if (setError == kErrorSuccess) {
    log.Debug("Successfully updated LINDQState in registry. New state: %s", StateName(state));
  } else {
    log.Error("Failed to set LINDQState in registry. Error: %d", static_cast<int>(setError));
  }
}

bool ReadState(IRegistry& registry, uint32_t& state) {
  std::unique_ptr<IRegistryKey> key;
  if (registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath,
                       reg_access::kRead | reg_access::kWow64_64Key, key) != kErrorSuccess ||
      !key) {
    return false;
  }
  uint32_t type = 0;
  std::vector<uint8_t> data;
  constexpr uint32_t kRegDword = 4;
  if (key->QueryValue(kStateValueName, type, data) != kErrorSuccess || type != kRegDword ||
      data.size() != 4) {
    return false;
  }
  state = static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8 |
          static_cast<uint32_t>(data[2]) << 16 | static_cast<uint32_t>(data[3]) << 24;
  return true;
}

}  // namespace lindqvar
