#include "identity/console_match.h"

#include <algorithm>
#include <locale>
#include <vector>

namespace lindqvar {

namespace {

// The character classes of the expressions, as std::regex sees them.
class CCharacterClasses {
 public:
  CCharacterClasses() : m_ctype(std::use_facet<std::ctype<wchar_t>>(std::locale())) {}
  bool Space(char16_t c) const {
    return m_ctype.is(std::ctype_base::space, static_cast<wchar_t>(c));
  }
  static bool Dot(char16_t c) {
    return c != u'\n' && c != u'\r' && c != u'\u2028' && c != u'\u2029';
  }

 private:
  const std::ctype<wchar_t>& m_ctype;
};

// For every position i of the text (and its end), where the run of units
// of one class that starts at i ends: i itself when text[i] is not of the
// class, the text's size at the end.
template <typename InClass>
std::vector<size_t> RunEnds(std::u16string_view text, InClass inClass) {
  std::vector<size_t> end(text.size() + 1);
  end[text.size()] = text.size();
  for (size_t i = text.size(); i-- > 0;) end[i] = inClass(text[i]) ? end[i + 1] : i;
  return end;
}

// The first position from which every unit to the end is matched by ".".
size_t DotTailStart(std::u16string_view text) {
  size_t start = text.size();
  while (start > 0 && CCharacterClasses::Dot(text[start - 1])) --start;
  return start;
}

constexpr size_t kNone = static_cast<size_t>(-1);

}  // namespace

// The backtracking matcher tries the greedy quantifiers longest first and
// takes the first way through that ends at the end of the line. Walking
// that order:
// - The last \s+ and (.+) must reach the end, so (.+) is the tail [v, n)
//   with v the longest choice of \s+ that leaves a non-empty tail of "."
//   units: after the ":" at c, v = min(end of the blank run from c + 1,
//   n - 1), valid when v >= c + 2 and the units from v on are all ".".
// - The \s+ before ":" cannot give way to a ":" inside its own run, so from
//   the end e of group 1 it takes the whole blank run, and the unit after
//   it must be the ":" above. Whether an end e of group 1 leads to a match
//   is thus known for each e on its own ("good" ends).
// - Group 1 starts at a, after the first \s+, and may end anywhere in the
//   run of "." units from a; it takes the last good end in that run.
// - The first \s+ tries the longest start a first: the first a (from the
//   end of the leading blank run down to 1) whose run holds a good end
//   gives the match.
bool MatchStatusLine(std::u16string_view line, MatchSpan& key, MatchSpan& value) {
  const CCharacterClasses classes;
  const size_t n = line.size();
  const std::vector<size_t> spaceEnd = RunEnds(line, [&](char16_t c) { return classes.Space(c); });
  const std::vector<size_t> dotEnd = RunEnds(line, CCharacterClasses::Dot);
  const size_t tail = DotTailStart(line);

  // The start of the value when a ":" at c is followed by a way to the end.
  const auto valueAfterColon = [&](size_t c) -> size_t {
    const size_t blanksEnd = spaceEnd[c + 1];
    if (blanksEnd < c + 2) return kNone;
    const size_t v = std::min(blanksEnd, n - 1);
    return v >= c + 2 && v >= tail ? v : kNone;
  };

  // lastGood[x]: the greatest good end of group 1 at or before x.
  std::vector<size_t> lastGood(n + 1, kNone);
  for (size_t e = 0; e <= n; ++e) {
    bool good = false;
    if (e < n) {
      const size_t c = spaceEnd[e];
      good = c > e && c < n && line[c] == u':' && valueAfterColon(c) != kNone;
    }
    lastGood[e] = good ? e : (e > 0 ? lastGood[e - 1] : kNone);
  }

  for (size_t a = spaceEnd[0]; a >= 1; --a) {
    const size_t e = lastGood[dotEnd[a]];
    if (e == kNone || e <= a) continue;
    const size_t v = valueAfterColon(spaceEnd[e]);
    key = {a, e - a};
    value = {v, n - v};
    return true;
  }
  return false;
}

// In the backtracking order the first .* gives up units from the end until
// a "," follows it, so the commas are tried from the last one back (only
// those the run of "." units from the start reaches). After a comma at p,
// \s* takes the blank run to m first; (.*) then runs from m to the last "@"
// within the run of "." units from m, and the last (.*) must reach the end.
// A shorter \s* cannot help: an "@" reachable from a blank before m is
// reachable from m, with the same end.
bool MatchAccountValue(std::u16string_view value, MatchSpan& user, MatchSpan& domain) {
  const CCharacterClasses classes;
  const size_t n = value.size();
  if (n == 0) return false;
  const std::vector<size_t> spaceEnd = RunEnds(value, [&](char16_t c) { return classes.Space(c); });
  const std::vector<size_t> dotEnd = RunEnds(value, CCharacterClasses::Dot);
  const size_t tail = DotTailStart(value);

  // lastAt[x]: the greatest position of an "@" at or before x.
  std::vector<size_t> lastAt(n, kNone);
  for (size_t i = 0; i < n; ++i) lastAt[i] = value[i] == u'@' ? i : (i > 0 ? lastAt[i - 1] : kNone);

  for (size_t p = std::min(dotEnd[0], n - 1) + 1; p-- > 0;) {
    if (value[p] != u',') continue;
    const size_t m = spaceEnd[p + 1];
    const size_t runEnd = dotEnd[m];
    if (runEnd == m) continue;
    const size_t at = lastAt[runEnd - 1];
    if (at == kNone || at < m || at + 1 < tail) continue;
    user = {m, at - m};
    domain = {at + 1, n - at - 1};
    return true;
  }
  return false;
}

}  // namespace lindqvar
