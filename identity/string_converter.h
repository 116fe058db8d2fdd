// Text conversion for the texts that leave the identity code: 8-bit text in
// the system's ANSI code page to wide, and wide text to UTF-8. The two
// directions use different code pages on purpose (ANSI in, UTF-8 out). Each
// result is computed once and kept until the converter is destroyed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace lindqvar {

class CStringConverter {
 public:
  // Holds 8-bit text (ANSI code page).
  explicit CStringConverter(std::string_view narrow) : m_narrow(narrow) {}
  // Holds wide text.
  explicit CStringConverter(std::u16string_view wide) : m_wide(wide) {}
  virtual ~CStringConverter() = default;

  // The held 8-bit text converted from the ANSI code page, or the held wide
  // text itself.
  const std::u16string& ToWide();
  // The held wide text in UTF-8, or the held 8-bit text itself.
  const std::string& ToUtf8();
  // The length, terminator included, that the last conversion produced
  // (0 before any).
  size_t Length() const { return m_length; }

 private:
  std::string m_narrow;
  std::u16string m_wide;
  size_t m_length = 0;
};

}  // namespace lindqvar
