// The local record of one event delivery, written to the event log after
// every delivery attempt of a logon/logoff, address-change or keep-alive
// event.
#pragma once

#include <cstdint>
#include <string>

namespace lindqvar {

class ISupportLibrary;

// Action codes of reported events.
inline constexpr uint32_t kActionLogon = 1;
inline constexpr uint32_t kActionLogoff = 2;
inline constexpr uint32_t kActionAddressChange = 3;
inline constexpr uint32_t kActionWakeup = 4;
inline constexpr uint32_t kActionKeepAlive = 5;

struct SessionLogRecord {
  uint32_t action = 0;
  std::string domain;        // the user's
  std::string user;
  std::string computerName;
  uint32_t localIPv4 = 0;    // network byte order
  uint32_t serverIPv4 = 0;   // network byte order
  bool delivered = false;
  bool tickLogging = true;   // TICC variant
  uint32_t tickCount = 0;
  uint32_t threadId = 0;
};

// The "domain" text of the record.
std::string SessionLogDomainText(const SessionLogRecord& record);

// Writes the record through LogW: event 96980, level 6, "action", "domain",
// "user".
void write_session_log(ISupportLibrary& support, const SessionLogRecord& record);

}  // namespace lindqvar
