// Owners of Windows handles. Each traits class says what an invalid value is
// and how to close one; the owner closes on destruction and keeps the
// thread's last error across that close, so a caller can still read it.
#pragma once

#include <utility>

#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

template <typename Traits>
class CScopedGeneric {
 public:
  using Handle = typename Traits::Handle;

  CScopedGeneric() = default;
  explicit CScopedGeneric(Handle h) : m_handle(h) {}
  ~CScopedGeneric() { Close(); }
  CScopedGeneric(CScopedGeneric&& other) noexcept : m_handle(other.release()) {}
  CScopedGeneric& operator=(CScopedGeneric&& other) noexcept {
    if (this != &other) Set(other.release());
    return *this;
  }
  CScopedGeneric(const CScopedGeneric&) = delete;
  CScopedGeneric& operator=(const CScopedGeneric&) = delete;

  void Set(Handle h) {
    if (h == m_handle) return;
    const DWORD lastError = ::GetLastError();
    Close();
    m_handle = h;
    ::SetLastError(lastError);
  }
  Handle get() const { return m_handle; }
  bool Valid() const { return m_handle != Traits::Invalid(); }
  explicit operator bool() const { return Valid(); }
  Handle release() { return std::exchange(m_handle, Traits::Invalid()); }
  // For out-parameters of system calls: the owner must be empty.
  Handle* receive() { return &m_handle; }

 private:
  void Close() {
    if (Valid()) Traits::Close(std::exchange(m_handle, Traits::Invalid()));
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

using ScopedHandle = CScopedGeneric<HandleTraits>;
using ScopedFileHandle = CScopedGeneric<FileHandleTraits>;
using ScopedRegKey = CScopedGeneric<RegKeyTraits>;
using ScopedEventSource = CScopedGeneric<EventSourceTraits>;
using ScopedServiceHandle = CScopedGeneric<ServiceHandleTraits>;

}  // namespace lindqvar::win32
