// Owners of Windows handles. Each traits class says what an invalid value is
// and how to close one; the owner closes on destruction and keeps the
// thread's last error across that close, so a caller can still read it.
#pragma once

#include <utility>

#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

template <typename Traits>
class ScopedGeneric {
 public:
  using Handle = typename Traits::Handle;

  ScopedGeneric() = default;
  explicit ScopedGeneric(Handle h) : m_handle(h) {}
  ~ScopedGeneric() { Close(); }
  ScopedGeneric(ScopedGeneric&& other) noexcept : m_handle(other.release()) {}
  ScopedGeneric& operator=(ScopedGeneric&& other) noexcept {
    if (this != &other) Set(other.release());
    return *this;
  }
  ScopedGeneric(const ScopedGeneric&) = delete;
  ScopedGeneric& operator=(const ScopedGeneric&) = delete;

  void Set(Handle h) {
    if (h == m_handle) return;
    const DWORD lastError = ::GetLastError();
    Close();
    m_handle = h;
    ::SetLastError(lastError);
  }
  Handle get() const { return m_handle; }
  bool valid() const { return m_handle != Traits::Invalid(); }
  explicit operator bool() const { return valid(); }
  Handle release() { return std::exchange(m_handle, Traits::Invalid()); }
  // For out-parameters of system calls: the owner must be empty.
  Handle* receive() { return &m_handle; }

 private:
  void Close() {
    if (valid()) Traits::Close(std::exchange(m_handle, Traits::Invalid()));
  }
  Handle m_handle = Traits::Invalid();
};

// Handles whose invalid value is NULL (events, threads, tokens, processes).
struct HandleTraits {
  using Handle = HANDLE;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { ::CloseHandle(h); }
};
// Handles whose invalid value is INVALID_HANDLE_VALUE (files, pipes' ends made by CreateFile).
struct FileHandleTraits {
  using Handle = HANDLE;
  static Handle Invalid() { return INVALID_HANDLE_VALUE; }
  static void Close(Handle h) { ::CloseHandle(h); }
};
struct RegKeyTraits {
  using Handle = HKEY;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { ::RegCloseKey(h); }
};
struct EventSourceTraits {
  using Handle = HANDLE;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { ::DeregisterEventSource(h); }
};

struct ServiceHandleTraits {
  using Handle = SC_HANDLE;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { ::CloseServiceHandle(h); }
};

using ScopedHandle = ScopedGeneric<HandleTraits>;
using ScopedFileHandle = ScopedGeneric<FileHandleTraits>;
using ScopedRegKey = ScopedGeneric<RegKeyTraits>;
using ScopedEventSource = ScopedGeneric<EventSourceTraits>;
using ScopedServiceHandle = ScopedGeneric<ServiceHandleTraits>;

}  // namespace lindqvar::win32
