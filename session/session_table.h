// The table of known sessions, each with the user worked out for it, and the
// list of sessions announced by a logon whose user was not yet known, which
// a background thread retries.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "identity/terminal_session.h"
#include "platform/log.h"
#include "session/user_exclusions.h"

namespace lindqvar {

class CSessionTable {
 public:
  CSessionTable(CLog& log, const UserLookup& system) : m_log(log), m_system(system) {}
  virtual ~CSessionTable() = default;
  CSessionTable(const CSessionTable&) = delete;
  CSessionTable& operator=(const CSessionTable&) = delete;

  // The prefer-Azure setting of the lookups from now on.
  void SetPreferAzure(uint32_t preferAzure) { m_preferAzure.store(preferAzure); }

  // The session-table lock. Re-entrant: every operation below takes it even
  // when the caller holds it, and a send holds it from start to end. The
  // pending-list lock may be held while it is taken, never the reverse.
  std::recursive_mutex& Lock() { return m_csSessions; }

  // The first record of the session, walking the slots in index order.
  CTerminalSession* FindSession(uint32_t session);
  // 1 the session is (now) in the table, 0 no user could be determined (or
  // memory ran out), 2 the session is not ready, kExcluded its user is on
  // the ExcludedUsers list (the session is not added).
  uint32_t AddSession(uint32_t session);
  static constexpr uint32_t kExcluded = 3;

  // The ExcludedUsers list; sessions already in the table are checked
  // against it by the next event that concerns them (IsExcluded).
  void SetExclusions(CUserExclusions exclusions);
  // Whether the session is in the table and its user is on the list (then
  // logged, naming the user and the pattern).
  bool IsExcluded(uint32_t session);
  // Whether the list names the record's user, without a log line.
  bool Excludes(const CTerminalSession& record);
  // 1 when a record was removed. Its slot is reused by a later add.
  uint32_t RemoveSession(uint32_t session);

  // Whether the slot array was ever allocated (the first successful add).
  bool Allocated();
  uint32_t Slots();
  // The slot holding the session, -1 when none does.
  int SlotOf(uint32_t session);
  // Slot counts of the first allocation and of each growth.
  static constexpr uint32_t kInitialSlots = 10;
  static constexpr uint32_t kGrowSlots = 10;

  // The pending list: insertion order, no duplicate check.
  void AddPendingSession(uint32_t session);
  // Drops the first record of the session.
  void RemovePendingSession(uint32_t session);
  void ClearPendingSessions();
  size_t PendingSessionCount();

  // One round of the retry thread, under the pending-list lock: each record
  // is added again; a ready one is handed to `sendLogon` and dropped, one
  // without a user is dropped, one still not ready is kept until its 30th
  // try.
  void RetryPendingSessions(const std::function<void(uint32_t session)>& sendLogon);
  static constexpr uint32_t kMaxPendingTries = 30;

 protected:
  // Fills a new record for the session: 1 found, 0 no user, 2 or 3 the
  // session is not ready yet (which the lookups of identity/ never answer).
  virtual uint32_t LoadUser(CTerminalSession& record, uint32_t session);

 private:
  struct PendingSession {
    uint32_t session;
    uint32_t tries;
  };

  // The pattern excluding the record's user, logged; null when none does.
  const CUserExclusions::Pattern* Excluding(const CTerminalSession& record);

  CLog& m_log;
  const UserLookup m_system;
  std::atomic<uint32_t> m_preferAzure{0};
  CUserExclusions m_exclusions;  // guarded by the table lock

  std::recursive_mutex m_csSessions;
  // Null slots are free; the array never shrinks. Empty until the first
  // successful add.
  std::vector<std::unique_ptr<CTerminalSession>> m_pSessions;

  std::recursive_mutex m_csPending;
  std::list<PendingSession> m_pending;
};

}  // namespace lindqvar
