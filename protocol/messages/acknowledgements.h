// The server's acknowledgements: MSG_HELLO_ACK accepts or rejects the
// agent's hello, MSG_EVENT_ACK answers the event (and may ask for NTLM
// proof of the user, or give a new keep-alive interval).
#pragma once

#include <cstdint>

#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"

namespace lindqvar {

struct HelloAck {
  uint32_t result = 0;  // 1: accepted; anything else (or none): rejected

  void Write(CEncoder& encoder) const;
  // False when the message is not a hello acknowledgement. The last result
  // given wins.
  bool Read(CDecoder& decoder);
};

// The event result that asks for NTLM proof of the session's user.
inline constexpr uint32_t kEventResultNtlmRequired = 2;

struct EventAck {
  uint32_t result = 0;
  uint32_t keepAliveInterval = 0;  // seconds; 0: none (ATTR_KEEPALIVE_INTERVAL not written)

  void Write(CEncoder& encoder) const;
  // False when the message is not an event acknowledgement. The last result
  // wins, and the last interval that is not 0.
  bool Read(CDecoder& decoder);
};

}  // namespace lindqvar
