// MSG_EVENT, the report of a session to the servers: one or two
// MSG_SESSION_INFO records, each saying who is logged on (or withdrawn) at
// this workstation from which addresses; the server's MSG_EVENT_ACK; and
// the local log record written after each delivery attempt.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "identity/address_lists.h"
#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"

namespace lindqvar {

class CTerminalSession;
class ISupportLibrary;

// The value of ATTR_FIXED_VALUE in every record.
inline constexpr uint32_t kSessionRecordFixedValue = 4096;

struct SessionRecord {
  uint32_t logon = 0;  // 1 reports the user, 0 withdraws the addresses
  uint32_t fixedValue = kSessionRecordFixedValue;
  // Strings go out upper-cased by the encoder.
  std::string domain{};
  std::string user{};
  std::string workstation{};
  std::string azureAccount{};  // each of these four: empty, not sent
  std::string deviceUuid{};
  std::string vrxSerial{};
  std::string tenantId{};
  std::vector<uint32_t> ipv4{};     // network byte order; 0 entries are not sent
  std::vector<IPv6Address> ipv6{};  // entries whose first 16-bit word is 0 are not sent
  uint32_t time = 0;                // seconds since 1970, low 32 bits

  // Appends one MSG_SESSION_INFO group in the fixed attribute order (to an
  // open MSG_EVENT).
  void Write(CEncoder& encoder) const;
  // The addresses as text ("192.0.2.10", "2001:db8::7").
  std::vector<std::string> IPv4Text() const;
  std::vector<std::string> IPv6Text() const;
};

struct EventMessage {
  std::vector<SessionRecord> records;

  void Write(CEncoder& encoder) const;
  // False when the message is not an event. Attributes outside a record
  // are skipped.
  bool Read(CDecoder& decoder);
};

// The event result that asks for NTLM proof of the session's user.
inline constexpr uint32_t kEventResultNtlmRequired = 2;

struct EventAck {
  uint32_t result = 0;
  uint32_t keepAliveInterval = 0;  // seconds; 0: none (ATTR_KEEPALIVE_INTERVAL not written)

  void Write(CEncoder& encoder) const;
  // False when the message is not an event acknowledgement. The last result
  // wins, and the last interval that is not 0.
  bool Read(CDecoder& decoder);
};

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

// Appends the record of the session entry with the given addresses. The
// Azure AD account attribute carries the entry's Azure tenant id, which is
// set only when the lookup took the Azure answer; it is sent when the
// prefer-Azure setting is 1. `now` 0: the current time. Returns 1.
int build_session_record(CEncoder& encoder, const CTerminalSession& entry,
                         const WorkstationFacts& machine, const IPv4List& ipv4,
                         const IPv6List& ipv6, uint32_t logon, uint32_t now = 0);

// Action codes of reported events.
inline constexpr uint32_t kActionLogon = 1;
inline constexpr uint32_t kActionLogoff = 2;
inline constexpr uint32_t kActionAddressChange = 3;
inline constexpr uint32_t kActionWakeup = 4;
inline constexpr uint32_t kActionKeepAlive = 5;

// The facts of one delivery for its local log record.
struct SessionLogRecord {
  uint32_t action = 0;
  std::string domain;  // the user's
  std::string user;
  std::string computerName;
  uint32_t localIPv4 = 0;   // network byte order
  uint32_t serverIPv4 = 0;  // network byte order
  bool delivered = false;
  bool tickLogging = true;  // TICC variant
  uint32_t tickCount = 0;
  uint32_t threadId = 0;
};

// The "domain" text of the log record.
std::string SessionLogDomainText(const SessionLogRecord& record);

// Writes the record through LogW: event 96980, level 6, "action", "domain",
// "user".
void write_session_log(ISupportLibrary& support, const SessionLogRecord& record);

}  // namespace lindqvar
