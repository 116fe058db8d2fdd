// Terminal-services sessions as the agent sees them.
#pragma once

#include <cstdint>
#include <vector>

namespace lindqvar {

inline constexpr uint32_t kNoSession = 0xFFFFFFFFu;

enum class SessionState : uint32_t {  // WTS_CONNECTSTATE_CLASS
  kActive = 0,
  kConnected = 1,
  kConnectQuery = 2,
  kShadow = 3,
  kDisconnected = 4,
  kIdle = 5,
  kListen = 6,
  kReset = 7,
  kDown = 8,
  kInit = 9,
};

struct SessionInfo {
  uint32_t id = 0;
  SessionState state = SessionState::kDown;
};

class ISessions {
 public:
  virtual ~ISessions() = default;
  // WTSEnumerateSessionsW on the local server. False on failure.
  virtual bool Enumerate(std::vector<SessionInfo>& sessions) = 0;
  // WTSGetActiveConsoleSessionId; kNoSession when there is none.
  virtual uint32_t ActiveConsoleSession() = 0;
};

}  // namespace lindqvar
