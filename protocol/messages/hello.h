// MSG_HELLO, both ways: the server opens every dialogue with a hello that
// carries a challenge, and the agent answers with one that carries the
// digest proving its preshared key (delivery/server_dialogue.h); the
// server's MSG_HELLO_ACK accepts or rejects it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"

namespace lindqvar {

// Bit 0 of the hello's flags: the reply must carry the digest.
inline constexpr uint32_t kHelloDigestRequired = 1;

struct Hello {
  // The longest version text a hello may carry.
  static constexpr size_t kMaxVersionLength = 31;

  uint32_t id = 0;     // chosen by the server, returned unchanged
  uint32_t flags = 0;  // the server's, returned unchanged
  // Text values are read in place: they stay valid while the decoder holds
  // the message (the writer's point into the writer's own strings).
  std::string_view version{};
  std::array<uint8_t, 16> digest{};  // the server's challenge, or the agent's response
  uint32_t digestLength = 0;         // read: bytes the digest attribute carried (0: none)
  std::string_view clientGuid{};     // the agent's GUID text; empty: not sent

  // ATTR_ID, ATTR_HELLO_FLAGS, ATTR_VERSION_TEXT (as it is, not
  // upper-cased), ATTR_DIGEST (16 bytes) and ATTR_CLIENT_GUID when there
  // is one.
  void Write(CEncoder& encoder) const;
  // False when the message is not a hello, or when a version text does not
  // fit kMaxVersionLength (a malformed hello). Later attributes win; a
  // digest of fewer than 16 bytes leaves the rest zero.
  bool Read(CDecoder& decoder);

  bool operator==(const Hello&) const = default;
};

struct HelloAck {
  uint32_t result = 0;  // 1: accepted; anything else (or none): rejected

  void Write(CEncoder& encoder) const;
  // False when the message is not a hello acknowledgement. The last result
  // given wins.
  bool Read(CDecoder& decoder);
};

// The digest that proves knowledge of the preshared key: MD5 of the
// challenge XOR the key (both 16 bytes). `challenge` is changed in place
// (it holds the XOR afterwards).
void compute_response(uint8_t challenge[16], const uint8_t key[16], uint8_t digest[16]);

// The 16-byte key block made from a preshared key: its first 16 bytes,
// padded with zero bytes when shorter.
void PresharedKeyBlock(const std::string& presharedKey, uint8_t key[16]);

}  // namespace lindqvar
