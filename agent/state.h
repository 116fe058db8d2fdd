// The agent's reachability state, published as a DWORD in the registry
// where the endpoint client reads it.
#pragma once

#include <cstdint>

namespace lindqvar {

class CLog;
class IRegistry;

enum AgentState : uint32_t {
  kNotConfigured = 0,
  kConfiguredUnreachable = 1,
  kConfiguredReachable = 2,
};

inline constexpr char16_t kAgentKeyPath[] = u"software\\Orvane\\Velmora\\FA_LINDQ";
inline constexpr char kAgentKeyPathA[] = "software\\Orvane\\Velmora\\FA_LINDQ";
inline constexpr char16_t kStateValueName[] = u"LINDQState";

// "NOT_CONFIGURED", "CONFIGURED_UNREACHABLE", "CONFIGURED_REACHABLE" or
// "Unknown".
const char* StateName(uint32_t state);

// Writes the state to the agent's key (opened, never created) and logs the
// outcome. Failures are logged and otherwise ignored.
void WriteState(IRegistry& registry, CLog& log, uint32_t state);

// Reads the state last written, from the view WriteState writes to. False
// when the key or a DWORD value is missing (the agent has not run, or it
// cannot write its key).
bool ReadState(IRegistry& registry, uint32_t& state);

}  // namespace lindqvar
