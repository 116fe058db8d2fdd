// The four NTLM messages of the relay (ntlm/ntlm_relay.h): the agent's
// MSG_NTLM_NEGOTIATE and MSG_NTLM_AUTHENTICATE, the server's
// MSG_NTLM_CHALLENGE, each carrying one token, and the server's
// MSG_NTLM_RESULT.
#pragma once

#include <cstdint>
#include <string_view>

#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"

namespace lindqvar {

struct NtlmToken {
  uint8_t code = MSG_NTLM_NEGOTIATE;  // which of the three
  uint32_t id = 0;                    // the exchange's key
  // The token as base64 text, without terminator. Read in place: valid
  // while the decoder holds the message.
  std::string_view token{};

  // ATTR_ID and ATTR_NTLM_TOKEN in a group of `code`.
  void Write(CEncoder& encoder) const;
  // False when the message's code is not `code`. A token counts only from
  // a bytes or string attribute; the last one wins.
  bool Read(CDecoder& decoder);
};

struct NtlmResult {
  // The result as the agent reads it: ATTR_NTLM_STATUS's four bytes
  // without byte-order conversion (1: proven); -1 when none was sent.
  int32_t status = -1;

  // Writes the bytes that the agent reads back as `status`.
  void Write(CEncoder& encoder) const;
  // False when the message is not an NTLM result.
  bool Read(CDecoder& decoder);
};

}  // namespace lindqvar
