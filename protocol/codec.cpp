#include "protocol/codec.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "platform/os.h"
#include "protocol/wide_upper.h"

namespace lindqvar {

namespace {

void PutBE32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

uint32_t GetBE32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

uint16_t GetBE16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

// The runtime library's toupper in the "C" locale, applied to a byte taken as
// a signed char: only a-z change; bytes of multi-byte characters stay.
char AsciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

// --- code names ----------------------------------------------------------------

const char* MessageCodeName(uint8_t code) {
  switch (code) {
    case MSG_HELLO: return "MSG_HELLO";
    case MSG_HELLO_ACK: return "MSG_HELLO_ACK";
    case MSG_EVENT: return "MSG_EVENT";
    case MSG_SESSION_INFO: return "MSG_SESSION_INFO";
    case MSG_EVENT_ACK: return "MSG_EVENT_ACK";
    case MSG_NTLM_NEGOTIATE: return "MSG_NTLM_NEGOTIATE";
    case MSG_NTLM_CHALLENGE: return "MSG_NTLM_CHALLENGE";
    case MSG_NTLM_AUTHENTICATE: return "MSG_NTLM_AUTHENTICATE";
    case MSG_NTLM_RESULT: return "MSG_NTLM_RESULT";
    default: return nullptr;
  }
}

const char* AttributeCodeName(uint8_t parent, uint8_t code) {
  switch (parent) {
    case MSG_HELLO:
      switch (code) {
        case ATTR_ID: return "ATTR_ID";
        case ATTR_HELLO_FLAGS: return "ATTR_HELLO_FLAGS";
        case ATTR_VERSION_TEXT: return "ATTR_VERSION_TEXT";
        case ATTR_DIGEST: return "ATTR_DIGEST";
        case ATTR_CLIENT_GUID: return "ATTR_CLIENT_GUID";
        default: return nullptr;
      }
    case MSG_HELLO_ACK:
      return code == ATTR_HELLO_RESULT ? "ATTR_HELLO_RESULT" : nullptr;
    case MSG_EVENT:
      return code == MSG_SESSION_INFO ? "MSG_SESSION_INFO" : nullptr;
    case MSG_SESSION_INFO:
      switch (code) {
        case ATTR_LOGON: return "ATTR_LOGON";
        case ATTR_IPV4: return "ATTR_IPV4";
        case ATTR_WORKSTATION: return "ATTR_WORKSTATION";
        case ATTR_DOMAIN: return "ATTR_DOMAIN";
        case ATTR_USER: return "ATTR_USER";
        case ATTR_TIME: return "ATTR_TIME";
        case ATTR_FIXED_VALUE: return "ATTR_FIXED_VALUE";
        case ATTR_IPV6: return "ATTR_IPV6";
        case ATTR_AZURE_ACCOUNT: return "ATTR_AZURE_ACCOUNT";
        case ATTR_DEVICE_UUID: return "ATTR_DEVICE_UUID";
        case ATTR_VRX_SERIAL: return "ATTR_VRX_SERIAL";
        case ATTR_TENANT_ID: return "ATTR_TENANT_ID";
        default: return nullptr;
      }
    case MSG_EVENT_ACK:
      switch (code) {
        case ATTR_EVENT_RESULT: return "ATTR_EVENT_RESULT";
        case ATTR_KEEPALIVE_INTERVAL: return "ATTR_KEEPALIVE_INTERVAL";
        default: return nullptr;
      }
    case MSG_NTLM_NEGOTIATE:
    case MSG_NTLM_CHALLENGE:
    case MSG_NTLM_AUTHENTICATE:
      switch (code) {
        case ATTR_ID: return "ATTR_ID";
        case ATTR_NTLM_TOKEN: return "ATTR_NTLM_TOKEN";
        default: return nullptr;
      }
    case MSG_NTLM_RESULT:
      return code == ATTR_NTLM_STATUS ? "ATTR_NTLM_STATUS" : nullptr;
    default:
      return nullptr;
  }
}

// --- CEncoder ------------------------------------------------------------------

CEncoder::CEncoder(uint32_t capacity) { Init(capacity); }

CEncoder::~CEncoder() { std::free(m_pBuffer); }

void CEncoder::Init(uint32_t capacity) {
  m_dwCapacity = capacity ? capacity : kDefaultCapacity;
  m_pBuffer = static_cast<uint8_t*>(std::calloc(m_dwCapacity, 1));
  if (!m_pBuffer) m_dwCapacity = 0;
  m_dwLength = 0;
  m_pCursor = m_pBuffer;
  std::memset(m_groups, 0, sizeof m_groups);
}

void CEncoder::Release() {
  std::free(m_pBuffer);
  m_pBuffer = nullptr;
  m_pCursor = nullptr;
  m_dwCapacity = 0;
  m_dwLength = 0;
  std::memset(m_groups, 0, sizeof m_groups);
}

void CEncoder::reset() {
  if (!m_pBuffer) {
    Init(0);
    return;
  }
  m_dwLength = 0;
  m_pCursor = m_pBuffer;
  std::memset(m_groups, 0, sizeof m_groups);
  std::memset(m_pBuffer, 0, m_dwCapacity);
}

int CEncoder::Reserve(uint32_t needed) {
  if (!m_pBuffer) return -1;
  const uint64_t want = uint64_t{m_dwLength} + needed;
  if (want <= m_dwCapacity) return 0;
  // Double the buffer, or grow by the shortfall plus the old size when
  // doubling is not enough. A message's length must fit its 32-bit field.
  uint64_t grown = 2 * uint64_t{m_dwCapacity};
  if (want > grown) grown = want + m_dwCapacity;
  if (grown > UINT32_MAX) grown = UINT32_MAX;
  if (want > grown) {
    Release();
    return -1;
  }
  const size_t cursorAt = static_cast<size_t>(m_pCursor - m_pBuffer);
  size_t startAt[kGroupSlots] = {};
  for (size_t i = 0; i < kGroupSlots; ++i)
    if (m_groups[i].code) startAt[i] = static_cast<size_t>(m_groups[i].start - m_pBuffer);

  auto* moved = static_cast<uint8_t*>(std::realloc(m_pBuffer, static_cast<size_t>(grown)));
  if (!moved) {
    // The message is lost and the encoder keeps no buffer; the old block is
    // released here rather than leaked.
    Release();
    return -1;
  }
  // Open groups and the cursor follow the block if it moved.
  m_pBuffer = moved;
  m_pCursor = moved + cursorAt;
  for (size_t i = 0; i < kGroupSlots; ++i)
    if (m_groups[i].code) m_groups[i].start = moved + startAt[i];
  std::memset(moved + m_dwCapacity, 0, static_cast<size_t>(grown - m_dwCapacity));
  m_dwCapacity = static_cast<uint32_t>(grown);
  return 0;
}

void CEncoder::PutHeader(uint32_t length, uint8_t code, uint8_t type) {
  PutBE32(m_pCursor, length);
  m_pCursor[4] = code;
  m_pCursor[5] = type;
  m_pCursor += kAttributeHeaderSize;
}

int CEncoder::begin_group(uint8_t code) {
  if (Reserve(kAttributeHeaderSize) != 0) return -1;
  uint8_t* start = m_pCursor;
  PutHeader(0, code, TYPE_GROUP);
  m_dwLength += kAttributeHeaderSize;
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
  if (code == 0 || !m_pBuffer) return -1;
  // From the top slot down: of two open groups with one code, the inner one
  // (registered later, in a higher slot) closes first.
  for (size_t i = kGroupSlots; i-- > 0;) {
    GroupSlot& slot = m_groups[i];
    if (slot.code != code) continue;
    slot.length = static_cast<uint32_t>(m_pCursor - slot.start);
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
  PutBE32(m_pCursor, value);
  m_pCursor += 4;
  m_dwLength += kSize;
  return 0;
}

int CEncoder::add_u16(uint8_t code, uint16_t value) {
  constexpr uint32_t kSize = kAttributeHeaderSize + 2;
  if (Reserve(kSize) != 0) return -1;
  PutHeader(kSize, code, TYPE_U16);
  m_pCursor[0] = static_cast<uint8_t>(value >> 8);
  m_pCursor[1] = static_cast<uint8_t>(value);
  m_pCursor += 2;
  m_dwLength += kSize;
  return 0;
}

int CEncoder::add_bytes(uint8_t code, const void* data, uint32_t count) {
  if (!data) return -1;
  if (count > UINT32_MAX - kAttributeHeaderSize || Reserve(kAttributeHeaderSize + count) != 0) {
    Release();
    return -1;
  }
  PutHeader(kAttributeHeaderSize + count, code, TYPE_BYTES);
  std::memcpy(m_pCursor, data, count);
  m_pCursor += count;
  m_dwLength += kAttributeHeaderSize + count;
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
    UpperCaseInto(m_pCursor, text, byteCount);
  else
    std::memcpy(m_pCursor, text, byteCount);
  m_pCursor += byteCount;
  m_dwLength += kAttributeHeaderSize + byteCount;
  return 0;
}

// Upper-cases through UTF-16: the whole NUL-terminated text is converted,
// each UTF-16 unit upper-cased, and the result converted back; it is used
// only when it has exactly byteCount bytes. Otherwise (a character whose
// upper-case form has another UTF-8 length, malformed UTF-8, a text whose
// NUL is not at byteCount, or no memory) the bytes are upper-cased one by
// one, which leaves every non-ASCII byte as it is.
void CEncoder::UpperCaseInto(uint8_t* out, const char* text, uint32_t byteCount) {
  const size_t whole = std::strlen(text);
  bool ascii = true;
  for (size_t i = 0; i < whole && ascii; ++i) ascii = static_cast<unsigned char>(text[i]) < 0x80;

  if (ascii && whole == byteCount) {
    // ASCII converts one unit per byte and upper-cases within ASCII: the
    // round trip keeps the length, so the result is known without it.
    for (uint32_t i = 0; i < byteCount; ++i) out[i] = static_cast<uint8_t>(AsciiUpper(text[i]));
    return;
  }
  if (!ascii) {
    try {
      std::u16string wide = Utf8ToWide(std::string_view(text, whole));
      // The conversion has room for byteCount + 1 units, the NUL included.
      if (wide.size() <= byteCount) {
        for (char16_t& unit : wide) unit = WideToUpper(unit);
        const std::string upper = WideToUtf8(wide);
        if (upper.size() == byteCount) {
          std::memcpy(out, upper.data(), byteCount);
          return;
        }
      }
    } catch (...) {
      // No memory for the conversion: upper-case byte by byte below.
    }
  }
  for (uint32_t i = 0; i < byteCount; ++i) out[i] = static_cast<uint8_t>(AsciiUpper(text[i]));
}

const uint8_t* CEncoder::get_buffer(uint32_t* length) const {
  if (length) *length = m_dwLength;
  return m_pBuffer;
}

// --- CDecoder ------------------------------------------------------------------

CDecoder::CDecoder(uint8_t* buffer, uint32_t length) {
  if (buffer) attach(buffer, length);
}

CDecoder::~CDecoder() { Release(); }

void CDecoder::Release() {
  if (m_bOwnsBuffer) std::free(m_pBuffer);
  m_pBuffer = nullptr;
  m_pCursor = nullptr;
  m_dwTotal = 0;
  m_bOwnsBuffer = false;
}

void CDecoder::Clear() {
  m_code = 0;
  m_dwLength = 0;
  m_type = 0;
  m_value = 0;
  m_pValue = nullptr;
  m_pHeader = nullptr;
}

void CDecoder::attach(uint8_t* buffer, uint32_t length) {
  Release();
  m_pBuffer = buffer;
  m_dwTotal = buffer ? length : 0;
  m_pCursor = buffer;
  Clear();
}

uint8_t* CDecoder::allocate(uint32_t count) {
  Release();
  Clear();
  if (count == 0) return nullptr;
  auto* block = static_cast<uint8_t*>(std::calloc(count, 1));
  if (!block) return nullptr;
  m_pBuffer = block;
  m_dwTotal = count;
  m_pCursor = block;
  m_bOwnsBuffer = true;
  return block;
}

uint32_t CDecoder::Remaining() const {
  if (!m_pBuffer || m_pCursor >= m_pBuffer + m_dwTotal) return 0;
  return static_cast<uint32_t>(m_pBuffer + m_dwTotal - m_pCursor);
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
  uint8_t* attribute = m_pCursor;
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
      default:
        fits = false;
        break;
    }
  }
  if (!fits) {
    m_pCursor = m_pBuffer + m_dwTotal;
    Clear();
    return nullptr;
  }

