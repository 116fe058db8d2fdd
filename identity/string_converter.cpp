#include "identity/string_converter.h"

#include "platform/os.h"

namespace lindqvar {

const std::u16string& CStringConverter::ToWide() {
  if (m_wide.empty() && !m_narrow.empty()) {
    m_wide = AnsiToWide(m_narrow);
    m_length = m_wide.size() + 1;
  }
  return m_wide;
}

const std::string& CStringConverter::ToUtf8() {
  if (m_narrow.empty() && !m_wide.empty()) {
    m_narrow = WideToUtf8(m_wide);
    m_length = m_narrow.size() + 1;
  }
  return m_narrow;
}

}  // namespace lindqvar
