// The event message that reports a session to the servers: MSG_EVENT with
// one or two MSG_SESSION_INFO records, and the local log record written
// after each delivery attempt.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "identity/address_lists.h"
#include "protocol/codec.h"

namespace lindqvar {

class CTerminalSession;
class ISupportLibrary;


// Action codes of reported events.
inline constexpr uint32_t kActionLogon = 1;
inline constexpr uint32_t kActionLogoff = 2;
inline constexpr uint32_t kActionAddressChange = 3;
inline constexpr uint32_t kActionWakeup = 4;
inline constexpr uint32_t kActionKeepAlive = 5;

// The values of one record as they go on the wire (strings are upper-cased
// by the encoder).
struct SessionRecordFields {
  uint32_t logon = 0;
  std::string domain;
  std::string user;
  std::string workstation;
  std::string azureAccount;  // empty: not sent
  std::string deviceUuid;    // each of these three: empty, not sent
  std::string vrxSerial;
  std::string tenantId;
  IPv4List ipv4{};
  IPv6List ipv6{};
  uint32_t time = 0;  // seconds since 1970, low 32 bits
};

// Appends one MSG_SESSION_INFO group in the fixed attribute order.
void add_session_record(CEncoder& encoder, const SessionRecordFields& fields);

// What the agent knows of the machine for every record.
struct WorkstationFacts {
  std::string computerName;  // 8-bit
  std::string dnsDomain;     // the computer's DNS domain, may be empty
  uint32_t preferAzure = 0;
  std::string deviceUuid;
  std::string vrxSerial;
  std::string tenantId;
};

// The workstation name: computer name, ".", then the DNS domain when there
// is one, else the user's domain (so it may end in ".").
std::string WorkstationName(const WorkstationFacts& machine, const std::string& userDomain);

// One record for the session entry with the given addresses. The Azure AD
// account attribute carries the entry's Azure tenant id, which is set only
// when the lookup took the Azure answer; it is sent when the prefer-Azure
// setting is 1. `now` 0: the current time. Returns 1.
int build_session_record(CEncoder& encoder, const CTerminalSession& entry,
                         const WorkstationFacts& machine, const IPv4List& ipv4,
                         const IPv6List& ipv6, uint32_t logon, uint32_t now = 0);

// The facts of one delivery for its local log record.
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

// The "domain" text of the log record.
std::string SessionLogDomainText(const SessionLogRecord& record);

// Writes the record through LogW: event 96980, level 6, "action", "domain",
// "user".
void write_session_log(ISupportLibrary& support, const SessionLogRecord& record);

}  // namespace lindqvar
