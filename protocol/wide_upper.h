// Upper-casing of one UTF-16 unit, the same on every system: the simple
// (one-to-one) upper-case mappings of the Basic Multilingual Plane. Units
// without such a mapping, surrogates included, are returned unchanged.
#pragma once

namespace lindqvar {

char16_t WideToUpper(char16_t unit);

}  // namespace lindqvar
