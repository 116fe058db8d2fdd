#include "identity/address_text.h"

#include <cstdio>

namespace lindqvar {

std::string AddressText(const ResolvedAddress& address) {
  const auto& b = address.bytes;
  char text[48];
  if (address.family == kFamilyIPv4) {
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return text;
  }
  unsigned groups[8];
  for (int i = 0; i < 8; ++i) groups[i] = (static_cast<unsigned>(b[2 * i]) << 8) | b[2 * i + 1];
  int bestStart = -1, bestLength = 0;
  for (int i = 0; i < 8;) {
    if (groups[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && groups[j] == 0) ++j;
    if (j - i > bestLength && j - i >= 2) {
      bestStart = i;
      bestLength = j - i;
    }
    i = j;
  }
  std::string out;
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLength - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(text, sizeof text, "%x", groups[i]);
    out += text;
  }
  return out;
}

ResolvedAddress ParseIPv4Text(std::string_view text) {
  ResolvedAddress address;
  address.family = kFamilyIPv4;
  uint8_t parts[4] = {};
  size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= text.size() || text[pos] != '.') return address;
      ++pos;
    }
    unsigned value = 0;
    size_t digits = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && digits < 4) {
      value = value * 10 + static_cast<unsigned>(text[pos] - '0');
      ++pos;
      ++digits;
    }
    if (digits == 0 || digits > 3 || value > 255) return address;
    parts[part] = static_cast<uint8_t>(value);
  }
  if (pos != text.size()) return address;
  for (int i = 0; i < 4; ++i) address.bytes[i] = parts[i];
  return address;
}

}  // namespace lindqvar
