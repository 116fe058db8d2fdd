#include "agent/verification_settings.h"

#include <memory>
#include <string>
#include <vector>

#include "agent/state.h"
#include "platform/registry.h"
#include "session/user_exclusions.h"

namespace lindqvar {

namespace {

constexpr uint32_t kRegSz = 1;
constexpr uint32_t kRegExpandSz = 2;
constexpr uint32_t kRegDword = 4;
constexpr uint32_t kRegMultiSz = 7;

// UTF-16LE registry text as 8-bit text; NULs (the separators of a
// REG_MULTI_SZ) are kept, units outside ASCII become "?", which no
// fingerprint contains.
std::string NarrowText(const std::vector<uint8_t>& data) {
  std::string text;
  for (size_t i = 0; i + 1 < data.size(); i += 2) {
    const unsigned unit = data[i] | (data[i + 1] << 8);
    text += unit < 0x80 ? static_cast<char>(unit) : '?';
  }
  return text;
}

}  // namespace

ServerVerification ReadServerVerification(IRegistry& registry) {
  ServerVerification out;
  std::unique_ptr<IRegistryKey> key;
  if (registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath,
                       reg_access::kRead | reg_access::kWow64_64Key, key) != kErrorSuccess ||
      !key)
    return out;

  uint32_t type = 0;
  std::vector<uint8_t> data;
  if (key->QueryValue(kVerifyServerValue, type, data) == kErrorSuccess) {
    // Fails closed: only a DWORD 0 switches verification off. A value of
    // any other type or size (a string "0" included) is taken as on, so
    // that a mistyped value never leaves the agent talking to anyone.
    if (type == kRegDword && data.size() == 4) {
      out.verify = (data[0] | data[1] | data[2] | data[3]) != 0;
    } else {
      out.verify = true;
      out.problems.push_back("VerifyServer is not a REG_DWORD; server verification is on");
    }
  }

  data.clear();
  if (key->QueryValue(kServerPinsValue, type, data) == kErrorSuccess) {
    if (type == kRegMultiSz || type == kRegSz || type == kRegExpandSz) {
      AddServerPins(NarrowText(data), out);
    } else {
      out.pinsConfigured = true;
      out.problems.push_back(
          "ServerCertificateSha256 is not a REG_MULTI_SZ or REG_SZ; it matches no certificate");
    }
  }
  return out;
}

std::vector<uint8_t> ReadUserExclusions(IRegistry& registry) {
  std::unique_ptr<IRegistryKey> key;
  std::vector<uint8_t> data;
  uint32_t type = 0;
  if (registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath,
                       reg_access::kRead | reg_access::kWow64_64Key, key) != kErrorSuccess ||
      !key || key->QueryValue(kExcludedUsersValue, type, data) != kErrorSuccess ||
      (type != kRegMultiSz && type != kRegSz))
    data.clear();
  return data;
}

bool ReadResendLogoff(IRegistry& registry) {
  std::unique_ptr<IRegistryKey> key;
  std::vector<uint8_t> data;
  uint32_t type = 0;
  return registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath,
                          reg_access::kRead | reg_access::kWow64_64Key, key) == kErrorSuccess &&
         key && key->QueryValue(kResendLogoffValue, type, data) == kErrorSuccess &&
         type == kRegDword && data.size() == 4 && (data[0] | data[1] | data[2] | data[3]) != 0;
}

}  // namespace lindqvar
