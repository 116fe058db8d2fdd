// What the agent does with each session and power notification of its
// hidden window, and the one routine through which every session event is
// sent. Keeps the pair (m_bLogon, m_dwCurrentSession): whether, and for
// which session, a logon is reported to the servers.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "identity/address_discovery.h"
#include "identity/identifiers.h"
#include "platform/log.h"
#include "platform/session_window.h"
#include "platform/sessions.h"
#include "platform/support.h"
#include "platform/timings.h"
#include "protocol/messages/event.h"
#include "protocol/wire/encoder.h"
#include "session/event_delivery.h"
#include "session/session_table.h"

namespace lindqvar {

// Window messages and session-change codes the agent handles.
inline constexpr uint32_t kWmDestroy = 0x0002;
inline constexpr uint32_t kWmPowerBroadcast = 0x0218;
inline constexpr uint32_t kWmWtsSessionChange = 0x02B1;
inline constexpr uint64_t kPbtApmResumeSuspend = 7;
enum WtsCode : uint64_t {
  kWtsConsoleConnect = 1,
  kWtsConsoleDisconnect = 2,
  kWtsRemoteConnect = 3,
  kWtsRemoteDisconnect = 4,
  kWtsSessionLogon = 5,
  kWtsSessionLogoff = 6,
  kWtsSessionLock = 7,
  kWtsSessionUnlock = 8,
};

// What the manager found out about the machine, handed over whole at
// start-up and after every settings re-read.
struct WorkstationSnapshot {
  // Computer name, DNS domain and the prefer-Azure setting; the sender adds
  // the identifiers for each event.
  WorkstationFacts facts;
  // The first IPv4 address found at start-up (network byte order), for the
  // local delivery record.
  uint32_t localIPv4 = 0;
};

struct SessionEventParts {
  CLog& log;
  ISupportLibrary& support;
  ISessions& sessions;
  ISessionWindow& window;
  const Timings& timings;
  CSessionTable& table;
  CAddressDiscovery& addresses;
  CIdentifiers& identifiers;
  IEventDelivery& delivery;
};

class CSessionEvents {
 public:
  explicit CSessionEvents(const SessionEventParts& parts) : m(parts) {}

  // The hidden window's procedure. Runs on the notification thread.
  int64_t WindowProc(uint32_t message, uint64_t wParam, int64_t lParam);

  // Sends one event for the session (logon 1 reports the user, 0 withdraws
  // it; wakeup 1 marks a resume). 1 when a server acknowledged it.
  uint32_t SendSessionEvent(uint32_t session, uint32_t logon, uint32_t wakeup);

  // The keep-alive report, and the re-send of the logon report, for the
  // session reported as logged on: nothing while none is, or while the
  // machine has no address.
  void SendKeepAliveEvent();
  void ResendLogonEvent();
  // One round of the address-change check: when the addresses changed and
  // an IPv4 address is left, reports the new set for the session reported
  // as logged on (nothing while none is). Holds the table lock throughout,
  // its delivery included, like every other report.
  void CheckAddressChange();

  // Log lines with a "TICC" variant use it while this is on (the default).
  void SetTickLogging(bool on) { m_bLogTickCount = on ? 1 : 0; }
  // Takes its own lock, never the table lock: a settings re-read must not
  // wait for a delivery in progress.
  void SetWorkstation(const WorkstationSnapshot& workstation);

  // The re-send state: pending after a failed delivery (or an event that
  // found no address to report) until a delivery succeeds; the tries count
  // the re-sends since the last ordinary delivery.
  uint32_t ResendPending() const { return m_bResendPending.load(); }
  uint32_t ResendTries() const { return m_dwResendTries.load(); }

  uint32_t Logon() const { return m_bLogon.load(); }
  uint32_t CurrentSession() const { return m_dwCurrentSession.load(); }
  // The addresses of the last successful send that carried a change.
  AddressSet LastSent();

 private:
  void OnSessionChange(uint64_t code, uint32_t session, uint32_t tid);
  void OnResume(uint32_t tid);
  // The "Received message <name>, session id:..." line in its variant.
  void LogReceived(const char* name, uint32_t session, uint32_t tid);
  void LogBeforeAfter(const char* when, const char* name);
  // Logoff of the session reported as logged on, when there is one.
  void WithdrawCurrent();
  // When the session's user is on the ExcludedUsers list (which may have
  // changed since the session was added): withdraws the session if it is
  // the one reported and drops it from the table. True when excluded.
  bool SetAsideIfExcluded(uint32_t session);
  bool AddressesChanged(const AddressSet& now) const;
  // The reports, each with its own rule for withdrawing the last sent set.
  enum class ReportPath { kLogonOrWakeup, kLogoff, kKeepAlive, kAddressChange };
  // The event of one report for the entry: the record that withdraws the
  // last sent set when the path's rule asks for it, then the record of the
  // current set with the given logon flag.
  void BuildReport(CEncoder& event, ReportPath path, const CTerminalSession& entry,
                   const AddressSet& now, bool changed, uint32_t logon);
  // The keep-alive and re-send report.
  void SendCurrentSession(const char* routine, int line, bool resend);
  // One delivery pass, keeping the re-send state: an ordinary delivery
  // starts it afresh, a re-send counts one more try; afterwards success
  // clears it and failure leaves it pending.
  DeliveryResult Deliver(uint32_t session, const CEncoder& event, bool resend);
  // No address to report: the re-send timer is to try again.
  void RequestResend();
  // Gathers the reportable addresses.
  AddressSet GatherAddresses();
  // The identifiers and the machine's facts for a record.
  WorkstationFacts Machine();
  void WriteSessionLog(uint32_t action, const CTerminalSession& entry,
                       const DeliveryResult& result);

  SessionEventParts m;
  uint32_t m_bLogTickCount = 1;
  // Written only under the table lock; the window procedure reads them
  // without it.
  std::atomic<uint32_t> m_bLogon{0};
  std::atomic<uint32_t> m_dwCurrentSession{0};
  AddressSet m_last;  // guarded by the table lock
  WorkstationSnapshot Workstation() const;
  mutable std::mutex m_workstationLock;
  WorkstationSnapshot m_workstation;  // guarded by m_workstationLock
  std::atomic<uint32_t> m_bResendPending{0};
  std::atomic<uint32_t> m_dwResendTries{0};
};

}  // namespace lindqvar
