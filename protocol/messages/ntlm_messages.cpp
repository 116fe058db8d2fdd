#include "protocol/messages/ntlm_messages.h"

#include <cstring>

namespace lindqvar {

void NtlmToken::Write(CEncoder& e) const {
  e.begin_group(code);
  e.add_u32(ATTR_ID, id);
  e.add_bytes(ATTR_NTLM_TOKEN, token.empty() ? "" : token.data(),
              static_cast<uint32_t>(token.size()));
  e.end_group(code);
}

bool NtlmToken::Read(CDecoder& d) {
  if (!d.next() || d.Code() != code) return false;
  while (d.next()) {
    if (d.Code() == ATTR_ID) id = d.ValueU32();
    if (d.Code() == ATTR_NTLM_TOKEN && (d.Type() == TYPE_BYTES || d.Type() == TYPE_STRING))
      token = d.Text();
  }
  return true;
}

void NtlmResult::Write(CEncoder& e) const {
  uint8_t stored[4];
  std::memcpy(stored, &status, sizeof stored);
  e.begin_group(MSG_NTLM_RESULT);
  e.add_u32(ATTR_NTLM_STATUS, GetBE32(stored));
  e.end_group(MSG_NTLM_RESULT);
}

bool NtlmResult::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_NTLM_RESULT) return false;
  while (d.next())
    if (d.Code() == ATTR_NTLM_STATUS && d.Type() == TYPE_U32)
      status = static_cast<int32_t>(d.ValueRawU32());
  return true;
}

}  // namespace lindqvar
