// Walks a decoder to its end the way a reader of the server's messages does,
// touching every value byte so that a read outside the buffer trips the
// address sanitizer. Stops the run when the walk takes more steps than the
// buffer can hold attributes (every attribute returned moves the cursor by
// at least its 6-byte header).
#pragma once

#include <cstdint>
#include <cstdlib>

#include "protocol/wire/decoder.h"

namespace lindqvar::fuzz {

inline uint32_t WalkAll(CDecoder& decoder) {
  uint32_t sum = decoder.message_code() + decoder.peek_code();
  const uint32_t limit = decoder.TotalLength() / kAttributeHeaderSize;
  uint32_t steps = 0;
  while (uint8_t* header = decoder.next()) {
    if (++steps > limit) std::abort();
    sum += header[4] + decoder.peek_code();
    switch (decoder.Type()) {
      case TYPE_BYTES:
      case TYPE_STRING:
        for (uint32_t i = 0; i < decoder.ValueSize(); ++i) sum += decoder.ValueData()[i];
        break;
      case TYPE_U16: sum += decoder.ValueU16(); break;
      case TYPE_U32: sum += decoder.ValueU32() ^ decoder.ValueRawU32(); break;
      default: break;
    }
  }
  return sum;
}

}  // namespace lindqvar::fuzz
