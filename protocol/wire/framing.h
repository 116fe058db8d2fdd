// Messages on a stream: the length field of a message's own group is the
// only framing (wire/codes.h).
#pragma once

#include <cstdint>
#include <functional>

#include "protocol/wire/decoder.h"

namespace lindqvar {

// Reads up to `count` bytes into `buffer`, with SSL_read's contract: the
// number of bytes read (> 0), or 0 / negative when the stream failed or
// closed.
using StreamRead = std::function<int(void* buffer, int count)>;

// The longest message a receive accepts by default: far above anything a
// server sends, far below what a hostile length word could make the agent
// allocate.
inline constexpr uint32_t kMaxMessageLength = 1u << 20;

// Reads one message into the decoder's own buffer: the 4-byte big-endian
// total length L, then the L - 4 bytes that follow. 1 on success, 0 when a
// read fails, L is smaller than an attribute header, L exceeds maxLength
// (0: no limit) or the buffer cannot be allocated; the decoder is then left
// empty. A refused length is refused before anything is allocated or read
// past it. On success the first next() returns the message's own group
// header.
uint32_t ReceiveMessage(CDecoder& decoder, const StreamRead& read,
                        uint32_t maxLength = kMaxMessageLength);

}  // namespace lindqvar
