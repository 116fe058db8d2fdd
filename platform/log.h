// The agent's log: printf-style lines handed, formatted, to the support
// library's logger under the current log handle.
#pragma once

#include <atomic>
#include <cstdarg>
#include <string>

#include "platform/support.h"

#if defined(__GNUC__)
#define LINDQ_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define LINDQ_PRINTF(fmt, args)
#endif

namespace lindqvar {

std::string FormatV(const char* format, va_list args);
std::string Format(const char* format, ...) LINDQ_PRINTF(1, 2);

class CLog {
 public:
  explicit CLog(ISupportLibrary& support) : m_support(support) {}

  void SetHandle(LogHandle handle) { m_handle.store(handle, std::memory_order_release); }
  LogHandle Handle() const { return m_handle.load(std::memory_order_acquire); }

  // A line is dropped while no log handle is held (before Start opens the
  // log and after Stop closes it).
  void Debug(const char* format, ...) LINDQ_PRINTF(2, 3);
  void Error(const char* format, ...) LINDQ_PRINTF(2, 3);

 private:
  ISupportLibrary& m_support;
  std::atomic<LogHandle> m_handle{nullptr};
};

}  // namespace lindqvar
