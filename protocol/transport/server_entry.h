// One configured authentication server: the host as written in the settings
// (IPv6 brackets kept), the same text as UTF-16, and the TCP port.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

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

}  // namespace lindqvar
