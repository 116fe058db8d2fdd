// Every wait and sleep of the agent. The defaults are the product's values;
// the product never reads other values from anywhere, tests construct short
// ones.
#pragma once

#include <cstdint>

namespace lindqvar {

struct Timings {
  uint32_t startupDelayMs = 10000;        // before the start-up sequence
  uint32_t pumpIntervalMs = 10;           // notification thread: stop-event wait between drains
  uint32_t threadExitPollMs = 20;         // Stop: between looks at a thread's exit code
  uint32_t processEndGraceMs = 2000;      // settings change: longest wait for the workers to end
  uint32_t resendPeriodMs = 10000;        // re-send timer
  uint32_t pendingRetryPeriodMs = 10000;  // pending-session retry
  uint32_t addressRoundWaitMs = 5000;     // address-change handling: between rounds
  uint32_t addressWaitRetryMs = 1000;     // address-change threads: pause after a failed wait
  uint32_t wakeupRetryMs = 1000;          // resume from sleep: between attempts
  uint32_t keepAliveUnitMs = 1000;        // keep-alive interval is in seconds
  uint32_t connectPolls = 20;             // TLS connect: select rounds
  uint32_t connectPollUs = 100000;        //   each of 100 ms
  uint32_t socketTimeoutMs = 5000;        // send and receive limits: each message, and the TLS
                                          //   handshake, as a whole
  uint32_t exchangeLimitMs = 20000;       // one exchange with one server as a whole, from the
                                          //   connect to the close (NTLM relay included)
  uint32_t consoleIdlePolls = 50;         // console program reader: empty polls before it ends
  uint32_t consoleIdlePollMs = 100;       //   one apart
};

}  // namespace lindqvar
