#include "agent/agent_main.h"

#include "agent/args.h"
#include "agent/session_manager.h"
#include "platform/os.h"

namespace lindqvar {

int AgentMain(int argc, const char* const* argv, const Platform& platform,
              const NamedEventFactory& createNamedEvent, const LeaveRunning& leaveRunning) {
  constexpr int kExitCode = 0;  // the same on every path
  auto manager = std::make_unique<CSessionManager>(platform);

  const auto args = ScanArguments(argc, argv);
  if (!args) return kExitCode;

  std::shared_ptr<CEvent> control = createNamedEvent(args->eventName);
  const std::u16string key = AnsiToWide(args->controlKey);

  manager->Start();
  for (;;) {
    // Without an event the wait fails at once and the loop polls.
    if (control) control->Wait(kInfinite);
    const uint32_t status = platform.support->get_desired_status(kDesiredStatusComponent, key);
    if (status == kDesiredStatusStop) {
      manager->Stop();
      break;
    }
    const uint32_t changed = manager->ReloadSettings();
    if (control) control->Reset();
    // Changed settings end the process; the parent starts a fresh agent.
    // Stop is not run. Idle workers end at once; one held up in a send is
    // not waited for beyond the grace time.
    if (changed != 0) {
      if (!manager->EndWorkers(platform.timings.processEndGraceMs)) {
        // The manager is not destroyed on this way out, so its final state
        // is written here.
        manager->WriteFinalState();
        if (leaveRunning)
          leaveRunning(std::move(manager));
        else
          (void)manager.release();
        return kExitCode;
      }
      break;
    }
  }
  manager.reset();
  return kExitCode;
}

}  // namespace lindqvar
