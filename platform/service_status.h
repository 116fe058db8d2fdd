// Whether a Windows service is installed and in which state it is, as the
// service control manager tells it; read-only.
#pragma once

#include <cstdint>
#include <string_view>

namespace lindqvar {

enum class ServiceRunState : uint32_t {  // SERVICE_STOPPED ... SERVICE_PAUSED, and two of ours
  kUnknown = 0,  // the service control manager or the service could not be asked
  kStopped = 1,
  kStartPending = 2,
  kStopPending = 3,
  kRunning = 4,
  kContinuePending = 5,
  kPausePending = 6,
  kPaused = 7,
  kNotInstalled = 100,
};

class IServiceStatus {
 public:
  virtual ~IServiceStatus() = default;
  // The service's state; kUnknown with the system's error in `error` when
  // it cannot be asked.
  virtual ServiceRunState Query(std::u16string_view name, uint32_t& error) = 0;
};

}  // namespace lindqvar
