#include "protocol/wire/decoder.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace lindqvar {

CDecoder::CDecoder(uint8_t* buffer, uint32_t length) {
  if (buffer) attach(buffer, length);
}

CDecoder::~CDecoder() { Release(); }

void CDecoder::Release() {
  if (m_ownsBuffer) std::free(m_buffer);
  m_buffer = nullptr;
  m_cursor = nullptr;
  m_total = 0;
  m_ownsBuffer = false;
}

void CDecoder::Clear() {
  m_code = 0;
  m_length = 0;
  m_type = 0;
  m_value = 0;
  m_valueData = nullptr;
  m_header = nullptr;
}

void CDecoder::attach(uint8_t* buffer, uint32_t length) {
  Release();
  m_buffer = buffer;
  m_total = buffer ? length : 0;
  m_cursor = buffer;
  Clear();
}

uint8_t* CDecoder::allocate(uint32_t count) {
  Release();
  Clear();
  if (count == 0) return nullptr;
  auto* block = static_cast<uint8_t*>(std::calloc(count, 1));
  if (!block) return nullptr;
  m_buffer = block;
  m_total = count;
  m_cursor = block;
  m_ownsBuffer = true;
  return block;
}

uint32_t CDecoder::Remaining() const {
  if (!m_buffer || m_cursor >= m_buffer + m_total) return 0;
  return static_cast<uint32_t>(m_buffer + m_total - m_cursor);
}

uint8_t* CDecoder::next() {
  const uint32_t remaining = Remaining();
  if (remaining == 0) return nullptr;

  // The buffer comes from the server. An attribute that does not fit in
  // what is left of it ends the walk, so that neither the walk nor a caller
  // reading the value (length - 6 bytes from offset 6) reads past the end;
  // a length below the header size or an unknown type ends it too, since the
  // cursor would not move and the walk would never end. Well-formed messages
  // never meet these guards.
  uint8_t* attribute = m_cursor;
  uint32_t length = 0;
  uint32_t step = 0;
  bool fits = remaining >= kAttributeHeaderSize;
  if (fits) {
    length = GetBE32(attribute);
    switch (attribute[5]) {
      case TYPE_BYTES:
      case TYPE_STRING:
        fits = length >= kAttributeHeaderSize && length <= remaining;
        step = length;
        break;
      case TYPE_U16:
        fits = length >= kAttributeHeaderSize && length <= remaining && remaining >= 8;
        step = length;
        break;
      case TYPE_U32:
        fits = length >= kAttributeHeaderSize && length <= remaining && remaining >= 10;
        step = length;
        break;
      case TYPE_GROUP:
        // The walk descends into a group and never uses its length, so any
        // length value is harmless here.
        step = kAttributeHeaderSize;
        break;
      default: fits = false; break;
    }
  }
  if (!fits) {
    m_cursor = m_buffer + m_total;
    Clear();
    return nullptr;
  }

  // The length is rewritten in host order in place: callers read it from
  // the header, and a second walk of the same buffer reads it wrongly.
  std::memcpy(attribute, &length, sizeof length);
  m_code = attribute[4];
  m_type = attribute[5];
  m_length = length;
  m_header = attribute;
  m_value = 0;
  m_valueData = nullptr;
  switch (m_type) {
    case TYPE_U16: m_value = GetBE16(attribute + kAttributeHeaderSize); break;
    case TYPE_U32: m_value = GetBE32(attribute + kAttributeHeaderSize); break;
    default: m_valueData = attribute + kAttributeHeaderSize; break;
  }
  m_cursor += step;
  return attribute;
}

uint32_t CDecoder::ValueRawU32() const {
  uint32_t raw = 0;
  // next() made sure that the four bytes at offset 6 of a u32 lie in the
  // buffer.
  if (m_type == TYPE_U32 && m_header)
    std::memcpy(&raw, m_header + kAttributeHeaderSize, sizeof raw);
  return raw;
}

uint8_t CDecoder::message_code() const { return (m_buffer && m_total > 4) ? m_buffer[4] : 0; }

uint8_t CDecoder::peek_code() const { return Remaining() > 4 ? m_cursor[4] : 0; }

std::string_view CDecoder::Text() const {
  if (m_type != TYPE_BYTES && m_type != TYPE_STRING) return {};
  return std::string_view(reinterpret_cast<const char*>(m_valueData), ValueSize());
}

namespace {

// Reads exactly `count` bytes. Any read that reports failure, end of stream
// or more than was asked for fails the whole read: a loop that ignored such
// a result would spin forever on a closed connection.
bool ReadExactly(const StreamRead& read, uint8_t* out, uint32_t count) {
  while (count > 0) {
    const int chunk = count > static_cast<uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(count);
    const int got = read(out, chunk);
    if (got <= 0 || got > chunk) return false;
    out += got;
    count -= static_cast<uint32_t>(got);
  }
  return true;
}

}  // namespace

uint32_t ReceiveMessage(CDecoder& decoder, const StreamRead& read, uint32_t maxLength) {
  uint8_t prefix[4];
  if (!read || !ReadExactly(read, prefix, sizeof prefix)) return 0;
  // The message's total length, these four bytes included. A message is at
  // least one group header; anything shorter cannot be walked.
  const uint32_t total = GetBE32(prefix);
  if (total < kAttributeHeaderSize) return 0;
  if (maxLength != 0 && total > maxLength) return 0;
  uint8_t* buffer = decoder.allocate(total);
  if (!buffer) return 0;
  std::memcpy(buffer, prefix, sizeof prefix);
  if (!ReadExactly(read, buffer + sizeof prefix, total - sizeof prefix)) {
    decoder.attach(nullptr, 0);  // no half message to walk
    return 0;
  }
  return 1;
}

}  // namespace lindqvar
