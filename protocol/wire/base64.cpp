#include "protocol/wire/base64.h"

#include <climits>
#include <cstring>
#include <new>

namespace lindqvar {

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint32_t kBase64LineLength = 76;

int Base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

size_t Base64EncodedSize(uint32_t count, bool lineBreaks) {
  const size_t characters = (size_t{count} + 2) / 3 * 4;
  const size_t breaks = lineBreaks ? characters / kBase64LineLength * 2 : 0;
  return characters + breaks + 1;
}

uint32_t Base64Encode(const uint8_t* input, uint32_t count, char* output, bool lineBreaks) {
  if (!output) return 0;
  if (!input) count = 0;
  char* out = output;
  uint32_t column = 0;
  for (uint32_t i = 0; i < count; i += 3) {
    const uint32_t left = count - i;
    const uint32_t b0 = input[i];
    const uint32_t b1 = left > 1 ? input[i + 1] : 0;
    const uint32_t b2 = left > 2 ? input[i + 2] : 0;
    const uint32_t group = (b0 << 16) | (b1 << 8) | b2;
    *out++ = kBase64Alphabet[(group >> 18) & 0x3F];
    *out++ = kBase64Alphabet[(group >> 12) & 0x3F];
    *out++ = left > 1 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=';
    *out++ = left > 2 ? kBase64Alphabet[group & 0x3F] : '=';
    column += 4;
    if (lineBreaks && column == kBase64LineLength) {
      *out++ = '\r';
      *out++ = '\n';
      column = 0;
    }
  }
  *out = '\0';
  return static_cast<uint32_t>(out - output);
}

std::string Base64Text(const void* input, uint32_t count) {
  std::string text(Base64EncodedSize(count), '\0');
  text.resize(Base64Encode(static_cast<const uint8_t*>(input), count, text.data()));
  return text;
}

std::unique_ptr<uint8_t[]> Base64Decode(const char* text, uint32_t count, int32_t* outLength,
                                        uint32_t* consumed) {
  int32_t ignored = 0;
  if (!outLength) outLength = &ignored;
  if (!text) count = 0;
  // The decoded count must be representable in *outLength.
  if (count > static_cast<uint32_t>(INT32_MAX)) {
    *outLength = -1;
    return nullptr;
  }

  uint32_t i = 0;
  if (count > 5 && std::memcmp(text, "begin", 5) == 0) {
    while (i < count && text[i] != '\r' && text[i] != '\n') ++i;
    while (i < count && (text[i] == '\r' || text[i] == '\n')) ++i;
  }

  const size_t size = size_t{count} * 3 / 4 + 11;
  std::unique_ptr<uint8_t[]> out(new (std::nothrow) uint8_t[size]());
  if (!out) {
    *outLength = -1;
    return nullptr;
  }

  // Bytes are produced as characters arrive: the 2nd, 3rd and 4th character
  // of a group each complete one byte and start the next with their
  // remaining bits. White space, NUL, "-" and every other character outside
  // the alphabet are skipped.
  uint32_t n = 0;
  uint32_t phase = 0;  // characters of the current group seen
  bool padded = false;
  while (i < count) {
    const auto c = static_cast<unsigned char>(text[i++]);
    if (c == '=') {
      if (n > 0) {
        padded = true;
        break;
      }
      continue;
    }
    const int v = Base64Value(c);
    if (v < 0) continue;
    switch (phase) {
      case 0: out[n] = static_cast<uint8_t>(v << 2); break;
      case 1:
        out[n++] |= static_cast<uint8_t>(v >> 4);
        out[n] = static_cast<uint8_t>((v & 0x0F) << 4);
        break;
      case 2:
        out[n++] |= static_cast<uint8_t>(v >> 2);
        out[n] = static_cast<uint8_t>((v & 0x03) << 6);
        break;
      default: out[n++] |= static_cast<uint8_t>(v); break;
    }
    phase = (phase + 1) & 3;
  }
  // Text that stops inside a group without "=" loses that group's bytes.
  if (!padded && phase != 0) {
    n -= phase - 1;
    out[n] = 0;
  }
  *outLength = static_cast<int32_t>(n);
  if (consumed) *consumed = i + 1;
  return out;
}

}  // namespace lindqvar
