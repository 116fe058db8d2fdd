#include "platform/event.h"
#include "platform/win32/windows_include.h"

namespace lindqvar {

struct CEvent::Impl {
  HANDLE handle = nullptr;
  bool owned = true;
  ~Impl() {
    if (owned && handle) ::CloseHandle(handle);
  }
};

CEvent::CEvent(ResetPolicy policy, InitialState initial) : m_impl(std::make_unique<Impl>()) {
  m_impl->handle = ::CreateEventW(nullptr, policy == ResetPolicy::kManual ? TRUE : FALSE,
                                  initial == InitialState::kSignaled ? TRUE : FALSE, nullptr);
}

CEvent::~CEvent() = default;

std::unique_ptr<CEvent> CEvent::Borrow(void* handle) {
  std::unique_ptr<CEvent> e(new CEvent());
  e->m_impl = std::make_unique<Impl>();
  e->m_impl->handle = handle;
  e->m_impl->owned = false;
  return e;
}

std::unique_ptr<CEvent> CEvent::Adopt(void* handle) {
  std::unique_ptr<CEvent> e(new CEvent());
  e->m_impl = std::make_unique<Impl>();
  e->m_impl->handle = handle;
  e->m_impl->owned = true;
  return e;
}

void* CEvent::native_handle() const { return m_impl->handle; }

void CEvent::Set() { ::SetEvent(m_impl->handle); }
void CEvent::Reset() { ::ResetEvent(m_impl->handle); }

WaitResult CEvent::Wait(uint32_t milliseconds) {
  switch (::WaitForSingleObject(m_impl->handle, milliseconds)) {
    case WAIT_OBJECT_0: return WaitResult::kSignaled;
    case WAIT_TIMEOUT: return WaitResult::kTimeout;
    default: return WaitResult::kFailed;
  }
}

int CEvent::WaitAny(CEvent& first, CEvent& second, uint32_t milliseconds) {
  HANDLE handles[2] = {first.m_impl->handle, second.m_impl->handle};
  const DWORD r = ::WaitForMultipleObjects(2, handles, FALSE, milliseconds);
  if (r == WAIT_OBJECT_0) return 0;
  if (r == WAIT_OBJECT_0 + 1) return 1;
  if (r == WAIT_TIMEOUT) return -1;
  return -2;
}

}  // namespace lindqvar
