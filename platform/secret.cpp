#include "platform/secret.h"

namespace lindqvar {

void WipeMemory(void* data, size_t size) {
  // Stores through a volatile pointer are never dropped as dead stores.
  volatile unsigned char* p = static_cast<volatile unsigned char*>(data);
  for (size_t i = 0; i < size; ++i) p[i] = 0;
}

}  // namespace lindqvar
