// Upper-casing of one UTF-16 unit, for the strings the agent sends
// upper-cased. The Windows build applies the C runtime's towupper in the
// locale the agent runs in (the "C" locale: it never sets one); builds
// without a Windows runtime use a table, so that their result does not
// depend on the C library. docs/windows-runtime.md says where the two
// differ.
#pragma once

#include <cstdint>

namespace lindqvar {

char16_t WideToUpper(char16_t unit);

// The simple (one-to-one) upper-case mappings of the Basic Multilingual
// Plane. Units without such a mapping, surrogates included, are returned
// unchanged.
char16_t WideToUpperTable(char16_t unit);

// Upper-cases the NUL-terminated UTF-8 `text` through UTF-16 into `out`, in
// one pass and without a temporary string: the result is what converting
// the whole text to UTF-16 (malformed bytes and encoded surrogates as
// U+FFFD), applying WideToUpper to every unit and converting back (unpaired
// surrogates as U+FFFD) gives, byte for byte. True when that result has
// exactly `byteCount` bytes, which `out` then holds; false otherwise, with
// `out` partly written (never past byteCount bytes). Bytes below 0x80 are
// upper-cased as a-z to A-Z, which is what WideToUpper does with them in
// either build.
bool UpperCaseUtf8(const char* text, uint8_t* out, uint32_t byteCount);

}  // namespace lindqvar
