// One configured authentication server: the host as written in the settings
// (IPv6 brackets kept), the same text as UTF-16, and the TCP port; and the
// servers and preshared key of one delivery pass.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/secret.h"

namespace lindqvar {

inline constexpr uint32_t kDefaultServerPort = 8001;

struct ServerEntry {
  char host[128] = {};       // at most 127 characters and NUL
  char16_t hostW[128] = {};  // host converted with the system ANSI code page
  uint32_t port = kDefaultServerPort;
};
static_assert(sizeof(ServerEntry) == 388, "a server entry is a fixed 388-byte block");

// The server list in force, in configured order.
using ServerList = std::vector<std::unique_ptr<ServerEntry>>;

// The servers and the preshared key of one delivery pass. A pass works on
// the snapshot it took at its start; a settings re-read swaps in a new one
// without waiting for a pass to end. The key is wiped when the snapshot goes.
struct DeliveryConfig {
  DeliveryConfig() = default;
  DeliveryConfig(DeliveryConfig&&) = default;
  DeliveryConfig& operator=(DeliveryConfig&&) = default;
  ~DeliveryConfig() { WipeString(presharedKey); }

  ServerList servers;
  std::string presharedKey;  // UTF-8
};
using DeliveryConfigPtr = std::shared_ptr<const DeliveryConfig>;

// A snapshot holding copies of the entries.
inline DeliveryConfigPtr MakeDeliveryConfig(const ServerList& servers,
                                            const std::string& presharedKey) {
  auto config = std::make_shared<DeliveryConfig>();
  config->servers.reserve(servers.size());
  for (const auto& s : servers) {
    if (s) config->servers.push_back(std::make_unique<ServerEntry>(*s));
  }
  config->presharedKey = presharedKey;
  return config;
}

}  // namespace lindqvar
