// Small helpers for the wide texts of the identity code.
#pragma once

#include <string>
#include <string_view>

namespace lindqvar {

// Equality ignoring the case of the ASCII letters only, as the C runtime's
// _wcsicmp compares in the "C" locale.
inline bool WideEqualsNoCase(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char16_t x = a[i], y = b[i];
    if (x >= u'A' && x <= u'Z') x = static_cast<char16_t>(x - u'A' + u'a');
    if (y >= u'A' && y <= u'Z') y = static_cast<char16_t>(y - u'A' + u'a');
    if (x != y) return false;
  }
  return true;
}

}  // namespace lindqvar
