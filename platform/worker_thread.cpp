#include "platform/worker_thread.h"

#include <utility>

namespace lindqvar {

void CWorkerThread::Start(std::function<uint32_t()> routine) {
  if (m_thread.joinable()) return;
  m_exitCode.store(kStillActive, std::memory_order_release);
  m_thread = std::thread([this, routine = std::move(routine)] {
    uint32_t code = routine();
    // A routine that happens to return 259 must still be seen as ended.
    m_exitCode.store(code == kStillActive ? 0 : code, std::memory_order_release);
  });
}

void CWorkerThread::Join() {
  if (m_thread.joinable()) m_thread.join();
}

CWorkerThread::~CWorkerThread() { Join(); }

}  // namespace lindqvar
