#include <cstring>

#include "platform/os.h"

namespace lindqvar {

namespace {
constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}
}  // namespace

std::string WideToUtf8(std::u16string_view wide) {
  std::string out;
  out.reserve(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) {
    char32_t u = wide[i];
    if (u >= 0xD800 && u <= 0xDBFF) {
      if (i + 1 < wide.size() && wide[i + 1] >= 0xDC00 && wide[i + 1] <= 0xDFFF) {
        u = 0x10000 + ((u - 0xD800) << 10) + (wide[i + 1] - 0xDC00);
        ++i;
      } else {
        u = kReplacement;
      }
    } else if (u >= 0xDC00 && u <= 0xDFFF) {
      u = kReplacement;
    }
    AppendUtf8(out, u);
  }
  return out;
}

std::u16string Utf8ToWide(std::string_view utf8) {
  std::u16string out;
  out.reserve(utf8.size());
  size_t i = 0;
  const size_t n = utf8.size();
  while (i < n) {
    const auto b0 = static_cast<unsigned char>(utf8[i]);
    char32_t cp = kReplacement;
    size_t len = 1;
    if (b0 < 0x80) {
      cp = b0;
    } else {
      size_t need = 0;
      char32_t min = 0;
      if ((b0 & 0xE0) == 0xC0) {
        need = 1;
        cp = b0 & 0x1F;
        min = 0x80;
      } else if ((b0 & 0xF0) == 0xE0) {
        need = 2;
        cp = b0 & 0x0F;
        min = 0x800;
      } else if ((b0 & 0xF8) == 0xF0) {
        need = 3;
        cp = b0 & 0x07;
        min = 0x10000;
      }
      bool ok = need > 0;
      for (size_t k = 1; ok && k <= need; ++k) {
        if (i + k >= n) {
          ok = false;
          break;
        }
        const auto b = static_cast<unsigned char>(utf8[i + k]);
        if ((b & 0xC0) != 0x80) {
          ok = false;
          break;
        }
        cp = (cp << 6) | (b & 0x3F);
      }
      if (ok && cp >= min && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF)) {
        len = need + 1;
      } else {
        cp = kReplacement;
        len = 1;
      }
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += len;
  }
  return out;
}

size_t WideLength(const char16_t* text, size_t max) {
  size_t n = 0;
  while (n < max && text[n] != 0) ++n;
  return n;
}

}  // namespace lindqvar
