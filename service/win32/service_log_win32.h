// The service's events: to the Windows event log under the source
// "LindqvarAgent", and a copy as one line of the service's log file
// LindqvarService.log (in the agent's log folder), where they can be read
// together with the agent's own log.
#pragma once

#include <mutex>
#include <string>

#include "platform/win32/scoped_handle.h"
#include "service/supervisor.h"

namespace lindqvar::service {

inline constexpr wchar_t kEventSource[] = L"LindqvarAgent";

class CServiceLogWin32 : public IServiceLog {
 public:
  CServiceLogWin32();
  void Write(ServiceEvent id, EventKind kind, const std::string& text) override;

  // The log file's folder: LogDirectory of the agent's logging settings,
  // else the program's folder.
  static std::wstring Folder();

 private:
  std::mutex m_mutex;
  bool m_refusalReported = false;
  win32::ScopedEventSource m_source;
};

}  // namespace lindqvar::service
