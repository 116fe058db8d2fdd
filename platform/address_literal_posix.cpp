#include "platform/address_literal.h"

namespace lindqvar {

// Without conversions of the system's own, the project's rendering serves.
bool StringToAddress(const char* text, int family, uint8_t address[16]) {
  return OwnStringToAddress(text, family, address);
}

void AddressToString(int family, const uint8_t address[16], char* out, size_t size) {
  OwnAddressToString(family, address, out, size);
}

}  // namespace lindqvar
