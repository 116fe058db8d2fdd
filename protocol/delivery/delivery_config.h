// The servers and the preshared key of one delivery pass. A pass works on
// the snapshot it took at its start; a settings re-read swaps in a new one
// without waiting for a pass to end.
#pragma once

#include <memory>
#include <string>

#include "platform/secret.h"
#include "protocol/transport/server_entry.h"

namespace lindqvar {

// The key is wiped when the snapshot goes.
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
