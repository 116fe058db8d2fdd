// The decoder's walk over any byte string, and every reader of a message
// over the same bytes: the walk must end, and neither it, a caller reading
// the values it returns, nor a reader (whose texts point into the buffer)
// may leave the buffer.
#include <cstring>
#include <memory>

#include "fuzz/codec_fuzz_walk.h"
#include "protocol/messages/event.h"
#include "protocol/messages/hello.h"
#include "protocol/messages/ntlm_messages.h"

namespace {

using namespace lindqvar;

// An exactly sized copy: a walk rewrites lengths in place, and a read one
// byte past the end is caught.
std::unique_ptr<uint8_t[]> Copy(const uint8_t* data, size_t size) {
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[size ? size : 1]);
  if (size) std::memcpy(buffer.get(), data, size);
  return buffer;
}

uint32_t Touch(std::string_view text) {
  uint32_t sum = 0;
  for (char c : text) sum += static_cast<uint8_t>(c);
  return sum;
}

template <typename Message>
uint32_t ReadAs(const uint8_t* data, size_t size, Message message) {
  auto buffer = Copy(data, size);
  CDecoder decoder(buffer.get(), static_cast<uint32_t>(size));
  message.Read(decoder);
  if constexpr (std::is_same_v<Message, Hello>)
    return Touch(message.version) + Touch(message.clientGuid) + message.digest[15];
  if constexpr (std::is_same_v<Message, NtlmToken>) return Touch(message.token);
  if constexpr (std::is_same_v<Message, EventMessage>)
    return static_cast<uint32_t>(message.records.size());
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > UINT32_MAX) return 0;
  auto buffer = Copy(data, size);
  CDecoder decoder(buffer.get(), static_cast<uint32_t>(size));
  volatile uint32_t sink = fuzz::WalkAll(decoder);
  // A second walk reads the lengths the first one rewrote.
  decoder.attach(buffer.get(), static_cast<uint32_t>(size));
  sink = sink + fuzz::WalkAll(decoder);
  sink = sink + ReadAs(data, size, Hello{}) + ReadAs(data, size, HelloAck{}) +
         ReadAs(data, size, EventAck{}) + ReadAs(data, size, NtlmToken{MSG_NTLM_CHALLENGE}) +
         ReadAs(data, size, NtlmResult{}) + ReadAs(data, size, EventMessage{});
  (void)sink;
  return 0;
}
