#include "protocol/wire/encoder.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "protocol/wire/wide_upper.h"

namespace lindqvar {

namespace {

// The runtime library's toupper in the "C" locale, applied to a byte taken as
// a signed char: only a-z change; bytes of multi-byte characters stay.
char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

CEncoder::CEncoder(uint32_t capacity) { Init(capacity); }

CEncoder::~CEncoder() { std::free(m_buffer); }

void CEncoder::Init(uint32_t capacity) {
  m_capacity = capacity ? capacity : kDefaultCapacity;
  m_buffer = static_cast<uint8_t*>(std::calloc(m_capacity, 1));
  if (!m_buffer) m_capacity = 0;
  m_length = 0;
  m_cursor = m_buffer;
  std::memset(m_groups, 0, sizeof m_groups);
}

void CEncoder::Release() {
  std::free(m_buffer);
  m_buffer = nullptr;
  m_cursor = nullptr;
  m_capacity = 0;
  m_length = 0;
  std::memset(m_groups, 0, sizeof m_groups);
}

void CEncoder::reset() {
  if (!m_buffer) {
    Init(0);
    return;
  }
  m_length = 0;
  m_cursor = m_buffer;
  std::memset(m_groups, 0, sizeof m_groups);
  std::memset(m_buffer, 0, m_capacity);
}

int CEncoder::Reserve(uint32_t needed) {
  if (!m_buffer) return -1;
  const uint64_t want = uint64_t{m_length} + needed;
  if (want <= m_capacity) return 0;
  // Double the buffer, or grow by the shortfall plus the old size when
  // doubling is not enough. A message's length must fit its 32-bit field.
  uint64_t grown = 2 * uint64_t{m_capacity};
  if (want > grown) grown = want + m_capacity;
  if (grown > UINT32_MAX) grown = UINT32_MAX;
  if (want > grown) {
    Release();
    return -1;
  }
  const size_t cursorAt = static_cast<size_t>(m_cursor - m_buffer);
  size_t startAt[kGroupSlots] = {};
  for (size_t i = 0; i < kGroupSlots; ++i)
    if (m_groups[i].code) startAt[i] = static_cast<size_t>(m_groups[i].start - m_buffer);

  auto* moved = static_cast<uint8_t*>(std::realloc(m_buffer, static_cast<size_t>(grown)));
  if (!moved) {
    // The message is lost and the encoder keeps no buffer; the old block is
    // released here rather than leaked.
    Release();
    return -1;
  }
  // Open groups and the cursor follow the block if it moved.
  m_buffer = moved;
  m_cursor = moved + cursorAt;
  for (size_t i = 0; i < kGroupSlots; ++i)
    if (m_groups[i].code) m_groups[i].start = moved + startAt[i];
  std::memset(moved + m_capacity, 0, static_cast<size_t>(grown - m_capacity));
  m_capacity = static_cast<uint32_t>(grown);
  return 0;
}

void CEncoder::PutHeader(uint32_t length, uint8_t code, uint8_t type) {
  PutBE32(m_cursor, length);
  m_cursor[4] = code;
  m_cursor[5] = type;
  m_cursor += kAttributeHeaderSize;
}

int CEncoder::begin_group(uint8_t code) {
  if (Reserve(kAttributeHeaderSize) != 0) return -1;
  uint8_t* start = m_cursor;
  PutHeader(0, code, TYPE_GROUP);
  m_length += kAttributeHeaderSize;
  // Code 0 marks a free slot, so such a group is never registered; with all
  // slots taken the group is written but cannot be closed.
  if (code != 0) {
    for (GroupSlot& slot : m_groups) {
      if (slot.code == 0) {
        slot = GroupSlot{code, start, 0};
        break;
      }
    }
  }
  return 0;
}

int CEncoder::end_group(uint8_t code) {
  if (code == 0 || !m_buffer) return -1;
  // From the top slot down: of two open groups with one code, the inner one
  // (registered later, in a higher slot) closes first.
  for (size_t i = kGroupSlots; i-- > 0;) {
    GroupSlot& slot = m_groups[i];
    if (slot.code != code) continue;
    slot.length = static_cast<uint32_t>(m_cursor - slot.start);
    PutBE32(slot.start, slot.length);
    slot = GroupSlot{};
    return 0;
  }
  return -1;
}

int CEncoder::add_u32(uint8_t code, uint32_t value) {
  constexpr uint32_t kSize = kAttributeHeaderSize + 4;
  if (Reserve(kSize) != 0) return -1;
  PutHeader(kSize, code, TYPE_U32);
  PutBE32(m_cursor, value);
  m_cursor += 4;
  m_length += kSize;
  return 0;
}

int CEncoder::add_u16(uint8_t code, uint16_t value) {
  constexpr uint32_t kSize = kAttributeHeaderSize + 2;
  if (Reserve(kSize) != 0) return -1;
  PutHeader(kSize, code, TYPE_U16);
  m_cursor[0] = static_cast<uint8_t>(value >> 8);
  m_cursor[1] = static_cast<uint8_t>(value);
  m_cursor += 2;
  m_length += kSize;
  return 0;
}

int CEncoder::add_bytes(uint8_t code, const void* data, uint32_t count) {
  if (!data) return -1;
  if (count > UINT32_MAX - kAttributeHeaderSize || Reserve(kAttributeHeaderSize + count) != 0) {
    Release();
    return -1;
  }
  PutHeader(kAttributeHeaderSize + count, code, TYPE_BYTES);
  std::memcpy(m_cursor, data, count);
  m_cursor += count;
  m_length += kAttributeHeaderSize + count;
  return 0;
}

int CEncoder::add_string(uint8_t code, const char* text, uint32_t byteCount, uint32_t upperCase) {
  if (!text) return -1;
  if (byteCount > UINT32_MAX - kAttributeHeaderSize ||
      Reserve(kAttributeHeaderSize + byteCount) != 0) {
    Release();
    return -1;
  }
  // The length is fixed before any upper-casing, which never changes it.
  PutHeader(kAttributeHeaderSize + byteCount, code, TYPE_STRING);
  if (upperCase)
    UpperCaseInto(m_cursor, text, byteCount);
  else
    std::memcpy(m_cursor, text, byteCount);
  m_cursor += byteCount;
  m_length += kAttributeHeaderSize + byteCount;
  return 0;
}

// Upper-cases through UTF-16 (UpperCaseUtf8): the whole NUL-terminated text
// goes through, and its upper-cased form is used only when it has exactly
// byteCount bytes. Otherwise (a character whose upper-case form has another
// UTF-8 length, malformed UTF-8, a text whose NUL is not at byteCount) the
// bytes are upper-cased one by one, which leaves every non-ASCII byte as it
// is. An ASCII text of byteCount bytes comes out the same either way.
void CEncoder::UpperCaseInto(uint8_t* out, const char* text, uint32_t byteCount) {
  if (UpperCaseUtf8(text, out, byteCount)) return;
  for (uint32_t i = 0; i < byteCount; ++i) out[i] = static_cast<uint8_t>(AsciiUpper(text[i]));
}

const uint8_t* CEncoder::get_buffer(uint32_t* length) const {
  if (length) *length = m_length;
  return m_buffer;
}

}  // namespace lindqvar