  // The length is rewritten in host order in place: callers read it from
  // the header, and a second walk of the same buffer reads it wrongly.
  std::memcpy(attribute, &length, sizeof length);
  m_code = attribute[4];
  m_type = attribute[5];
  m_dwLength = length;
  m_pHeader = attribute;
  m_value = 0;
  m_pValue = nullptr;
  switch (m_type) {
    case TYPE_U16: m_value = GetBE16(attribute + kAttributeHeaderSize); break;
    case TYPE_U32: m_value = GetBE32(attribute + kAttributeHeaderSize); break;
    default: m_pValue = attribute + kAttributeHeaderSize; break;
  }
  m_pCursor += step;
  return attribute;
}

uint32_t CDecoder::value_raw_u32() const {
  uint32_t raw = 0;
  // next() made sure that the four bytes at offset 6 of a u32 lie in the
  // buffer.
  if (m_type == TYPE_U32 && m_pHeader) std::memcpy(&raw, m_pHeader + kAttributeHeaderSize, sizeof raw);
  return raw;
}

uint8_t CDecoder::message_code() const {
  return (m_pBuffer && m_dwTotal > 4) ? m_pBuffer[4] : 0;
}

uint8_t CDecoder::peek_code() const { return Remaining() > 4 ? m_pCursor[4] : 0; }

// --- receive framing -----------------------------------------------------------

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

// --- base64 --------------------------------------------------------------------

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint32_t kBase64LineLength = 76;

int Base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

size_t base64_encoded_size(uint32_t count, bool lineBreaks) {
  const size_t characters = (size_t{count} + 2) / 3 * 4;
  const size_t breaks = lineBreaks ? characters / kBase64LineLength * 2 : 0;
  return characters + breaks + 1;
}

uint32_t base64_encode(const uint8_t* input, uint32_t count, char* output, bool lineBreaks) {
  if (!output) return 0;
  if (!input) count = 0;
  char* out = output;
  uint32_t column = 0;
  for (uint32_t i = 0; i < count; i += 3) {
    const uint32_t left = count - i;
    const uint32_t b0 = input[i];
    const uint32_t b1 = left > 1 ? input[i + 1] : 0;
    const uint32_t b2 = left > 2 ? input[i + 2] : 0;
    const uint32_t group = (b0 << 16) | (b1 << 8) | b2;
    *out++ = kBase64Alphabet[(group >> 18) & 0x3F];
    *out++ = kBase64Alphabet[(group >> 12) & 0x3F];
    *out++ = left > 1 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    *out++ = left > 2 ? kBase64Alphabet[group & 0x3F] : '=';
    column += 4;
    if (lineBreaks && column == kBase64LineLength) {
      *out++ = '\r';
      *out++ = '\n';
      column = 0;
    }
  }
  *out = '\0';
  return static_cast<uint32_t>(out - output);
}

std::unique_ptr<uint8_t[]> base64_decode(const char* text, uint32_t count, int32_t* outLength,
                                         uint32_t* consumed) {
  int32_t ignored = 0;
  if (!outLength) outLength = &ignored;
  if (!text) count = 0;
  // The decoded count must be representable in *outLength.
  if (count > static_cast<uint32_t>(INT32_MAX)) {
    *outLength = -1;
    return nullptr;
  }

  uint32_t i = 0;
  if (count > 5 && std::memcmp(text, "begin", 5) == 0) {
    while (i < count && text[i] != '\r' && text[i] != '\n') ++i;
    while (i < count && (text[i] == '\r' || text[i] == '\n')) ++i;
  }

  const size_t size = size_t{count} * 3 / 4 + 11;
  std::unique_ptr<uint8_t[]> out(new (std::nothrow) uint8_t[size]());
  if (!out) {
    *outLength = -1;
    return nullptr;
  }

  // Bytes are produced as characters arrive: the 2nd, 3rd and 4th character
  // of a group each complete one byte and start the next with their
  // remaining bits. White space, NUL, "-" and every other character outside
  // the alphabet are skipped.
  uint32_t n = 0;
  uint32_t phase = 0;  // characters of the current group seen
  bool padded = false;
  while (i < count) {
    const auto c = static_cast<unsigned char>(text[i++]);
    if (c == '=') {
      if (n > 0) {
        padded = true;
        break;
      }
      continue;
    }
    const int v = Base64Value(c);
    if (v < 0) continue;
    switch (phase) {
      case 0:
        out[n] = static_cast<uint8_t>(v << 2);
        break;
      case 1:
        out[n++] |= static_cast<uint8_t>(v >> 4);
        out[n] = static_cast<uint8_t>((v & 0x0F) << 4);
        break;
      case 2:
        out[n++] |= static_cast<uint8_t>(v >> 2);
        out[n] = static_cast<uint8_t>((v & 0x03) << 6);
        break;
      default:
        out[n++] |= static_cast<uint8_t>(v);
        break;
    }
    phase = (phase + 1) & 3;
  }
  // Text that stops inside a group without "=" loses that group's bytes.
  if (!padded && phase != 0) {
    n -= phase - 1;
    out[n] = 0;
  }
  *outLength = static_cast<int32_t>(n);
  if (consumed) *consumed = i + 1;
  return out;
}

}  // namespace lindqvar
