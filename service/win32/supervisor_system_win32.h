// The supervisor's system calls on Windows: the named control event, the
// desired status in the registry, the agent process (in a job object that
// ends it with the service), the change notification of the settings key,
// and the waits on all of them.
#pragma once

#include <string>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"
#include "service/supervisor.h"

namespace lindqvar::service {

class CSupervisorSystemWin32 : public ISupervisorSystem {
 public:
  // `agentPath`: the agent program. `stop`: a manual-reset event that the
  // service's control handler sets; not owned.
  CSupervisorSystemWin32(std::wstring agentPath, HANDLE stop);

  uint32_t CreateControlEvent(const std::string& name) override;
  void SignalControlEvent() override;
  uint32_t SetDesiredStatus(const std::string& key, uint32_t status) override;
  std::unique_ptr<IAgentProcess> StartAgent(const std::string& arguments, uint32_t& error) override;
  bool WatchSettings() override;
  SettingsSnapshot ReadSettings() override;
  Wake Wait(IAgentProcess* agent, uint32_t milliseconds) override;
  bool WaitAgent(IAgentProcess& agent, uint32_t milliseconds) override;
  uint32_t TickCount() override;
  void WriteNotConfigured() override;

 private:
  std::wstring m_agentPath;
  HANDLE m_stop;
  win32::ScopedHandle m_control;          // the agent's named control event
  win32::ScopedRegKey m_settingsKey;      // open while watched
  win32::ScopedHandle m_settingsChanged;  // set by the key's change notification
  win32::ScopedHandle m_job;              // ends the agent when the service ends
};

}  // namespace lindqvar::service
