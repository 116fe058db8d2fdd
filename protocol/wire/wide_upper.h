// Upper-casing of one UTF-16 unit, for the strings the agent sends
// upper-cased. The Windows build applies the C runtime's towupper in the
// locale the agent runs in (the "C" locale: it never sets one); builds
// without a Windows runtime use a table, so that their result does not
// depend on the C library. docs/windows-runtime.md says where the two
// differ.
#pragma once

namespace lindqvar {

char16_t WideToUpper(char16_t unit);

// The simple (one-to-one) upper-case mappings of the Basic Multilingual
// Plane. Units without such a mapping, surrogates included, are returned
// unchanged.
char16_t WideToUpperTable(char16_t unit);

}  // namespace lindqvar
