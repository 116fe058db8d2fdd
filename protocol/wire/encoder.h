// CEncoder: writes one message (wire/codes.h) into a growing heap buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "protocol/wire/codes.h"

namespace lindqvar {

// Initial encoder sizes: an event of two full session records fits in the
// first, a hello reply or an NTLM message in the second, without growth.
inline constexpr uint32_t kEventEncoderCapacity = 1024;
inline constexpr uint32_t kReplyEncoderCapacity = 256;

// Every operation returns 0, or -1 when the buffer could not grow or an
// argument was null. A failed growth loses the message: the encoder then
// holds no buffer and every later add fails until reset().
class CEncoder {
 public:
  static constexpr uint32_t kDefaultCapacity = 256;
  static constexpr size_t kGroupSlots = 8;

  // capacity 0 means kDefaultCapacity. The buffer starts zeroed.
  explicit CEncoder(uint32_t capacity = 0);
  virtual ~CEncoder();
  CEncoder(const CEncoder&) = delete;
  CEncoder& operator=(const CEncoder&) = delete;

  // Writes a group header (length left for end_group) and registers the
  // group in the lowest free slot. With all 8 slots taken the header is
  // still written and 0 returned, but the group can never be closed.
  int begin_group(uint8_t code);
  int begin_message(uint8_t code) { return begin_group(code); }
  // Closes the innermost open group with this code (slots searched from the
  // top down) and stores its length. -1 when no open group has the code; the
  // header's length then stays 0.
  int end_group(uint8_t code);

  int add_u32(uint8_t code, uint32_t value);
  int add_u16(uint8_t code, uint16_t value);
  // 6 + byteCount bytes of type TYPE_STRING. With upperCase non-zero the
  // bytes are upper-cased without changing their number; `text` must then
  // be a NUL-terminated string, as the upper-casing reads it up to its NUL
  // (past byteCount when the NUL lies further). A null text fails with -1.
  int add_string(uint8_t code, const char* text, uint32_t byteCount, uint32_t upperCase);
  int add_string(uint8_t code, const std::string& text, uint32_t upperCase) {
    return add_string(code, text.c_str(), static_cast<uint32_t>(text.size()), upperCase);
  }
  // 6 + count bytes of type TYPE_BYTES, copied as they are. Null data fails.
  int add_bytes(uint8_t code, const void* data, uint32_t count);

  // The message as written so far: the buffer and its length in bytes.
  const uint8_t* get_buffer(uint32_t* length) const;
  // Empties the encoder: length 0, all slots free, the buffer zeroed. With
  // no buffer (after a failed growth) it starts over as CEncoder(0).
  void reset();

  uint32_t Length() const { return m_length; }
  uint32_t Capacity() const { return m_capacity; }

 private:
  struct GroupSlot {
    uint8_t code;
    uint8_t* start;   // the group's header in the buffer
    uint32_t length;  // set when closed
  };

  void Init(uint32_t capacity);
  void Release();
  // Makes room for `needed` more bytes; -1 when that is impossible.
  int Reserve(uint32_t needed);
  void PutHeader(uint32_t length, uint8_t code, uint8_t type);
  void UpperCaseInto(uint8_t* out, const char* text, uint32_t byteCount);

  uint32_t m_length = 0;
  uint32_t m_capacity = 0;
  uint8_t* m_buffer = nullptr;
  uint8_t* m_cursor = nullptr;
  GroupSlot m_groups[kGroupSlots] = {};
};

}  // namespace lindqvar
