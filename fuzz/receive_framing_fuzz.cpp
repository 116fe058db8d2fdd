// The receive framing over any stream: the first input byte picks how many
// bytes each read hands out (1 to 16), the second whether the end of the
// stream reads as closed (0) or as an error (-1); the rest is the stream.
// Every message received is walked.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fuzz/codec_fuzz_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace lindqvar;
  if (size < 2) return 0;
  const size_t chunk = 1 + data[0] % 16;
  const int endResult = (data[1] & 1) ? -1 : 0;
  const uint8_t* stream = data + 2;
  const size_t length = size - 2;
  size_t at = 0;
  StreamRead read = [&](void* out, int count) {
    if (at >= length) return endResult;
    const size_t n = std::min({static_cast<size_t>(count), chunk, length - at});
    std::memcpy(out, stream + at, n);
    at += n;
    return static_cast<int>(n);
  };

  CDecoder decoder;
  volatile uint32_t sink = 0;
  // The agent's own limit keeps a hostile length from asking for
  // gigabytes; each message received uses up at least a header's worth of
  // the stream.
  while (ReceiveMessage(decoder, read)) {
    const uint8_t* b = decoder.Buffer();
    const uint32_t total =
        (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
    if (total != decoder.TotalLength() || total < kAttributeHeaderSize ||
        total > kMaxMessageLength) {
      std::abort();
    }
    sink = sink + fuzz::WalkAll(decoder);
  }
  (void)sink;
  return 0;
}
