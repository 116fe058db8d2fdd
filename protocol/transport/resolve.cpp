#include "protocol/transport/resolve.h"

#include <cstring>
#include <string>
#include <vector>

#include "platform/os.h"

namespace lindqvar {

IpAddress CServerResolver::LastAddressLocked() const {
  IpAddress address;
  if (!m_lastKnown) return address;
  if (m_lastFamily == kFamilyIPv4)
    address.SetIPv4(m_lastIPv4);
  else
    address.SetIPv6(m_lastIPv6);
  return address;
}

IpAddress CServerResolver::LastAddress() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return LastAddressLocked();
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
    m_log.Debug("Start to resolve address for Brannock:%s, TICC:%d, TID:%d", name.c_str(), ticc, tid);
  else
    m_log.Debug("Start to resolve address for Brannock:%s, TID:%d", name.c_str(), tid);

  // The 8-bit name, bounded by its field in case it lacks a terminator.
  const void* nul = std::memchr(server.host, '\0', sizeof server.host);
  const std::string host(server.host, nul ? static_cast<const char*>(nul) - server.host
                                          : sizeof server.host);
  uint32_t result = 0;
  bool obtained = false;

  IpAddress literal;
  if (parse_address_literal(host.c_str(), literal)) {
    obtained = true;
    m_lastFamily = literal.Family();
    if (literal.Family() == kFamilyIPv4)
      m_lastIPv4 = literal.IPv4();
    else
      std::memcpy(m_lastIPv6, literal.Bytes(), sizeof m_lastIPv6);
  } else {
    std::vector<ResolvedAddress> answers;
    if (m_network.Resolve(host, answers) == 0 && !answers.empty()) {
      // The first answer only, whatever its family: anything that is not
      // IPv4 is taken as IPv6.
      const ResolvedAddress& first = answers.front();
      obtained = true;
      if (first.family != kFamilyIPv4) {
        m_lastFamily = kFamilyIPv6;
        std::memcpy(m_lastIPv6, first.bytes.data(), sizeof m_lastIPv6);
      } else {
        m_lastFamily = kFamilyIPv4;
        std::memcpy(&m_lastIPv4, first.bytes.data(), sizeof m_lastIPv4);
      }
    } else {
      if (tick)
        m_log.Error("Failed to resolve address for Brannock:%s, TICC:%d, TID:%d", name.c_str(), ticc,
                    tid);
      else
        m_log.Error("Failed to resolve address for Brannock:%s, TID:%d", name.c_str(), tid);
      if (m_lastKnown) {
        // Whatever was obtained last, possibly for another server.
        const IpAddress previous = LastAddressLocked();
        if (tick)
          m_log.Debug("Still use previous resolved IP address:%s, TICC:%d, TID:%d", previous.Text(),
                      ticc, tid);
        else
          m_log.Debug("Still use previous resolved IP address:%s, TID:%d", previous.Text(), tid);
        result = 1;
      }
    }
  }

  if (obtained) {
    m_lastKnown = 1;
    result = 1;
    const IpAddress current = LastAddressLocked();
    if (tick)
      m_log.Debug("Succeeded to resolve address for Brannock:%s, BRK IP:%s, TICC:%d, TID:%d",
                  name.c_str(), current.Text(), ticc, tid);
    else
      m_log.Debug("Succeeded to resolve address for Brannock:%s, BRK IP:%s, TID:%d", name.c_str(),
                  current.Text(), tid);
  }
  if (result && address) *address = LastAddressLocked();
  return result;
}

}  // namespace lindqvar
