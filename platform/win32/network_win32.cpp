#include "platform/win32/network_win32.h"

#include "platform/win32/windows_include.h"

#include <iphlpapi.h>

#include <cstring>

#include "platform/event.h"
#include "platform/socket.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

void CNetworkWin32::Startup() {
  WSADATA data;
  ::WSAStartup(MAKEWORD(2, 2), &data);
}

void CNetworkWin32::Cleanup() { ::WSACleanup(); }

std::string CNetworkWin32::HostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name) != 0) return {};
  name[sizeof name - 1] = '\0';
  return name;
}

int CNetworkWin32::Resolve(const std::string& name, std::vector<ResolvedAddress>& out) {
  return ResolveName(name, out);
}

bool CNetworkWin32::PhysicalDnsDomain(std::u16string& domain, uint32_t& error) {
  wchar_t buffer[512] = {};
  DWORD size = 512;
  if (!::GetComputerNameExW(ComputerNamePhysicalDnsDomain, buffer, &size)) {
    error = ::GetLastError();
    return false;
  }
  domain = U(buffer, size);
  return true;
}

namespace {
// NotifyAddrChange on an overlapped request whose event comes from
// WSACreateEvent; the request is cancelled and the event closed on
// destruction.
class CAddressChangeWatchWin32 : public IAddressChangeWatch {
 public:
  CAddressChangeWatchWin32() {
    m_overlapped.hEvent = ::WSACreateEvent();
    m_event = CEvent::Borrow(m_overlapped.hEvent);
  }
  ~CAddressChangeWatchWin32() override {
    if (m_armed) ::CancelIPChangeNotify(&m_overlapped);
    if (m_overlapped.hEvent) ::WSACloseEvent(m_overlapped.hEvent);
  }
  uint32_t Arm() override {
    HANDLE handle = nullptr;
    const DWORD rc = ::NotifyAddrChange(&handle, &m_overlapped);
    if (rc != NO_ERROR) {
      const int error = ::WSAGetLastError();
      if (error != WSA_IO_PENDING) return static_cast<uint32_t>(error);
    }
    m_armed = true;
    return 0;
  }
  CEvent& Changed() override { return *m_event; }
  void Rearm() override {
    ::CancelIPChangeNotify(&m_overlapped);
    HANDLE handle = nullptr;
    ::NotifyAddrChange(&handle, &m_overlapped);
  }

 private:
  OVERLAPPED m_overlapped = {};
  std::unique_ptr<CEvent> m_event;
  bool m_armed = false;
};
}  // namespace

std::unique_ptr<IAddressChangeWatch> CNetworkWin32::CreateAddressChangeWatch() {
  return std::make_unique<CAddressChangeWatchWin32>();
}

}  // namespace lindqvar::win32
