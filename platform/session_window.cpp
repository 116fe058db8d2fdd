#include "platform/session_window.h"

#include "platform/event.h"

namespace lindqvar {

uint32_t RunNotificationPump(ISessionWindow& window, ISessionNotificationSink& sink, CEvent& stop,
                             uint32_t pumpIntervalMs) {
  if (!window.Create(sink)) return 0;
  bool registered = window.RegisterNotifications();
  for (;;) {
    registered = registered || window.RegisterNotifications();
    window.Drain();
    const PumpWait r = window.WaitForStopOrMessage(stop, registered ? kInfinite : pumpIntervalMs);
    if (r == PumpWait::kStop) break;
    // A wait that cannot include the queue falls back to polling it.
    if (r == PumpWait::kFailed && stop.Wait(pumpIntervalMs) == WaitResult::kSignaled) break;
  }
  window.DestroyAndUnregister();
  return 1;
}

}  // namespace lindqvar
