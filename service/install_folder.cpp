#include "service/install_folder.h"

#include <string>

namespace lindqvar::service {

namespace {

std::u16string Normalised(std::u16string_view path) {
  std::u16string out;
  out.reserve(path.size());
  for (char16_t c : path) {
    if (c == u'/') c = u'\\';
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
    out.push_back(c);
  }
  while (!out.empty() && out.back() == u'\\') out.pop_back();
  return out;
}

}  // namespace

bool IsWithinFolder(std::u16string_view path, std::u16string_view folder) {
  const std::u16string p = Normalised(path);
  const std::u16string f = Normalised(folder);
  if (f.empty() || p.size() < f.size() || p.compare(0, f.size(), f) != 0) return false;
  return p.size() == f.size() || p[f.size()] == u'\\';
}

}  // namespace lindqvar::service
