// A waitable event with the two reset policies of Windows events.
// event_win32.cpp wraps a real event HANDLE (so it can be waited on together
// with handles the system signals); event_posix.cpp uses a mutex and
// condition variable.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/os.h"

namespace lindqvar {

enum class WaitResult { kSignaled, kTimeout, kFailed };

class CEvent {
 public:
  enum class ResetPolicy { kManual, kAutomatic };
  enum class InitialState { kNotSignaled, kSignaled };

  CEvent(ResetPolicy policy, InitialState initial);
  ~CEvent();
  CEvent(const CEvent&) = delete;
  CEvent& operator=(const CEvent&) = delete;

  void Set();
  void Reset();

  // Waits up to `milliseconds` (kInfinite for no limit).
  WaitResult Wait(uint32_t milliseconds);

  // Waits until either event is signaled. Returns 0 or 1 for the event that
  // satisfied the wait (the first one when both are), -1 on time-out, -2 on
  // failure. An automatic event's signal is consumed by the wait it ends.
  static int WaitAny(CEvent& first, CEvent& second, uint32_t milliseconds);

#ifdef _WIN32
  // Wraps a handle owned elsewhere (e.g. the event of an overlapped request);
  // the wrapper does not close it.
  static std::unique_ptr<CEvent> Borrow(void* handle);
  // Takes ownership of an event handle (e.g. a named event).
  static std::unique_ptr<CEvent> Adopt(void* handle);
  void* native_handle() const;
#endif

  struct Impl;

 private:
  CEvent() = default;
  std::unique_ptr<Impl> m_impl;
};

// The waits of the agent's long-running worker loops, as one replaceable
// object: the product uses the plain event waits; tests put in a recorder
// (to see the time-out a loop asked for) or a wait that fails.
class IWaits {
 public:
  virtual ~IWaits() = default;
  virtual WaitResult Wait(CEvent& event, uint32_t milliseconds) { return event.Wait(milliseconds); }
  virtual int WaitAny(CEvent& first, CEvent& second, uint32_t milliseconds) {
    return CEvent::WaitAny(first, second, milliseconds);
  }
};

}  // namespace lindqvar
