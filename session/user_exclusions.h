// The opt-in list of users whose sessions the agent never reports
// (`ExcludedUsers`, REG_MULTI_SZ in the agent's settings key): service
// accounts, scheduled tasks' accounts, administrators connecting for support.
// Without the value nobody is excluded and the agent reports every session.
//
// Each string is a pattern: "user" (any domain) or "DOMAIN\user", with "*"
// (any run of characters) and "?" (one character) in either part, compared
// ignoring case with the upper-casing the agent applies to the names it
// sends. Blanks around a pattern and empty strings are ignored. A string may
// hold several patterns separated by ";" (no account name contains one).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lindqvar {

inline constexpr char16_t kExcludedUsersValue[] = u"ExcludedUsers";

class CUserExclusions {
 public:
  // At most this many patterns are kept; later ones are ignored.
  static constexpr size_t kMaxPatterns = 100;
  // A pattern longer than this (UTF-16 units, "DOMAIN\user" as a whole) is
  // malformed.
  static constexpr size_t kMaxPatternLength = 256;

  struct Pattern {
    std::u16string text;    // as configured, blanks trimmed
    bool anyDomain = true;  // no "DOMAIN\" part
    std::u16string domain;  // upper-cased
    std::u16string user;    // upper-cased
    bool operator==(const Pattern& other) const { return text == other.text; }
  };

  CUserExclusions() = default;
  // Parses the value's stored bytes (UTF-16LE strings, each ended by a NUL).
  // Each entry that cannot be used (more than one backslash, an empty user
  // part, longer than kMaxPatternLength, beyond kMaxPatterns) is described in
  // `problems`, with its text, and skipped; the rest apply.
  static CUserExclusions Parse(const std::vector<uint8_t>& multiSz,
                               std::vector<std::string>& problems);

  // The pattern that excludes the user (UTF-8 names as they would be sent),
  // or null when none does.
  const Pattern* Match(std::string_view user, std::string_view domain) const;

  bool Empty() const { return m_patterns.empty(); }
  const std::vector<Pattern>& Patterns() const { return m_patterns; }
  bool operator==(const CUserExclusions& other) const { return m_patterns == other.m_patterns; }

 private:
  std::vector<Pattern> m_patterns;
};

// "*" and "?" matching of upper-cased UTF-16 texts, in time proportional to
// the product of their lengths at worst (no backtracking blow-up).
bool WildcardMatch(std::u16string_view pattern, std::u16string_view text);

}  // namespace lindqvar
