// The attribute format of every message exchanged with the authentication
// server: its codes, and the big-endian fields of its headers.
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
#pragma once

#include <cstdint>

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
inline constexpr uint8_t ATTR_ID = 1;             // u32
inline constexpr uint8_t ATTR_HELLO_FLAGS = 16;   // u32, bit 0: digest required
inline constexpr uint8_t ATTR_VERSION_TEXT = 17;  // string
inline constexpr uint8_t ATTR_DIGEST = 18;        // bytes, 16
inline constexpr uint8_t ATTR_CLIENT_GUID = 19;   // bytes (UTF-8 text), agent's reply only
// In MSG_SESSION_INFO.
inline constexpr uint8_t ATTR_LOGON = 81;          // u32
inline constexpr uint8_t ATTR_IPV4 = 82;           // u32, address bytes in network order
inline constexpr uint8_t ATTR_WORKSTATION = 83;    // string, upper-cased
inline constexpr uint8_t ATTR_DOMAIN = 84;         // string, upper-cased
inline constexpr uint8_t ATTR_USER = 85;           // string, upper-cased
inline constexpr uint8_t ATTR_TIME = 87;           // u32, seconds since 1970
inline constexpr uint8_t ATTR_FIXED_VALUE = 89;    // u32, always 4096
inline constexpr uint8_t ATTR_IPV6 = 94;           // bytes, 16
inline constexpr uint8_t ATTR_AZURE_ACCOUNT = 95;  // string, upper-cased
inline constexpr uint8_t ATTR_DEVICE_UUID = 130;   // string, upper-cased
inline constexpr uint8_t ATTR_VRX_SERIAL = 131;    // string, upper-cased
inline constexpr uint8_t ATTR_TENANT_ID = 132;     // string, upper-cased
// In MSG_HELLO_ACK.
inline constexpr uint8_t ATTR_HELLO_RESULT = 144;  // u32, 1 = accepted
// In the NTLM messages.
inline constexpr uint8_t ATTR_NTLM_TOKEN = 160;   // bytes (base64 text)
inline constexpr uint8_t ATTR_NTLM_STATUS = 161;  // u32, read without byte-order conversion
// In MSG_EVENT_ACK.
inline constexpr uint8_t ATTR_EVENT_RESULT = 192;        // u32
inline constexpr uint8_t ATTR_KEEPALIVE_INTERVAL = 193;  // u32, seconds

inline void PutBE32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

inline uint32_t GetBE32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

inline uint16_t GetBE16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

}  // namespace lindqvar
