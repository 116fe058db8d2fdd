// The hand-written matchers of the console-output parse against std::regex
// with the expressions they stand for: on every short text both must agree
// on whether it matches and on every capture. Texts are kept short because
// std::regex backtracks in cubic time.
//
// The first byte chooses how the rest becomes UTF-16 units: odd, two bytes
// a unit (any unit at all); even, one byte a unit, where bytes below 0x80
// pick from the units the expressions care about (blanks of several kinds,
// line ends, ":", ",", "@") and bytes from 0x80 are Latin-1 units.
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <string>

#include "identity/console_match.h"

namespace {

constexpr size_t kMaxUnits = 40;

constexpr char16_t kAlphabet[16] = {u' ',      u'\t',     u':',      u',',      u'@',      u'a',
                                    u'Z',      u'\r',     u'\n',     u'\u2028', u'\u2029', u'\v',
                                    u'\u3000', u'\u1680', u'\u0085', u'\u00a0'};

std::u16string Units(const uint8_t* data, size_t size) {
  std::u16string text;
  if (size == 0) return text;
  const bool wide = data[0] & 1;
  ++data;
  --size;
  if (wide) {
    for (size_t i = 0; i + 1 < size && text.size() < kMaxUnits; i += 2) {
      text.push_back(static_cast<char16_t>(data[i] | data[i + 1] << 8));
    }
  } else {
    for (size_t i = 0; i < size && text.size() < kMaxUnits; ++i) {
      text.push_back(data[i] < 0x80 ? kAlphabet[data[i] & 0x0F] : static_cast<char16_t>(data[i]));
    }
  }
  return text;
}

// Runs one expression and one matcher on the text and aborts on any
// difference.
template <typename Matcher>
void Compare(const std::wregex& expression, Matcher matcher, const std::u16string& text) {
  const std::wstring wide(text.begin(), text.end());
  std::wsmatch match;
  const bool expected = std::regex_match(wide, match, expression);
  lindqvar::MatchSpan first, second;
  const bool got = matcher(text, first, second);
  if (expected != got) std::abort();
  if (!expected) return;
  if (match.size() != 3) std::abort();
  const auto same = [&](const lindqvar::MatchSpan& span, size_t group) {
    return static_cast<size_t>(match.position(group)) == span.offset &&
           static_cast<size_t>(match.length(group)) == span.length;
  };
  if (!same(first, 1) || !same(second, 2)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::wregex kLine(L"\\s+(.+)\\s+:\\s+(.+)", std::regex::ECMAScript);
  static const std::wregex kAccount(L".*,\\s*(.*)@(.*)", std::regex::ECMAScript);
  const std::u16string text = Units(data, size);
  Compare(kLine, lindqvar::MatchStatusLine, text);
  Compare(kAccount, lindqvar::MatchAccountValue, text);
  return 0;
}
