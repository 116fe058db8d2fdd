#include "platform/address_literal.h"

#include <cstdio>
#include <cstring>

namespace lindqvar {

namespace {

uint16_t Word(const uint8_t* address, int i) {
  return static_cast<uint16_t>((address[2 * i] << 8) | address[2 * i + 1]);
}

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// One number in C notation: "0x" hex, a leading 0 octal, else decimal.
// Advances `p` past it. False when there is no digit or it exceeds `max`.
bool ParseCNumber(const char*& p, uint64_t max, uint64_t& value) {
  uint32_t base = 10;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  } else if (p[0] == '0') {
    base = 8;
  }
  const char* start = p;
  value = 0;
  for (int d; (d = DigitValue(*p)) >= 0 && static_cast<uint32_t>(d) < base; ++p) {
    value = value * base + static_cast<uint32_t>(d);
    if (value > max) return false;
  }
  return p != start;
}

// An optional ":port" after an address: nothing at all, or a port 1-65535
// that ends the text.
bool ParsePortSuffix(const char* p) {
  if (*p == '\0') return true;
  if (*p != ':') return false;
  ++p;
  uint64_t port = 0;
  return ParseCNumber(p, 0xFFFF, port) && port != 0 && *p == '\0';
}

// IPv4 in one to four parts: a.b.c.d, a.b.c (c 16 bits), a.b (b 24 bits), a
// (32 bits), each part in C notation.
bool ParseIPv4(const char* p, uint8_t out[4]) {
  uint64_t parts[4] = {};
  int count = 0;
  for (;;) {
    if (count == 4) return false;
    if (!ParseCNumber(p, 0xFFFFFFFFu, parts[count])) return false;
    ++count;
    if (*p != '.') break;
    ++p;
  }
  for (int i = 0; i < count - 1; ++i)
    if (parts[i] > 0xFF) return false;
  const int lastBytes = 5 - count;
  if (lastBytes < 4 && parts[count - 1] >> (8 * lastBytes)) return false;
  uint32_t value = 0;
  for (int i = 0; i < count - 1; ++i) value |= static_cast<uint32_t>(parts[i]) << (24 - 8 * i);
  value |= static_cast<uint32_t>(parts[count - 1]);
  if (!ParsePortSuffix(p)) return false;
  out[0] = static_cast<uint8_t>(value >> 24);
  out[1] = static_cast<uint8_t>(value >> 16);
  out[2] = static_cast<uint8_t>(value >> 8);
  out[3] = static_cast<uint8_t>(value);
  return true;
}

// The dotted-quad tail of an IPv6 literal: four decimal parts of at most
// three digits, each at most 255.
bool ParseDottedQuad(const char* p, const char* end, uint8_t out[4]) {
  for (int i = 0; i < 4; ++i) {
    uint32_t value = 0;
    int digits = 0;
    while (p < end && *p >= '0' && *p <= '9' && digits < 4) {
      value = value * 10 + static_cast<uint32_t>(*p++ - '0');
      ++digits;
    }
    if (digits == 0 || digits > 3 || value > 255) return false;
    out[i] = static_cast<uint8_t>(value);
    if (i < 3) {
      if (p >= end || *p != '.') return false;
      ++p;
    }
  }
  return p == end;
}

// The address part of an IPv6 literal, [begin, end).
bool ParseIPv6Address(const char* p, const char* end, uint8_t out[16]) {
  uint16_t words[8] = {};
  int count = 0;
  int gap = -1;  // index where "::" stands
  if (p + 1 < end && p[0] == ':' && p[1] == ':') {
    gap = 0;
    p += 2;
    if (p == end) {
      std::memset(out, 0, 16);
      return true;
    }
  } else if (p < end && *p == ':') {
    return false;
  }
  while (p < end) {
    // A dotted quad may stand for the last two words.
    const char* fieldEnd = p;
    while (fieldEnd < end && *fieldEnd != ':') ++fieldEnd;
    if (std::memchr(p, '.', static_cast<size_t>(fieldEnd - p))) {
      if (fieldEnd != end || count > 6) return false;
      uint8_t quad[4];
      if (!ParseDottedQuad(p, end, quad)) return false;
      words[count++] = static_cast<uint16_t>((quad[0] << 8) | quad[1]);
      words[count++] = static_cast<uint16_t>((quad[2] << 8) | quad[3]);
      p = end;
      break;
    }
    if (count == 8) return false;
    uint32_t value = 0;
    int digits = 0;
    for (int d; p < end && (d = DigitValue(*p)) >= 0; ++p) {
      if (++digits > 4) return false;
      value = value * 16 + static_cast<uint32_t>(d);
    }
    if (digits == 0) return false;
    words[count++] = static_cast<uint16_t>(value);
    if (p == end) break;
    if (*p != ':') return false;
    ++p;
    if (p < end && *p == ':') {
      if (gap >= 0) return false;
      gap = count;
      ++p;
    } else if (p == end) {
      return false;  // a single trailing ':'
    }
  }
  if (gap < 0 && count != 8) return false;
  if (gap >= 0 && count > 7) return false;
  uint16_t full[8] = {};
  if (gap < 0) {
    std::memcpy(full, words, sizeof full);
  } else {
    const int tail = count - gap;
    for (int i = 0; i < gap; ++i) full[i] = words[i];
    for (int i = 0; i < tail; ++i) full[8 - tail + i] = words[gap + i];
  }
  for (int i = 0; i < 8; ++i) {
    out[2 * i] = static_cast<uint8_t>(full[i] >> 8);
    out[2 * i + 1] = static_cast<uint8_t>(full[i]);
  }
  return true;
}

// An IPv6 literal: address with an optional "%scope", or the same in
// brackets optionally followed by ":port".
bool ParseIPv6(const char* text, uint8_t out[16]) {
  const char* begin = text;
  const char* end = text + std::strlen(text);
  if (*begin == '[') {
    const char* close = std::strchr(begin, ']');
    if (!close || !ParsePortSuffix(close + 1)) return false;
    ++begin;
    end = close;
  }
  const char* percent =
      static_cast<const char*>(std::memchr(begin, '%', static_cast<size_t>(end - begin)));
  if (percent) {
    const char* p = percent + 1;
    uint64_t scope = 0;
    int digits = 0;
    for (; p < end && *p >= '0' && *p <= '9'; ++p, ++digits) {
      scope = scope * 10 + static_cast<uint64_t>(*p - '0');
      if (scope > 0xFFFFFFFFu) return false;
    }
    if (digits == 0 || p != end) return false;
    end = percent;
  }
  return begin < end && ParseIPv6Address(begin, end, out);
}

void FormatIPv4(const uint8_t address[16], char* out, size_t size) {
  const uint8_t* b = address;
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  BoundedCopy(out, size, text);
}

void FormatIPv6(const uint8_t address[16], char* out, size_t size) {
  uint16_t w[8];
  for (int i = 0; i < 8; ++i) w[i] = Word(address, i);
  const bool zero0to3 = !w[0] && !w[1] && !w[2] && !w[3];
  // The last 32 bits are written as IPv4 for IPv4-compatible (::a.b.c.d),
  // IPv4-mapped (::ffff:a.b.c.d), IPv4-translated (::ffff:0:a.b.c.d) and
  // ISATAP (...:0:5efe:a.b.c.d, ...:200:5efe:a.b.c.d) addresses; the first
  // two only when the address's seventh word is not 0 (so ::1 stays ::1).
  const bool compatible = zero0to3 && !w[4] && !w[5] && w[6];
  const bool mapped = zero0to3 && !w[4] && w[5] == 0xFFFF && w[6];
  const bool translated = zero0to3 && w[4] == 0xFFFF && !w[5];
  const bool isatap = w[5] == 0x5EFE && (w[4] & ~0x0200) == 0;
  const bool dotted = compatible || mapped || translated || isatap;
  const int hexWords = dotted ? 6 : 8;

  // The first longest run of at least two zero words becomes "::".
  int runStart = -1, runLength = 0;
  for (int i = 0; i < hexWords;) {
    if (w[i]) {
      ++i;
      continue;
    }
    int j = i;
    while (j < hexWords && !w[j]) ++j;
    if (j - i > runLength && j - i >= 2) {
      runStart = i;
      runLength = j - i;
    }
    i = j;
  }

  char text[64];
  size_t n = 0;
  for (int i = 0; i < hexWords;) {
    if (i == runStart) {
      text[n++] = ':';
      text[n++] = ':';
      i += runLength;
      continue;
    }
    if (n > 0 && text[n - 1] != ':') text[n++] = ':';
    n += static_cast<size_t>(std::snprintf(text + n, sizeof text - n, "%x", w[i]));
    ++i;
  }
  if (dotted) {
    if (n > 0 && text[n - 1] != ':') text[n++] = ':';
    n += static_cast<size_t>(std::snprintf(text + n, sizeof text - n, "%u.%u.%u.%u", address[12],
                                           address[13], address[14], address[15]));
  }
  text[n] = '\0';
  BoundedCopy(out, size, text);
}

}  // namespace

// Cut as the system's bounded copy cuts (its truncation status is not
// looked at).
void BoundedCopy(char* out, size_t size, const char* text) {
  if (size == 0) return;
  size_t n = std::strlen(text);
  if (n >= size) n = size - 1;
  std::memcpy(out, text, n);
  out[n] = '\0';
}

bool OwnStringToAddress(const char* text, int family, uint8_t address[16]) {
  if (!text) return false;
  uint8_t bytes[16] = {};
  if (family == kFamilyIPv4 ? !ParseIPv4(text, bytes) : !ParseIPv6(text, bytes)) return false;
  std::memcpy(address, bytes, sizeof bytes);
  return true;
}

void OwnAddressToString(int family, const uint8_t address[16], char* out, size_t size) {
  if (family == kFamilyIPv4)
    FormatIPv4(address, out, size);
  else
    FormatIPv6(address, out, size);
}

}  // namespace lindqvar
