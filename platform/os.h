// Small operating-system facilities with one portable interface and a
// per-system implementation (os_posix.cpp, os_win32.cpp).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace lindqvar {

inline constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// Sleeps the calling thread.
void SleepMs(uint32_t milliseconds);

// Milliseconds since an arbitrary start, wrapping at 2^32 like GetTickCount().
uint32_t TickCount();

// The calling thread's id as the system reports it.
uint32_t CurrentThreadId();

// The calling thread's last-error value: GetLastError / SetLastError on
// Windows, a value of the thread's own elsewhere.
uint32_t LastErrorCode();
void SetLastErrorCode(uint32_t error);

// The system's 8-bit ("ANSI") code page. On Windows this is CP_ACP; on other
// systems the agent's ANSI text is UTF-8.
std::string WideToAnsi(std::u16string_view wide);
std::u16string AnsiToWide(std::string_view ansi);

// UTF-8 <-> UTF-16 without depending on the system (text.cpp). Unpaired
// surrogates and malformed bytes become U+FFFD.
std::string WideToUtf8(std::u16string_view wide);
std::u16string Utf8ToWide(std::string_view utf8);

// Length of a NUL-terminated UTF-16 text within at most `max` units.
size_t WideLength(const char16_t* text, size_t max);

}  // namespace lindqvar
