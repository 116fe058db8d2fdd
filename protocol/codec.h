// Attribute messages exchanged with the authentication server.
//
// Every message is one tree of typed attributes. One attribute on the wire
// (big-endian, no alignment, no padding):
//
//   offset 0  4 bytes  length of the whole attribute, this 6-byte header
//                      included; for a group, header plus every child
//   offset 4  1 byte   code (message or attribute code, below)
//   offset 5  1 byte   type (TYPE_*)
//   offset 6  ...      value
//
// A message is exactly one top-level TYPE_GROUP whose code is the message
// code; its length field is the only framing on the TLS stream. Codes are
// scoped by position, not unique: 132 is both MSG_EVENT (a group) and
// ATTR_TENANT_ID (a string inside a session record).
//
// CEncoder writes a message into a growing heap buffer; CDecoder walks a
// received one in place. ReceiveMessage reads one message off a stream.
// The two base64 helpers serve the NTLM relay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace lindqvar {

// --- value types -------------------------------------------------------------
inline constexpr uint8_t TYPE_BYTES = 1;   // raw octets, length - 6 of them
inline constexpr uint8_t TYPE_U16 = 2;     // unsigned 16-bit, big-endian (total 8)
inline constexpr uint8_t TYPE_U32 = 3;     // unsigned 32-bit, big-endian (total 10)
inline constexpr uint8_t TYPE_STRING = 5;  // UTF-8 text without terminator
inline constexpr uint8_t TYPE_GROUP = 6;   // nested attributes

inline constexpr uint32_t kAttributeHeaderSize = 6;

// --- message codes (code of the top-level group) -----------------------------
inline constexpr uint8_t MSG_HELLO = 128;              // received, then sent back
inline constexpr uint8_t MSG_HELLO_ACK = 135;          // received
inline constexpr uint8_t MSG_EVENT = 132;              // sent
inline constexpr uint8_t MSG_SESSION_INFO = 80;        // sent, nested in MSG_EVENT
inline constexpr uint8_t MSG_EVENT_ACK = 184;          // received
inline constexpr uint8_t MSG_NTLM_NEGOTIATE = 136;     // sent
inline constexpr uint8_t MSG_NTLM_CHALLENGE = 137;     // received
inline constexpr uint8_t MSG_NTLM_AUTHENTICATE = 138;  // sent
inline constexpr uint8_t MSG_NTLM_RESULT = 141;        // received

// --- attribute codes ---------------------------------------------------------
// In MSG_HELLO (both directions) and the NTLM messages.
inline constexpr uint8_t ATTR_ID = 1;                // u32
inline constexpr uint8_t ATTR_HELLO_FLAGS = 16;      // u32, bit 0: digest required
inline constexpr uint8_t ATTR_VERSION_TEXT = 17;     // string
inline constexpr uint8_t ATTR_DIGEST = 18;           // bytes, 16
inline constexpr uint8_t ATTR_CLIENT_GUID = 19;      // bytes (UTF-8 text), agent's reply only
// In MSG_SESSION_INFO.
inline constexpr uint8_t ATTR_LOGON = 81;            // u32
inline constexpr uint8_t ATTR_IPV4 = 82;             // u32, address bytes in network order
inline constexpr uint8_t ATTR_WORKSTATION = 83;      // string, upper-cased
inline constexpr uint8_t ATTR_DOMAIN = 84;           // string, upper-cased
inline constexpr uint8_t ATTR_USER = 85;             // string, upper-cased
inline constexpr uint8_t ATTR_TIME = 87;             // u32, seconds since 1970
inline constexpr uint8_t ATTR_FIXED_VALUE = 89;      // u32, always 4096
inline constexpr uint8_t ATTR_IPV6 = 94;             // bytes, 16
inline constexpr uint8_t ATTR_AZURE_ACCOUNT = 95;    // string, upper-cased
inline constexpr uint8_t ATTR_DEVICE_UUID = 130;     // string, upper-cased
inline constexpr uint8_t ATTR_VRX_SERIAL = 131;      // string, upper-cased
inline constexpr uint8_t ATTR_TENANT_ID = 132;       // string, upper-cased
// In MSG_HELLO_ACK.
inline constexpr uint8_t ATTR_HELLO_RESULT = 144;    // u32, 1 = accepted
// In the NTLM messages.
inline constexpr uint8_t ATTR_NTLM_TOKEN = 160;      // bytes (base64 text)
inline constexpr uint8_t ATTR_NTLM_STATUS = 161;     // u32, read without byte-order conversion
// In MSG_EVENT_ACK.
inline constexpr uint8_t ATTR_EVENT_RESULT = 192;        // u32
inline constexpr uint8_t ATTR_KEEPALIVE_INTERVAL = 193;  // u32, seconds

