#include "protocol/ip_address.h"

#include <cstdio>
#include <cstring>

namespace lindqvar {

namespace {

constexpr char kEmptyText[] = "0.0.0.0";

// Copies at most size - 1 characters and always terminates; a longer text
// is cut, as the system's bounded copy does (its truncation status is not
// looked at).
void BoundedCopy(char* out, size_t size, const char* text) {
  if (size == 0) return;
  size_t n = std::strlen(text);
  if (n >= size) n = size - 1;
  std::memcpy(out, text, n);
  out[n] = '\0';
}

uint16_t Word(const uint8_t* address, int i) {
  return static_cast<uint16_t>((address[2 * i] << 8) | address[2 * i + 1]);
}

// --- text to address ---------------------------------------------------------

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
  const char* percent = static_cast<const char*>(std::memchr(begin, '%', static_cast<size_t>(end - begin)));
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

}  // namespace

// --- formatting ----------------------------------------------------------------

void FormatIPv4(uint32_t address, char* out, size_t size) {
  uint8_t b[4];
  std::memcpy(b, &address, 4);
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

// --- IpAddress -----------------------------------------------------------------

IpAddress::IpAddress() {
  BoundedCopy(m_szText, kTextSize, kEmptyText);
  for (size_t i = 0; i < sizeof kEmptyText; ++i) m_wszText[i] = static_cast<char16_t>(kEmptyText[i]);
}

void IpAddress::SetIPv4(uint32_t address) {
  std::memset(m_address, 0, sizeof m_address);
  std::memcpy(m_address, &address, 4);
  m_wFamily = kFamilyIPv4;
  m_bValid = 1;
  m_bTextReady = 0;
}

void IpAddress::SetIPv6(const uint8_t address[16]) {
  std::memcpy(m_address, address, sizeof m_address);
  m_wFamily = kFamilyIPv6;
  m_bValid = 1;
  m_bTextReady = 0;
}

void IpAddress::CopyFrom(const IpAddress& other) {
  if (other.m_bValid) *this = other;
}

uint32_t IpAddress::IPv4() const {
  uint32_t address;
  std::memcpy(&address, m_address, 4);
  return address;
}

void IpAddress::FormatText() const {
  if (!m_bValid)
    BoundedCopy(m_szText, kTextSize, kEmptyText);
  else if (m_wFamily == kFamilyIPv4)
    FormatIPv4(IPv4(), m_szText, kTextSize);
  else
    FormatIPv6(m_address, m_szText, kTextSize);
  // Address texts are ASCII: the wide form is the same characters.
  size_t i = 0;
  for (; m_szText[i]; ++i) m_wszText[i] = static_cast<char16_t>(m_szText[i]);
  m_wszText[i] = u'\0';
  m_bTextReady = 1;
}

const char* IpAddress::Text() const {
  if (!m_bTextReady) FormatText();
  return m_szText;
}

const char16_t* IpAddress::WideText() const {
  if (!m_bTextReady) FormatText();
  return m_wszText;
}

// --- literals ------------------------------------------------------------------

uint32_t parse_address_literal(const char* text, IpAddress& out) {
  if (!text) return 0;
  uint8_t v4[4];
  if (ParseIPv4(text, v4)) {
    uint32_t address;
    std::memcpy(&address, v4, 4);
    out.SetIPv4(address);
    return 1;
  }
  uint8_t v6[16];
  if (ParseIPv6(text, v6)) {
    out.SetIPv6(v6);
    return 1;
  }
  return 0;
}

uint32_t is_address_literal(const char* text) {
  IpAddress scratch;
  return parse_address_literal(text, scratch);
}

}  // namespace lindqvar
