#include "tools/diag/diag_event.h"

#include <array>
#include <ctime>

namespace lindqvar::diag {

void BuildEvent(const DiagEvent& event, CEncoder& e) {
  e.begin_message(MSG_EVENT);
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, event.logon ? 1 : 0);
  e.add_u32(ATTR_FIXED_VALUE, 4096);
  e.add_string(ATTR_DOMAIN, event.domain, 1);
  e.add_string(ATTR_USER, event.user, 1);
  e.add_string(ATTR_WORKSTATION, event.workstation, 1);
  for (size_t i = 0; i < event.ipv4.size() && i < 4; ++i) {
    // The four address bytes go out in network order.
    const auto* b = reinterpret_cast<const uint8_t*>(&event.ipv4[i]);
    e.add_u32(ATTR_IPV4, (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) |
                             uint32_t{b[3]});
  }
  for (size_t i = 0; i < event.ipv6.size() && i < 4; ++i)
    e.add_bytes(ATTR_IPV6, event.ipv6[i].data(), 16);
  const uint32_t now = event.time ? event.time : static_cast<uint32_t>(std::time(nullptr));
  e.add_u32(ATTR_TIME, now);
  e.end_group(MSG_SESSION_INFO);
  e.end_group(MSG_EVENT);
}

}  // namespace lindqvar::diag
