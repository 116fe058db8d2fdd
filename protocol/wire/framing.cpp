#include "protocol/wire/framing.h"

#include <climits>
#include <cstring>

#include "protocol/wire/byte_order.h"

namespace lindqvar {

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
