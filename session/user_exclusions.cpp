#include "session/user_exclusions.h"

#include "platform/os.h"
#include "protocol/wire/wide_upper.h"

namespace lindqvar {

namespace {

std::u16string Upper(std::u16string_view text) {
  std::u16string out(text);
  for (char16_t& unit : out) unit = WideToUpper(unit);
  return out;
}

bool IsBlank(char16_t unit) { return unit == u' ' || unit == u'\t'; }

std::u16string_view Trim(std::u16string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

// Text of a pattern for a log line: ASCII kept, other units as "?".
std::string Printable(std::u16string_view text) {
  std::string out;
  for (char16_t unit : text) out += unit >= 0x20 && unit < 0x7F ? static_cast<char>(unit) : '?';
  return out;
}

}  // namespace

bool WildcardMatch(std::u16string_view pattern, std::u16string_view text) {
  size_t p = 0, t = 0;
  size_t star = std::u16string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && (pattern[p] == u'?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (p < pattern.size() && pattern[p] == u'*') {
      // Let the star take nothing first; on a mismatch it takes one more.
      star = p++;
      resume = t;
    } else if (star != std::u16string_view::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  return p == pattern.size();
}

CUserExclusions CUserExclusions::Parse(const std::vector<uint8_t>& multiSz,
                                       std::vector<std::string>& problems) {
  CUserExclusions out;
  std::u16string all;
  for (size_t i = 0; i + 1 < multiSz.size(); i += 2)
    all.push_back(static_cast<char16_t>(multiSz[i] | multiSz[i + 1] << 8));
  size_t start = 0;
  while (start < all.size()) {
    // Entries end at a NUL or a ";" (which no account name holds), so that
    // one string such as the installer's "svc_*;CORP\\helpdesk" carries
    // several.
    size_t end = all.find_first_of(std::u16string_view(u"\0;", 2), start);
    if (end == std::u16string::npos) end = all.size();
    const std::u16string_view entry = Trim(std::u16string_view(all).substr(start, end - start));
    start = end + 1;
    if (entry.empty()) continue;
    if (entry.size() > kMaxPatternLength) {
      problems.push_back("ExcludedUsers entry longer than 256 characters is skipped: " +
                         Printable(entry.substr(0, 64)) + "...");
      continue;
    }
    const size_t slash = entry.find(u'\\');
    if (slash != std::u16string_view::npos &&
        entry.find(u'\\', slash + 1) != std::u16string_view::npos) {
      problems.push_back("ExcludedUsers entry with more than one backslash is skipped: " +
                         Printable(entry));
      continue;
    }
    Pattern pattern;
    pattern.text = std::u16string(entry);
    if (slash == std::u16string_view::npos) {
      pattern.user = Upper(entry);
    } else {
      pattern.anyDomain = false;
      pattern.domain = Upper(Trim(entry.substr(0, slash)));
      pattern.user = Upper(Trim(entry.substr(slash + 1)));
    }
    if (pattern.user.empty() || (!pattern.anyDomain && pattern.domain.empty())) {
      problems.push_back("ExcludedUsers entry without a user or domain is skipped: " +
                         Printable(entry));
      continue;
    }
    if (out.m_patterns.size() == kMaxPatterns) {
      problems.push_back(
          "ExcludedUsers has more than 100 entries; from this one on they are ignored: " +
          Printable(entry));
      break;
    }
    out.m_patterns.push_back(std::move(pattern));
  }
  return out;
}

const CUserExclusions::Pattern* CUserExclusions::Match(std::string_view user,
                                                       std::string_view domain) const {
  if (m_patterns.empty()) return nullptr;
  const std::u16string u = Upper(Utf8ToWide(user));
  const std::u16string d = Upper(Utf8ToWide(domain));
  for (const Pattern& pattern : m_patterns) {
    if (!WildcardMatch(pattern.user, u)) continue;
    if (pattern.anyDomain || WildcardMatch(pattern.domain, d)) return &pattern;
  }
  return nullptr;
}

}  // namespace lindqvar
