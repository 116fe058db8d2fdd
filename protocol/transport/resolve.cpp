#include "protocol/transport/resolve.h"

#include <cstring>
#include <string>
#include <vector>

#include "platform/os.h"

namespace lindqvar {

IpAddress CServerResolver::LastAddress() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_last;
}

uint32_t CServerResolver::resolve_server(const ServerEntry& server, IpAddress* address) {
  const auto tid = static_cast<int>(CurrentThreadId());
  const auto ticc = static_cast<int>(TickCount());
  const bool tick = m_bLogTickCount != 0;
  // Log lines show the configured name in its wide form.
  const std::string name = WideToUtf8(
      std::u16string_view(server.hostW, WideLength(server.hostW, sizeof server.hostW / 2)));

  std::lock_guard<std::mutex> lock(m_lock);
  if (tick)
    m_log.Debug("Start to resolve address for Brannock:%s, TICC:%d, TID:%d", name.c_str(), ticc,
                tid);
  else
    m_log.Debug("Start to resolve address for Brannock:%s, TID:%d", name.c_str(), tid);

  // The 8-bit name, bounded by its field in case it lacks a terminator.
  const void* nul = std::memchr(server.host, '\0', sizeof server.host);
  const std::string host(server.host,
                         nul ? static_cast<const char*>(nul) - server.host : sizeof server.host);
  IpAddress obtained;
  std::vector<ResolvedAddress> answers;
  if (!parse_address_literal(host.c_str(), obtained) && m_network.Resolve(host, answers) == 0 &&
      !answers.empty()) {
    // The first answer only, whatever its family: anything that is not
    // IPv4 is taken as IPv6.
    const ResolvedAddress& first = answers.front();
    if (first.family != kFamilyIPv4) {
      obtained.SetIPv6(first.bytes.data());
    } else {
      uint32_t ipv4;
      std::memcpy(&ipv4, first.bytes.data(), sizeof ipv4);
      obtained.SetIPv4(ipv4);
    }
  }

  if (obtained.IsValid()) {
    m_last = obtained;
    if (tick)
      m_log.Debug("Succeeded to resolve address for Brannock:%s, BRK IP:%s, TICC:%d, TID:%d",
                  name.c_str(), m_last.Text(), ticc, tid);
    else
      m_log.Debug("Succeeded to resolve address for Brannock:%s, BRK IP:%s, TID:%d", name.c_str(),
                  m_last.Text(), tid);
  } else {
    if (tick)
      m_log.Error("Failed to resolve address for Brannock:%s, TICC:%d, TID:%d", name.c_str(), ticc,
                  tid);
    else
      m_log.Error("Failed to resolve address for Brannock:%s, TID:%d", name.c_str(), tid);
    if (!m_last.IsValid()) return 0;
    // Whatever was obtained last, possibly for another server.
    if (tick)
      m_log.Debug("Still use previous resolved IP address:%s, TICC:%d, TID:%d", m_last.Text(), ticc,
                  tid);
    else
      m_log.Debug("Still use previous resolved IP address:%s, TID:%d", m_last.Text(), tid);
  }
  if (address) *address = m_last;
  return 1;
}

}  // namespace lindqvar
