#include "tools/diag/diag_event.h"

#include <ctime>

#include "protocol/session_message.h"

namespace lindqvar::diag {

void BuildEvent(const DiagEvent& event, CEncoder& e) {
  SessionRecordFields f;
  f.logon = event.logon ? 1 : 0;
  f.domain = event.domain;
  f.user = event.user;
  f.workstation = event.workstation;
  for (size_t i = 0; i < event.ipv4.size() && i < f.ipv4.size(); ++i) f.ipv4[i] = event.ipv4[i];
  for (size_t i = 0; i < event.ipv6.size() && i < f.ipv6.size(); ++i) f.ipv6[i] = event.ipv6[i];
  f.time = event.time ? event.time : static_cast<uint32_t>(std::time(nullptr));
  e.begin_message(MSG_EVENT);
  add_session_record(e, f);
  e.end_group(MSG_EVENT);
}

}  // namespace lindqvar::diag
