// Turns a configured server name into the address to connect to, keeping the
// last address obtained to fall back on while name resolution is down.
#pragma once

#include <cstdint>
#include <mutex>

#include "platform/log.h"
#include "platform/network.h"
#include "protocol/transport/ip_address.h"
#include "protocol/transport/server_entry.h"

namespace lindqvar {

// The resolution state of the agent. The delivery owns one; every delivery
// thread resolves through it. There is one last address for all servers:
// when a look-up fails, whatever address was obtained last is used, which
// may be another server's.
class CServerResolver {
 public:
  CServerResolver(INetwork& network, CLog& log) : m_network(network), m_log(log) {}
  CServerResolver(const CServerResolver&) = delete;
  CServerResolver& operator=(const CServerResolver&) = delete;

  // Log lines carry ", TICC:%d" (the tick count) before ", TID:%d" when on;
  // on by default.
  void SetTickLogging(bool on) { m_bLogTickCount = on ? 1 : 0; }

  // Resolves `server.host` (an address literal, brackets allowed for IPv6,
  // or a name; only the first answer of a name is used, whatever its
  // family). Returns 1 when an address is available for the connection,
  // new or from an earlier call, and 0 when not; with 1 the address is also
  // stored in *address when given.
  uint32_t resolve_server(const ServerEntry& server, IpAddress* address = nullptr);

  // The last address obtained; an empty value before the first success.
  IpAddress LastAddress() const;

 private:
  INetwork& m_network;
  CLog& m_log;
  uint32_t m_bLogTickCount = 1;

  mutable std::mutex m_lock;  // guards the address below
  IpAddress m_last;           // the last address obtained; empty until the first success
};

}  // namespace lindqvar
