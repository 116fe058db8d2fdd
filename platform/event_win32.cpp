#include "platform/event.h"
#include "platform/win32/windows_include.h"

namespace lindqvar {

struct Event::Impl {
  HANDLE handle = nullptr;
  bool owned = true;
  ~Impl() {
    if (owned && handle) ::CloseHandle(handle);
  }
};

Event::Event(ResetPolicy policy, InitialState initial) : m_impl(std::make_unique<Impl>()) {
  m_impl->handle = ::CreateEventW(nullptr, policy == ResetPolicy::kManual ? TRUE : FALSE,
                                  initial == InitialState::kSignaled ? TRUE : FALSE, nullptr);
}

Event::~Event() = default;

std::unique_ptr<Event> Event::Borrow(void* handle) {
  std::unique_ptr<Event> e(new Event());
  e->m_impl = std::make_unique<Impl>();
  e->m_impl->handle = handle;
  e->m_impl->owned = false;
  return e;
}

std::unique_ptr<Event> Event::Adopt(void* handle) {
  std::unique_ptr<Event> e(new Event());
  e->m_impl = std::make_unique<Impl>();
  e->m_impl->handle = handle;
  e->m_impl->owned = true;
  return e;
}

void* Event::native_handle() const { return m_impl->handle; }

void Event::Set() { ::SetEvent(m_impl->handle); }
void Event::Reset() { ::ResetEvent(m_impl->handle); }

bool Event::IsSignaled() const {
  // A zero wait on a manual event does not change it; the agent asks this of
  // manual events only.
  return ::WaitForSingleObject(m_impl->handle, 0) == WAIT_OBJECT_0;
}

WaitResult Event::Wait(uint32_t milliseconds) {
  switch (::WaitForSingleObject(m_impl->handle, milliseconds)) {
    case WAIT_OBJECT_0: return WaitResult::kSignaled;
    case WAIT_TIMEOUT: return WaitResult::kTimeout;
    default: return WaitResult::kFailed;
  }
}

int Event::WaitAny(Event& first, Event& second, uint32_t milliseconds) {
  HANDLE handles[2] = {first.m_impl->handle, second.m_impl->handle};
  const DWORD r = ::WaitForMultipleObjects(2, handles, FALSE, milliseconds);
  if (r == WAIT_OBJECT_0) return 0;
  if (r == WAIT_OBJECT_0 + 1) return 1;
  if (r == WAIT_TIMEOUT) return -1;
  return -2;
}

}  // namespace lindqvar
