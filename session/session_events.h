// The reports of session events: the one routine through which a session
// notification's event is sent, the keep-alive, the re-send of a failed
// report and the report of changed addresses. Keeps the pair (m_bLogon,
// m_dwCurrentSession): whether, and for which session, a logon is reported
// to the servers; the addresses last sent; the re-send state; and, with the
// opt-in ResendLogoff, the logoffs that reached no server. Every report is
// made whole under the session-table lock, its delivery included, so that
// reports reach the servers in the order they were made.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

#include "identity/address_discovery.h"
#include "identity/identifiers.h"
#include "platform/log.h"
#include "platform/support.h"
#include "session/event_delivery.h"
#include "session/event_report.h"
#include "session/session_table.h"

namespace lindqvar {

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

class CSessionEvents {
 public:
  CSessionEvents(CLog& log, ISupportLibrary& support, CSessionTable& table,
                 CAddressDiscovery& addresses, CIdentifiers& identifiers, IEventDelivery& delivery)
      : m_log(log),
        m_support(support),
        m_table(table),
        m_addresses(addresses),
        m_identifiers(identifiers),
        m_delivery(delivery) {}

  // Sends one event for the session (logon 1 reports the user, 0 withdraws
  // it; wakeup 1 marks a resume). 1 when a server acknowledged it.
  uint32_t SendSessionEvent(uint32_t session, uint32_t logon, uint32_t wakeup);

  // The keep-alive report, and the re-send of the logon report, for the
  // session reported as logged on: nothing while none is, or while the
  // machine has no address.
  void SendKeepAliveEvent();
  void ResendLogonEvent();
  // One round of the re-send timer for the kept logoffs (ResendLogoff),
  // oldest first: each is sent again as it was; a delivered one is dropped,
  // a failure counts a try and ends the round, and the kResendTries-th
  // failure drops it. Touches neither the logon re-send state nor
  // (m_bLogon, m_dwCurrentSession) nor the last sent set. Nothing at all
  // while none is kept.
  void ResendLogoffEvents();
  // One round of the address-change check: when the addresses changed and
  // an IPv4 address is left, reports the new set for the session reported
  // as logged on (nothing while none is).
  void CheckAddressChange();

  // When the session's user is on the ExcludedUsers list (which may have
  // changed since the session was added): withdraws the session if it is
  // the one reported and drops it from the table. True when excluded.
  bool SetAsideIfExcluded(uint32_t session);

  // Log lines with a "TICC" variant use it while this is on (the default).
  void SetTickLogging(bool on) { m_bLogTickCount = on ? 1 : 0; }
  bool TickLogging() const { return m_bLogTickCount != 0; }
  // Takes its own lock, never the table lock: a settings re-read must not
  // wait for a delivery in progress.
  void SetWorkstation(const WorkstationSnapshot& workstation);

  // The opt-in ResendLogoff: while on, a logoff that reached no server is
  // kept for ResendLogoffEvents. Takes no lock (a settings re-read must not
  // wait for a delivery); the kept logoffs go at the next round once off.
  void SetResendLogoff(bool on);
  bool ResendLogoff() const { return m_resendLogoff.load(); }
  // Re-sends of one report before the re-send timer gives up on it.
  static constexpr uint32_t kResendTries = 20;
  // Kept logoffs at most; one more drops the oldest.
  static constexpr size_t kMaxKeptLogoffs = 10;

  // The re-send state: pending after a failed delivery (or an event that
  // found no address to report) until a delivery succeeds; the tries count
  // the re-sends since the last ordinary delivery.
  uint32_t ResendPending() const { return m_bResendPending.load(); }
  uint32_t ResendTries() const { return m_dwResendTries.load(); }

  uint32_t Logon() const { return m_bLogon.load(); }
  uint32_t CurrentSession() const { return m_dwCurrentSession.load(); }

 private:
  // The keep-alive and re-send report.
  void SendCurrentSession(const char* routine, int line, bool resend);
  // One report of the entry at the addresses `now`: builds its message,
  // delivers it and keeps the re-send state (an ordinary delivery starts it
  // afresh, a re-send counts one more try; afterwards success clears it and
  // failure leaves it pending). A delivered change becomes the last sent set.
  DeliveryResult Report(ReportKind kind, uint32_t session, const CTerminalSession& entry,
                        const AddressSet& now, bool resend);
  // No address to report: the re-send timer is to try again.
  void RequestResend();
  AddressSet GatherAddresses();
  // A logoff of the session's entry at `addresses` that reached no server:
  // kept while ResendLogoff is on, unless its user is excluded or one of
  // the same user at the same addresses is kept already (that one starts
  // its tries afresh).
  void KeepLogoff(uint32_t session, const AddressSet& addresses);
  // Drops the kept logoffs of the entry's user (all of them when null),
  // with one line each naming `why`.
  void DropKeptLogoffs(const CTerminalSession* user, const char* why);
  // The identifiers and the machine's facts for a record.
  WorkstationFacts Machine();
  WorkstationSnapshot Workstation() const;
  void WriteSessionLog(ReportKind kind, const CTerminalSession& entry,
                       const DeliveryResult& result);

  CLog& m_log;
  ISupportLibrary& m_support;
  CSessionTable& m_table;
  CAddressDiscovery& m_addresses;
  CIdentifiers& m_identifiers;
  IEventDelivery& m_delivery;
  uint32_t m_bLogTickCount = 1;
  // Written only under the table lock; the notification handling reads them
  // without it.
  std::atomic<uint32_t> m_bLogon{0};
  std::atomic<uint32_t> m_dwCurrentSession{0};
  AddressSet m_last;  // guarded by the table lock
  mutable std::mutex m_workstationLock;
  WorkstationSnapshot m_workstation;  // guarded by m_workstationLock
  std::atomic<uint32_t> m_bResendPending{0};
  std::atomic<uint32_t> m_dwResendTries{0};

  struct KeptLogoff {
    uint32_t session;        // for the log lines
    CTerminalSession entry;  // the departed user, as last reported
    AddressSet addresses;    // those of the logoff that failed
    uint32_t tries;          // re-sends so far
  };
  std::atomic<bool> m_resendLogoff{false};
  // Guarded by the table lock; the count is read without it.
  std::deque<KeptLogoff> m_keptLogoffs;
  std::atomic<size_t> m_keptCount{0};
};

}  // namespace lindqvar
