#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/event.h"

namespace lindqvar {

// All events share one lock and one condition variable. The agent has a
// handful of events and they change rarely, so waking every waiter on every
// Set costs nothing, and it makes waiting on two events at once simple and
// free of lock-order questions.
namespace {
std::mutex& Lock() {
  static std::mutex m;
  return m;
}
std::condition_variable& Changed() {
  static std::condition_variable cv;
  return cv;
}
}  // namespace

struct CEvent::Impl {
  bool signaled = false;
  bool manual = false;

  // Takes the signal if there is one (an automatic event's is consumed).
  bool Take() {
    if (!signaled) return false;
    if (!manual) signaled = false;
    return true;
  }
};

CEvent::CEvent(ResetPolicy policy, InitialState initial) : m_impl(std::make_unique<Impl>()) {
  m_impl->manual = policy == ResetPolicy::kManual;
  m_impl->signaled = initial == InitialState::kSignaled;
}

CEvent::~CEvent() = default;

void CEvent::Set() {
  {
    std::lock_guard<std::mutex> lock(Lock());
    m_impl->signaled = true;
  }
  Changed().notify_all();
}

void CEvent::Reset() {
  std::lock_guard<std::mutex> lock(Lock());
  m_impl->signaled = false;
}

WaitResult CEvent::Wait(uint32_t milliseconds) {
  std::unique_lock<std::mutex> lock(Lock());
  auto ready = [this] { return m_impl->signaled; };
  if (milliseconds == kInfinite) {
    Changed().wait(lock, ready);
  } else if (!Changed().wait_for(lock, std::chrono::milliseconds(milliseconds), ready)) {
    return WaitResult::kTimeout;
  }
  m_impl->Take();
  return WaitResult::kSignaled;
}

int CEvent::WaitAny(CEvent& first, CEvent& second, uint32_t milliseconds) {
  std::unique_lock<std::mutex> lock(Lock());
  auto ready = [&] { return first.m_impl->signaled || second.m_impl->signaled; };
  if (milliseconds == kInfinite) {
    Changed().wait(lock, ready);
  } else if (!Changed().wait_for(lock, std::chrono::milliseconds(milliseconds), ready)) {
    return -1;
  }
  return first.m_impl->Take() ? 0 : (second.m_impl->Take() ? 1 : -2);
}

}  // namespace lindqvar
