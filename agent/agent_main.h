// The process entry of the agent, independent of the system it runs on.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/event.h"
#include "platform/platform.h"

namespace lindqvar {

// Creates (or opens, when the parent made it) the automatic-reset named
// control event. May return null; the control loop then polls. The event is
// shared so that whoever signals it from outside may keep it alive.
using NamedEventFactory = std::function<std::shared_ptr<CEvent>(const std::string& name)>;

class CSessionManager;

// Receives the manager when a settings change ends the process while a
// worker is still busy (e.g. inside a send): the end of the process is to
// take the workers with it. Without one the manager is left as it is.
using LeaveRunning = std::function<void(std::unique_ptr<CSessionManager> manager)>;

// Scans the arguments, starts the manager and runs the control loop until
// the parent asks for a stop or the settings changed. Always returns 0.
int AgentMain(int argc, const char* const* argv, const Platform& platform,
              const NamedEventFactory& createNamedEvent, const LeaveRunning& leaveRunning = {});

}  // namespace lindqvar
