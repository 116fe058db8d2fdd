#include "platform/win32/service_status_win32.h"

#include <string>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

ServiceRunState CServiceStatusWin32::Query(std::u16string_view name, uint32_t& error) {
  error = 0;
  ScopedServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!manager) {
    error = ::GetLastError();
    return ServiceRunState::kUnknown;
  }
  const std::wstring wide(name.begin(), name.end());
  ScopedServiceHandle service(::OpenServiceW(manager.get(), wide.c_str(), SERVICE_QUERY_STATUS));
  if (!service) {
    error = ::GetLastError();
    return error == ERROR_SERVICE_DOES_NOT_EXIST ? ServiceRunState::kNotInstalled
                                                 : ServiceRunState::kUnknown;
  }
  SERVICE_STATUS status{};
  if (!::QueryServiceStatus(service.get(), &status)) {
    error = ::GetLastError();
    return ServiceRunState::kUnknown;
  }
  if (status.dwCurrentState < SERVICE_STOPPED || status.dwCurrentState > SERVICE_PAUSED)
    return ServiceRunState::kUnknown;
  return static_cast<ServiceRunState>(status.dwCurrentState);
}

}  // namespace lindqvar::win32
