#include "protocol/messages/hello.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>

namespace lindqvar {

void Hello::Write(CEncoder& e) const {
  e.begin_group(MSG_HELLO);
  e.add_u32(ATTR_ID, id);
  e.add_u32(ATTR_HELLO_FLAGS, flags);
  e.add_string(ATTR_VERSION_TEXT, version.empty() ? "" : version.data(),
               static_cast<uint32_t>(version.size()), 0);
  e.add_bytes(ATTR_DIGEST, digest.data(), static_cast<uint32_t>(digest.size()));
  if (!clientGuid.empty())
    e.add_bytes(ATTR_CLIENT_GUID, clientGuid.data(), static_cast<uint32_t>(clientGuid.size()));
  e.end_group(MSG_HELLO);
}

bool Hello::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_HELLO) return false;
  while (d.next()) {
    // Text and digest values count only from a bytes or string attribute:
    // only those have a length the walk checked.
    const std::string_view text = d.Text();
    const bool hasData = d.Type() == TYPE_BYTES || d.Type() == TYPE_STRING;
    switch (d.Code()) {
      case ATTR_ID: id = d.ValueU32(); break;
      case ATTR_HELLO_FLAGS: flags = d.ValueU32(); break;
      case ATTR_VERSION_TEXT:
        if (!hasData) break;
        // A text that does not fit is a malformed hello: refused like any
        // other, so that no server can end the agent's process with it.
        if (text.size() > kMaxVersionLength) return false;
        version = text;
        break;
      case ATTR_DIGEST:
        if (!hasData) break;
        digest.fill(0);
        std::memcpy(digest.data(), text.data(), std::min(text.size(), digest.size()));
        digestLength = static_cast<uint32_t>(text.size());
        break;
      case ATTR_CLIENT_GUID:
        if (hasData) clientGuid = text;
        break;
      default: break;
    }
  }
  return true;
}

void HelloAck::Write(CEncoder& e) const {
  e.begin_group(MSG_HELLO_ACK);
  e.add_u32(ATTR_HELLO_RESULT, result);
  e.end_group(MSG_HELLO_ACK);
}

bool HelloAck::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_HELLO_ACK) return false;
  while (d.next())
    if (d.Code() == ATTR_HELLO_RESULT) result = d.ValueU32();
  return true;
}

void compute_response(uint8_t challenge[16], const uint8_t key[16], uint8_t digest[16]) {
  for (int i = 0; i < 16; ++i) challenge[i] ^= key[i];
  unsigned int size = 16;
  EVP_Digest(challenge, 16, digest, &size, EVP_md5(), nullptr);
}

void PresharedKeyBlock(const std::string& presharedKey, uint8_t key[16]) {
  std::memset(key, 0, 16);
  // A bounded copy of 16 bytes: it stops at a NUL like the C copy it stands
  // for, and a longer key is cut to its first 16 bytes.
  for (size_t i = 0; i < 16 && i < presharedKey.size() && presharedKey[i] != '\0'; ++i)
    key[i] = static_cast<uint8_t>(presharedKey[i]);
}

}  // namespace lindqvar
