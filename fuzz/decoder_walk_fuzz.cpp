// The decoder's walk over any byte string: it must end, and neither it nor
// a caller reading the values it returns may leave the buffer.
#include <cstring>
#include <memory>

#include "fuzz/codec_fuzz_walk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace lindqvar;
  if (size > UINT32_MAX) return 0;
  // An exactly sized copy: the walk rewrites lengths in place, and a read
  // one byte past the end is caught.
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[size ? size : 1]);
  if (size) std::memcpy(buffer.get(), data, size);
  CDecoder decoder(buffer.get(), static_cast<uint32_t>(size));
  volatile uint32_t sink = fuzz::WalkAll(decoder);
  // A second walk reads the lengths the first one rewrote.
  decoder.attach(buffer.get(), static_cast<uint32_t>(size));
  sink = sink + fuzz::WalkAll(decoder);
  (void)sink;
  return 0;
}
