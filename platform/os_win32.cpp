#include "platform/os.h"
#include "platform/win32/windows_include.h"

namespace lindqvar {

void SleepMs(uint32_t milliseconds) { ::Sleep(milliseconds); }

uint32_t TickCount() { return ::GetTickCount(); }

uint32_t CurrentThreadId() { return ::GetCurrentThreadId(); }

uint32_t LastErrorCode() { return ::GetLastError(); }
void SetLastErrorCode(uint32_t error) { ::SetLastError(error); }

std::string WideToAnsi(std::u16string_view wide) {
  if (wide.empty()) return {};
  const auto* src = reinterpret_cast<const wchar_t*>(wide.data());
  const int n = ::WideCharToMultiByte(CP_ACP, 0, src, static_cast<int>(wide.size()), nullptr, 0,
                                      nullptr, nullptr);
  if (n <= 0) return {};
  std::string out(static_cast<size_t>(n), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, src, static_cast<int>(wide.size()), out.data(), n, nullptr,
                        nullptr);
  return out;
}

std::u16string AnsiToWide(std::string_view ansi) {
  if (ansi.empty()) return {};
  const int n =
      ::MultiByteToWideChar(CP_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), nullptr, 0);
  if (n <= 0) return {};
  std::u16string out(static_cast<size_t>(n), u'\0');
  ::MultiByteToWideChar(CP_ACP, 0, ansi.data(), static_cast<int>(ansi.size()),
                        reinterpret_cast<wchar_t*>(out.data()), n);
  return out;
}

}  // namespace lindqvar
