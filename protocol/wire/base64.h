// Base64 (standard alphabet, "=" padding), in which the NTLM messages carry
// their tokens.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace lindqvar {

// Characters Base64Encode writes for `count` bytes, the terminating NUL
// included.
size_t Base64EncodedSize(uint32_t count, bool lineBreaks = false);
// Encodes `count` bytes into `output` (Base64EncodedSize bytes), padding
// the last group with "="; with lineBreaks a CR LF follows every 76
// characters. NUL-terminates and returns the number of characters written,
// the terminator excluded.
uint32_t Base64Encode(const uint8_t* input, uint32_t count, char* output, bool lineBreaks = false);
// The same, as a string without line breaks.
std::string Base64Text(const void* input, uint32_t count);
// Decodes `count` characters of base64 text. A leading "begin..." line is
// skipped; white space, NUL, "-" and characters outside the alphabet are
// skipped; "=" ends decoding once a byte has been produced. Returns a
// zero-filled block of count * 3 / 4 + 11 bytes holding *outLength decoded
// bytes, or null with *outLength -1 when it cannot be allocated.
// *consumed (when asked for) receives the characters read + 1.
std::unique_ptr<uint8_t[]> Base64Decode(const char* text, uint32_t count, int32_t* outLength,
                                        uint32_t* consumed = nullptr);

}  // namespace lindqvar
