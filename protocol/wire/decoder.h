// CDecoder walks a received message (wire/codes.h) in place;
// ReceiveMessage reads one off a stream, where the length field of a
// message's own group is the only framing.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "protocol/wire/codes.h"

namespace lindqvar {

// next() returns the header of each attribute in turn and descends into
// groups, so a message reads as one flat sequence: the envelope, a nested
// group's header, its children, the next group's header, ... Each length
// field is rewritten in host byte order as it is read, so a buffer can be
// walked only once.
class CDecoder {
 public:
  CDecoder() = default;
  // Attaches to a caller's buffer without taking ownership.
  CDecoder(uint8_t* buffer, uint32_t length);
  virtual ~CDecoder();
  CDecoder(const CDecoder&) = delete;
  CDecoder& operator=(const CDecoder&) = delete;

  // Walks `buffer` from its start; the decoder does not own it.
  void attach(uint8_t* buffer, uint32_t length);
  // Replaces the buffer with an owned, zero-filled one of `count` bytes and
  // walks it from the start. Null when it cannot be allocated (or count 0).
  uint8_t* allocate(uint32_t count);

  // The header of the next attribute, or null at the end of the buffer.
  uint8_t* next();
  // Code of the buffer's first attribute (the message code); 0 when none.
  uint8_t message_code() const;
  // Code of the attribute at the cursor without moving; 0 at the end.
  uint8_t peek_code() const;

  // The attribute last returned by next().
  uint8_t Code() const { return m_code; }
  uint8_t Type() const { return m_type; }
  uint32_t Length() const { return m_length; }
  // TYPE_U16 / TYPE_U32 value in host order (0 for other types).
  uint16_t ValueU16() const { return static_cast<uint16_t>(m_value); }
  uint32_t ValueU32() const { return static_cast<uint32_t>(m_value); }
  // The value's 4 bytes exactly as stored in the buffer (a TYPE_U32 read
  // without byte-order conversion).
  uint32_t ValueRawU32() const;
  // Pointer to the value (offset 6) of a bytes, string or group attribute.
  const uint8_t* ValueData() const { return m_valueData; }
  // Byte count of a bytes or string value: length - 6 (0 for a group
  // header whose length is below 6).
  uint32_t ValueSize() const {
    return m_length > kAttributeHeaderSize ? m_length - kAttributeHeaderSize : 0;
  }
  // A bytes or string value in place; empty for every other type (only
  // those two have a length the walk checked).
  std::string_view Text() const;

  const uint8_t* Buffer() const { return m_buffer; }
  uint32_t TotalLength() const { return m_total; }

 private:
  void Release();
  uint32_t Remaining() const;
  void Clear();

  uint8_t* m_buffer = nullptr;
  uint32_t m_total = 0;
  uint8_t* m_cursor = nullptr;
  bool m_ownsBuffer = false;

  uint8_t m_code = 0;
  uint32_t m_length = 0;
  uint8_t m_type = 0;
  uint64_t m_value = 0;                  // u16 / u32 in host order
  const uint8_t* m_valueData = nullptr;  // bytes, string, group
  const uint8_t* m_header = nullptr;
};

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
