// Upper-casing in add_string of any text, against the conversions of the
// platform layer: the attribute keeps the text's byte count, and the value
// is the upper-casing through UTF-16 when that has exactly that many bytes,
// else the byte-wise upper-casing. The first input byte shortens the count
// by 0 to 3 bytes; the rest is the text, terminated.
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/os.h"
#include "protocol/wire/encoder.h"
#include "protocol/wire/wide_upper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace lindqvar;
  if (size < 1 || size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  const size_t cut = data[0] & 3;
  const auto count = static_cast<uint32_t>(text.size() > cut ? text.size() - cut : 0);

  CEncoder encoder;
  if (encoder.add_string(ATTR_USER, text.c_str(), count, 1) != 0) std::abort();
  uint32_t length = 0;
  const uint8_t* b = encoder.get_buffer(&length);
  const uint32_t field =
      (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
  if (length != kAttributeHeaderSize + count || field != length || b[5] != TYPE_STRING)
    std::abort();
  const uint8_t* value = b + kAttributeHeaderSize;

  // What the encoder must send: the whole C string upper-cased through
  // UTF-16 (by the platform's own converters) when that has exactly `count`
  // bytes, else the byte-wise upper-casing of the count.
  std::u16string wide = Utf8ToWide(std::string(text.c_str()));
  for (char16_t& u : wide) u = WideToUpper(u);
  std::string expected = WideToUtf8(wide);
  if (expected.size() != count) {
    expected = text.substr(0, count);
    for (char& c : expected)
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  if (std::memcmp(value, expected.data(), count) != 0) std::abort();
  return 0;
}
