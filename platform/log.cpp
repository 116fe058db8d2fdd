#include "platform/log.h"

#include <cstdio>
#include <vector>

namespace lindqvar {

std::string FormatV(const char* format, va_list args) {
  char stack[512];
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(stack, sizeof stack, format, copy);
  va_end(copy);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof stack) return std::string(stack, static_cast<size_t>(n));
  std::string out(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), format, args);
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = FormatV(format, args);
  va_end(args);
  return s;
}

void CLog::Debug(const char* format, ...) {
  LogHandle h = Handle();
  if (!h) return;
  va_list args;
  va_start(args, format);
  std::string line = FormatV(format, args);
  va_end(args);
  m_support.log_debug(h, line);
}

void CLog::Error(const char* format, ...) {
  LogHandle h = Handle();
  if (!h) return;
  va_list args;
  va_start(args, format);
  std::string line = FormatV(format, args);
  va_end(args);
  m_support.log_error(h, line);
}

}  // namespace lindqvar
