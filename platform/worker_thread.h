// A worker thread whose routine returns a 32-bit result, observed the way the
// agent observes its threads: is it still running, and what did it return.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace lindqvar {

class CWorkerThread {
 public:
  static constexpr uint32_t kStillActive = 259;  // STILL_ACTIVE

  CWorkerThread() = default;
  ~CWorkerThread();
  CWorkerThread(const CWorkerThread&) = delete;
  CWorkerThread& operator=(const CWorkerThread&) = delete;

  // Starts the routine at once. A thread object runs one routine only.
  void Start(std::function<uint32_t()> routine);

  bool Started() const { return m_thread.joinable(); }
  // kStillActive while the routine runs, then its result.
  uint32_t ExitCode() const { return m_exitCode.load(std::memory_order_acquire); }
  // Waits for the routine to return and releases the thread.
  void Join();

 private:
  std::thread m_thread;
  std::atomic<uint32_t> m_exitCode{kStillActive};
};

}  // namespace lindqvar
