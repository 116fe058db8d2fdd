// The service's work: it plays the agent's parent. It creates the named
// control event, starts the agent with "-s <event name>", asks it to re-read
// its settings when the settings key changes, starts a fresh agent when one
// ends by itself (with a growing delay when it keeps ending at once), and on
// a stop asks the agent to stop, ending it by force after a limit.
//
// Everything the system does for it comes through ISupervisorSystem, so the
// logic runs natively with a scripted fake; service/win32/ has the real one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "service/settings_snapshot.h"

namespace lindqvar::service {

// The control event the service creates and names on the agent's command
// line. The agent's control key is the part behind the last "_": the desired
// status is the value "Service" under DesiredStatus\25.
inline constexpr char kControlEventName[] = "Global\\LindqvarAgent_Service";

// Desired-status values the service writes: 3 asks the agent to stop; any
// other value asks it to re-read its settings when the event is signalled.
inline constexpr uint32_t kStatusRun = 1;
inline constexpr uint32_t kStatusStop = 3;
inline constexpr uint32_t kErrorAlreadyExists = 183;  // ERROR_ALREADY_EXISTS

// Every wait of the supervisor; the defaults are the product's values.
struct SupervisorTimings {
  uint32_t stopLimitMs = 20000;         // asked to stop, the agent has this long to end
  uint32_t steadyRunMs = 20000;         // an agent that ran less ended "at once"
  uint32_t firstRestartDelayMs = 1000;  // after the first end at once; doubles each time
  uint32_t maxRestartDelayMs = 300000;  // the back-off's ceiling
  uint32_t watchRetryMs = 5000;         // between attempts to watch a missing settings key
};

// Ids of the service's event-log entries (source "LindqvarAgent"). 96981 and
// 96982 are the agent catalogue's "enabled" and "disabled" events, which the
// parent writes.
enum class ServiceEvent : uint32_t {
  kServiceStarted = 100,
  kServiceStopped = 101,
  kAgentStarted = 102,
  kAgentEnded = 103,    // ended by itself; a fresh one follows
  kAgentReread = 104,   // asked to re-read its settings
  kAgentStopped = 105,  // ended after a stop request
  kAgentKilled = 106,   // did not end within the limit: ended by force
  kAgentStartFailed = 107,
  kControlFailed = 108,       // the control event or the desired status cannot be set
  kWatchFailed = 109,         // the settings key cannot be watched (yet)
  kLogFileRefused = 110,      // the log file is a link or not a plain file
  kControlEventExists = 111,  // the control event's name is taken: refused
  kEnabled = 96981,
  kDisabled = 96982,
};

enum class EventKind { kInformation, kWarning, kError };

// The Windows event log (and its copy in the service's log file).
class IServiceLog {
 public:
  virtual ~IServiceLog() = default;
  virtual void Write(ServiceEvent id, EventKind kind, const std::string& text) = 0;
};

// One running agent process.
class IAgentProcess {
 public:
  virtual ~IAgentProcess() = default;
  virtual uint32_t Id() const = 0;
  // The exit code, once the process has ended.
  virtual uint32_t ExitCode() const = 0;
  virtual void Terminate() = 0;
};

enum class Wake { kStop, kSettingsChanged, kAgentEnded, kTimeout };

class ISupervisorSystem {
 public:
  virtual ~ISupervisorSystem() = default;
  // Creates the named automatic-reset control event, SYSTEM and
  // Administrators only (error code on failure; kErrorAlreadyExists, with
  // nothing kept, when another process made it first).
  virtual uint32_t CreateControlEvent(const std::string& name) = 0;
  virtual void SignalControlEvent() = 0;
  // Writes the desired status under DesiredStatus\25, value `key`.
  virtual uint32_t SetDesiredStatus(const std::string& key, uint32_t status) = 0;
  // Starts the agent program with `arguments`; null and an error code on failure.
  virtual std::unique_ptr<IAgentProcess> StartAgent(const std::string& arguments,
                                                    uint32_t& error) = 0;
  // Arms (again) the one-shot change notification of the settings key; false
  // when the key cannot be watched now (it does not exist).
  virtual bool WatchSettings() = 0;
  virtual SettingsSnapshot ReadSettings() = 0;
  // Waits for the first of: a stop request, the settings notification, the
  // end of `agent` (when not null), `milliseconds` passing.
  virtual Wake Wait(IAgentProcess* agent, uint32_t milliseconds) = 0;
  // Waits up to `milliseconds` for `agent` to end only; true when it ended.
  virtual bool WaitAgent(IAgentProcess& agent, uint32_t milliseconds) = 0;
  virtual uint32_t TickCount() = 0;
  // Writes LINDQState NOT_CONFIGURED: the agent does so when it ends, except
  // when it had to be ended by force.
  virtual void WriteNotConfigured() = 0;
};

// The delay before the fresh agent after `quickEnds` ends at once in a row
// (0: the last agent ran steadily, start at once).
uint32_t RestartDelayMs(uint32_t quickEnds, const SupervisorTimings& timings);

// The agent's arguments: "-s" and the control event's name.
std::string AgentArguments();

class CAgentSupervisor {
 public:
  CAgentSupervisor(ISupervisorSystem& system, IServiceLog& log, SupervisorTimings timings = {});

  // Runs until the system reports a stop request; the agent has ended when
  // it returns. Returns 0, or the error code when the control event cannot
  // be created (no agent is started then).
  uint32_t Run();

 private:
  void StartAgent();
  void OnAgentEnded();
  void OnSettingsNotification();
  void StopAgent();
  bool RestartDue() const;
  uint32_t NextTimeout() const;

  ISupervisorSystem& m_system;
  IServiceLog& m_log;
  const SupervisorTimings m_timings;
  const std::string m_controlKey;
  std::unique_ptr<IAgentProcess> m_agent;
  SettingsSnapshot m_settings;
  bool m_watching = false;
  uint32_t m_startedAt = 0;  // tick count of the running agent's start
  uint32_t m_restartAt = 0;  // tick count from which the next agent may start
  uint32_t m_quickEnds = 0;  // agents in a row that ended at once
};

}  // namespace lindqvar::service
