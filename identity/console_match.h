// The two expressions of the console-output parse, matched by hand:
//   status line    \s+(.+)\s+:\s+(.+)     key and value
//   account value  .*,\s*(.*)@(.*)        user and domain
// Each function gives exactly what std::regex_match (ECMAScript grammar)
// gives for its expression on the same text, captures included, but in
// time and memory linear in the text and without recursion: the
// backtracking matcher takes cubic time on a line of blanks and recurses
// once per character.
//
// The classes are those std::regex uses on wchar_t text: "\s" is the space
// class of the global locale's std::ctype<wchar_t> facet, "." any unit but
// LF, CR, U+2028 and U+2029.
#pragma once

#include <cstddef>
#include <string_view>

namespace lindqvar {

// A capture: offset and length in the matched text.
struct MatchSpan {
  size_t offset = 0;
  size_t length = 0;
  std::u16string_view In(std::u16string_view text) const { return text.substr(offset, length); }
};

// The whole line against \s+(.+)\s+:\s+(.+). On a match, `key` and `value`
// are groups 1 and 2.
bool MatchStatusLine(std::u16string_view line, MatchSpan& key, MatchSpan& value);

// The whole value against .*,\s*(.*)@(.*). On a match, `user` and `domain`
// are groups 1 and 2.
bool MatchAccountValue(std::u16string_view value, MatchSpan& user, MatchSpan& domain);

}  // namespace lindqvar
