#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "platform/os.h"

namespace lindqvar {

void SleepMs(uint32_t milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

uint32_t TickCount() {
  using namespace std::chrono;
  return static_cast<uint32_t>(
      duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

uint32_t CurrentThreadId() { return static_cast<uint32_t>(::syscall(SYS_gettid)); }

namespace {
thread_local uint32_t t_lastError = 0;
}  // namespace

uint32_t LastErrorCode() { return t_lastError; }
void SetLastErrorCode(uint32_t error) { t_lastError = error; }

// Outside Windows the agent's 8-bit text is UTF-8.
std::string WideToAnsi(std::u16string_view wide) { return WideToUtf8(wide); }
std::u16string AnsiToWide(std::string_view ansi) { return Utf8ToWide(ansi); }

}  // namespace lindqvar