// Initial encoder sizes: an event of two full session records fits in the
// first, a hello reply or an NTLM message in the second, without growth.
inline constexpr uint32_t kEventEncoderCapacity = 1024;
inline constexpr uint32_t kReplyEncoderCapacity = 256;

// The name of a message code ("MSG_HELLO"), or null when unknown.
const char* MessageCodeName(uint8_t code);
// The name of an attribute code as it appears inside a message or group
// with code `parent` ("ATTR_TENANT_ID" inside MSG_SESSION_INFO), or null.
const char* AttributeCodeName(uint8_t parent, uint8_t code);

// --- CEncoder ----------------------------------------------------------------
// Writes one message. Every operation returns 0, or -1 when the buffer could
// not grow or an argument was null. A failed growth loses the message: the
// encoder then holds no buffer and every later add fails until reset().
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

  uint32_t length() const { return m_dwLength; }
  uint32_t capacity() const { return m_dwCapacity; }
  // Code of an open-group slot (0: free), for inspection.
  uint8_t group_slot_code(size_t slot) const { return slot < kGroupSlots ? m_groups[slot].code : 0; }

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

  uint32_t m_dwLength = 0;
  uint32_t m_dwCapacity = 0;
  uint8_t* m_pBuffer = nullptr;
  uint8_t* m_pCursor = nullptr;
  GroupSlot m_groups[kGroupSlots] = {};
};

// --- CDecoder ----------------------------------------------------------------
// Walks a received message in place. next() returns the header of each
// attribute in turn and descends into groups, so a message reads as one flat
// sequence: the envelope, a nested group's header, its children, the next
// group's header, ... Each length field is rewritten in host byte order as it
// is read, so a buffer can be walked only once.
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
  uint8_t code() const { return m_code; }
  uint8_t type() const { return m_type; }
  uint32_t length() const { return m_dwLength; }
  // TYPE_U16 / TYPE_U32 value in host order.
  uint16_t value_u16() const { return static_cast<uint16_t>(m_value); }
  uint32_t value_u32() const { return static_cast<uint32_t>(m_value); }
  // The value's 4 bytes exactly as stored in the buffer (a TYPE_U32 read
  // without byte-order conversion).
  uint32_t value_raw_u32() const;
  // Pointer to the value (offset 6) of a bytes, string or group attribute.
  const uint8_t* value_data() const { return m_pValue; }
  // Byte count of a bytes or string value: length - 6 (0 for a group
  // header whose length is below 6).
  uint32_t value_size() const {
    return m_dwLength > kAttributeHeaderSize ? m_dwLength - kAttributeHeaderSize : 0;
  }

  const uint8_t* buffer() const { return m_pBuffer; }
  uint32_t total_length() const { return m_dwTotal; }

 private:
  void Release();
  uint32_t Remaining() const;
  void Clear();

  uint8_t* m_pBuffer = nullptr;
  uint32_t m_dwTotal = 0;
  uint8_t* m_pCursor = nullptr;
  bool m_bOwnsBuffer = false;

  uint8_t m_code = 0;
  uint32_t m_dwLength = 0;
  uint8_t m_type = 0;
  uint64_t m_value = 0;               // u16 / u32 in host order
  const uint8_t* m_pValue = nullptr;  // bytes, string, group
  const uint8_t* m_pHeader = nullptr;
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

// --- base64 ------------------------------------------------------------------
// Characters base64_encode writes for `count` bytes, the terminating NUL
// included.
size_t base64_encoded_size(uint32_t count, bool lineBreaks = false);
// Encodes `count` bytes into `output` (base64_encoded_size bytes), padding
// the last group with "="; with lineBreaks a CR LF follows every 76
// characters. NUL-terminates and returns the number of characters written,
// the terminator excluded.
uint32_t base64_encode(const uint8_t* input, uint32_t count, char* output,
                       bool lineBreaks = false);
// Decodes `count` characters of base64 text. A leading "begin..." line is
// skipped; white space, NUL, "-" and characters outside the alphabet are
// skipped; "=" ends decoding once a byte has been produced. Returns a
// zero-filled block of count * 3 / 4 + 11 bytes holding *outLength decoded
// bytes, or null with *outLength -1 when it cannot be allocated.
// *consumed (when asked for) receives the characters read + 1.
std::unique_ptr<uint8_t[]> base64_decode(const char* text, uint32_t count, int32_t* outLength,
                                         uint32_t* consumed = nullptr);

}  // namespace lindqvar
