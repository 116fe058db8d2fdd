#include "service/supervisor.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>

#include "agent/args.h"
#include "platform/os.h"

namespace lindqvar::service {

namespace {

// "12.3 s" for a duration in milliseconds.
std::string Seconds(uint32_t ms) {
  return std::to_string(ms / 1000) + "." + std::to_string(ms % 1000 / 100) + " s";
}

std::string Error(uint32_t code) { return "error " + std::to_string(code); }

// The parts of a text, joined in one allocation.
std::string Join(std::initializer_list<std::string_view> parts) {
  size_t size = 0;
  for (const std::string_view part : parts) size += part.size();
  std::string text;
  text.reserve(size);
  for (const std::string_view part : parts) text += part;
  return text;
}

}  // namespace

uint32_t RestartDelayMs(uint32_t quickEnds, const SupervisorTimings& timings) {
  if (quickEnds == 0) return 0;
  uint64_t delay = timings.firstRestartDelayMs;
  for (uint32_t i = 1; i < quickEnds && delay < timings.maxRestartDelayMs; ++i) delay *= 2;
  return static_cast<uint32_t>(std::min<uint64_t>(delay, timings.maxRestartDelayMs));
}

std::string AgentArguments() { return Join({"-s ", kControlEventName}); }

CAgentSupervisor::CAgentSupervisor(ISupervisorSystem& system, IServiceLog& log,
                                   SupervisorTimings timings)
    : m_system(system),
      m_log(log),
      m_timings(timings),
      // The agent answers to the desired status named by this key.
      m_controlKey(ControlKeyOf(kControlEventName)) {}

uint32_t CAgentSupervisor::Run() {
  if (const uint32_t rc = m_system.CreateControlEvent(kControlEventName); rc != 0) {
    if (rc == kErrorAlreadyExists) {
      // Someone else made the event first and may hold a handle that can
      // signal the agent.
      m_log.Write(ServiceEvent::kControlEventExists, EventKind::kError,
                  Join({"The agent's control event ", kControlEventName,
                        " already exists, made by another process; the service refuses it and "
                        "does not start the agent."}));
      return rc;
    }
    m_log.Write(ServiceEvent::kControlFailed, EventKind::kError,
                Join({"Cannot create the agent's control event ", kControlEventName, " (",
                      Error(rc), "); the service does not start the agent."}));
    return rc;
  }
  m_watching = m_system.WatchSettings();
  if (!m_watching) {
    m_log.Write(ServiceEvent::kWatchFailed, EventKind::kWarning,
                "Cannot watch the settings key (it does not exist); looking again every " +
                    Seconds(m_timings.watchRetryMs) + ".");
  }
  m_settings = m_system.ReadSettings();
  m_restartAt = m_system.TickCount();
  m_log.Write(ServiceEvent::kServiceStarted, EventKind::kInformation,
              m_settings.Enabled() ? "The service started."
                                   : "The service started; Enabled is 0, so no agent runs.");

  for (;;) {
    if (!m_agent && m_settings.Enabled() && RestartDue()) StartAgent();
    switch (m_system.Wait(m_agent.get(), NextTimeout())) {
      case Wake::kStop:
        if (m_agent) StopAgent();
        m_log.Write(ServiceEvent::kServiceStopped, EventKind::kInformation, "The service stopped.");
        return 0;
      case Wake::kAgentEnded: OnAgentEnded(); break;
      case Wake::kSettingsChanged: OnSettingsNotification(); break;
      case Wake::kTimeout:
        // Without a watch the key is looked at on every round instead.
        if (!m_watching) OnSettingsNotification();
        break;
    }
  }
}

bool CAgentSupervisor::RestartDue() const {
  return static_cast<int32_t>(m_system.TickCount() - m_restartAt) >= 0;
}

uint32_t CAgentSupervisor::NextTimeout() const {
  uint32_t timeout = kInfinite;
  if (!m_agent && m_settings.Enabled()) {
    const int32_t left = static_cast<int32_t>(m_restartAt - m_system.TickCount());
    timeout = left > 0 ? static_cast<uint32_t>(left) : 0;
  }
  if (!m_watching) timeout = std::min(timeout, m_timings.watchRetryMs);
  return timeout;
}

void CAgentSupervisor::StartAgent() {
  // A stop request left from an earlier agent must not reach this one.
  if (const uint32_t rc = m_system.SetDesiredStatus(m_controlKey, kStatusRun); rc != 0) {
    m_log.Write(ServiceEvent::kControlFailed, EventKind::kError,
                "Cannot write the agent's desired status (" + Error(rc) +
                    "); it cannot be asked to re-read or stop.");
  }
  uint32_t error = 0;
  m_agent = m_system.StartAgent(AgentArguments(), error);
  m_startedAt = m_system.TickCount();
  if (!m_agent) {
    ++m_quickEnds;
    const uint32_t delay = RestartDelayMs(m_quickEnds, m_timings);
    m_restartAt = m_startedAt + delay;
    m_log.Write(
        ServiceEvent::kAgentStartFailed, EventKind::kError,
        "Cannot start the agent (" + Error(error) + "); next attempt in " + Seconds(delay) + ".");
    return;
  }
  m_log.Write(ServiceEvent::kAgentStarted, EventKind::kInformation,
              "Started the agent, process " + std::to_string(m_agent->Id()) + ".");
}

void CAgentSupervisor::OnAgentEnded() {
  const uint32_t now = m_system.TickCount();
  const uint32_t ran = now - m_startedAt;
  const std::string what = "The agent (process " + std::to_string(m_agent->Id()) +
                           ") ended by itself with exit code " +
                           std::to_string(m_agent->ExitCode()) + " after " + Seconds(ran);
  m_agent.reset();
  // A settings change ends a steadily running agent: start the next at once.
  // One that keeps ending at once waits longer each time.
  m_quickEnds = ran < m_timings.steadyRunMs ? m_quickEnds + 1 : 0;
  const uint32_t delay = RestartDelayMs(m_quickEnds, m_timings);
  m_restartAt = now + delay;
  m_log.Write(ServiceEvent::kAgentEnded, delay ? EventKind::kWarning : EventKind::kInformation,
              what + (delay ? "; a fresh one starts in " + Seconds(delay) + "."
                            : "; a fresh one starts now."));
}

void CAgentSupervisor::OnSettingsNotification() {
  // The notification is one-shot: arm it again before reading, so that a
  // change made while we read is not lost.
  const bool wasWatching = m_watching;
  m_watching = m_system.WatchSettings();
  if (wasWatching && !m_watching) {
    m_log.Write(ServiceEvent::kWatchFailed, EventKind::kWarning,
                "The settings key can no longer be watched; looking again every " +
                    Seconds(m_timings.watchRetryMs) + ".");
  }
  SettingsSnapshot now = m_system.ReadSettings();
  if (now == m_settings) return;  // e.g. the agent wrote its state value
  const bool wasEnabled = m_settings.Enabled();
  m_settings = std::move(now);

  if (wasEnabled && !m_settings.Enabled()) {
    m_log.Write(ServiceEvent::kDisabled, EventKind::kWarning, "Lindqvar was disabled");
    if (m_agent) StopAgent();
    return;
  }
  if (!wasEnabled && m_settings.Enabled()) {
    m_log.Write(ServiceEvent::kEnabled, EventKind::kInformation, "Lindqvar was enabled");
  }
  if (m_agent) {
    if (const uint32_t rc = m_system.SetDesiredStatus(m_controlKey, kStatusRun); rc != 0) {
      m_log.Write(ServiceEvent::kControlFailed, EventKind::kError,
                  "Cannot write the agent's desired status (" + Error(rc) + ").");
    }
    m_system.SignalControlEvent();
    m_log.Write(ServiceEvent::kAgentReread, EventKind::kInformation,
                "The settings changed; asked the agent to re-read them.");
  } else {
    // Waiting out a back-off: the new settings deserve a fresh try now.
    m_quickEnds = 0;
    m_restartAt = m_system.TickCount();
  }
}

void CAgentSupervisor::StopAgent() {
  if (const uint32_t rc = m_system.SetDesiredStatus(m_controlKey, kStatusStop); rc != 0) {
    m_log.Write(ServiceEvent::kControlFailed, EventKind::kError,
                "Cannot write the agent's desired status (" + Error(rc) + ").");
  }
  m_system.SignalControlEvent();
  const std::string pid = std::to_string(m_agent->Id());
  if (m_system.WaitAgent(*m_agent, m_timings.stopLimitMs)) {
    m_log.Write(ServiceEvent::kAgentStopped, EventKind::kInformation,
                "The agent (process " + pid + ") stopped with exit code " +
                    std::to_string(m_agent->ExitCode()) + ".");
  } else {
    m_agent->Terminate();
    m_system.WaitAgent(*m_agent, m_timings.stopLimitMs);
    // Its own last state write did not happen.
    m_system.WriteNotConfigured();
    m_log.Write(ServiceEvent::kAgentKilled, EventKind::kWarning,
                "The agent (process " + pid + ") did not stop within " +
                    Seconds(m_timings.stopLimitMs) + "; ended it by force.");
  }
  m_agent.reset();
}

}  // namespace lindqvar::service
