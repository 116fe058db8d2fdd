#include "protocol/messages/acknowledgements.h"

namespace lindqvar {

void HelloAck::Write(CEncoder& e) const {
  e.begin_group(MSG_HELLO_ACK);
  e.add_u32(ATTR_HELLO_RESULT, result);
  e.end_group(MSG_HELLO_ACK);
}

bool HelloAck::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_HELLO_ACK) return false;
  while (d.next())
    if (d.Code() == ATTR_HELLO_RESULT) result = d.ValueU32();
  return true;
}

void EventAck::Write(CEncoder& e) const {
  e.begin_group(MSG_EVENT_ACK);
  e.add_u32(ATTR_EVENT_RESULT, result);
  if (keepAliveInterval) e.add_u32(ATTR_KEEPALIVE_INTERVAL, keepAliveInterval);
  e.end_group(MSG_EVENT_ACK);
}

bool EventAck::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_EVENT_ACK) return false;
  while (d.next()) {
    if (d.Code() == ATTR_EVENT_RESULT) result = d.ValueU32();
    if (d.Code() == ATTR_KEEPALIVE_INTERVAL && d.ValueU32() != 0) keepAliveInterval = d.ValueU32();
  }
  return true;
}

}  // namespace lindqvar
