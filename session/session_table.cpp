#include "session/session_table.h"

#include <new>

#include "platform/os.h"

namespace lindqvar {

CTerminalSession* CSessionTable::FindSession(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  for (const auto& record : m_pSessions) {
    if (record && record->SessionId() == session) return record.get();
  }
  return nullptr;
}

int CSessionTable::SlotOf(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  for (size_t i = 0; i < m_pSessions.size(); ++i) {
    if (m_pSessions[i] && m_pSessions[i]->SessionId() == session) return static_cast<int>(i);
  }
  return -1;
}

bool CSessionTable::Allocated() {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  return !m_pSessions.empty();
}

uint32_t CSessionTable::Slots() {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  return static_cast<uint32_t>(m_pSessions.size());
}

uint32_t CSessionTable::LoadUser(CTerminalSession& record, uint32_t session) {
  return LoadSessionUser(m_system, record, session, m_log, m_preferAzure.load());
}

uint32_t CSessionTable::AddSession(uint32_t session) {
  m_log.Debug("CSessionManager::AddSession has been called, dwSession:%d",
              static_cast<int>(session));
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  if (FindSession(session)) {
    m_log.Debug("session ID:%d has found in session table", static_cast<int>(session));
    return 1;
  }

  auto record = std::make_unique<CTerminalSession>();
  const uint32_t r = LoadUser(*record, session);
  if (r == 0) return 0;
  if (r == 2 || r == 3) return 2;
  // Matched against the names that would be sent, after the lookup chose
  // between the domain account and the Azure AD one.
  if (Excluding(*record)) return kExcluded;

  try {
    if (m_pSessions.empty()) m_pSessions.resize(kInitialSlots);
    size_t slot = 0;
    while (slot < m_pSessions.size() && m_pSessions[slot]) ++slot;
    if (slot == m_pSessions.size()) {
      // A new array of the grown size; the old one stays as it was when
      // that allocation fails.
      std::vector<std::unique_ptr<CTerminalSession>> grown(m_pSessions.size() + kGrowSlots);
      for (size_t i = 0; i < m_pSessions.size(); ++i) grown[i] = std::move(m_pSessions[i]);
      m_pSessions.swap(grown);
    }
    m_pSessions[slot] = std::move(record);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  m_log.Debug("session ID:%d has added to session table\n", static_cast<int>(session));
  return 1;
}

void CSessionTable::SetExclusions(CUserExclusions exclusions) {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  m_exclusions = std::move(exclusions);
}

bool CSessionTable::IsExcluded(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  const CTerminalSession* record = m_exclusions.Empty() ? nullptr : FindSession(session);
  return record && Excluding(*record);
}

bool CSessionTable::Excludes(const CTerminalSession& record) {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  return m_exclusions.Match(record.UserName(), record.Domain()) != nullptr;
}

const CUserExclusions::Pattern* CSessionTable::Excluding(const CTerminalSession& record) {
  const CUserExclusions::Pattern* pattern = m_exclusions.Match(record.UserName(), record.Domain());
  if (pattern)
    m_log.Debug("session %d of %s\\%s is not reported: its user matches ExcludedUsers entry %s",
                static_cast<int>(record.SessionId()), record.Domain().c_str(),
                record.UserName().c_str(), WideToUtf8(pattern->text).c_str());
  return pattern;
}

uint32_t CSessionTable::RemoveSession(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_csSessions);
  for (auto& record : m_pSessions) {
    if (record && record->SessionId() == session) {
      record.reset();
      return 1;
    }
  }
  return 0;
}

void CSessionTable::AddPendingSession(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_csPending);
  m_pending.push_back({session, 0});
}

void CSessionTable::RemovePendingSession(uint32_t session) {
  std::lock_guard<std::recursive_mutex> lock(m_csPending);
  for (auto it = m_pending.begin(); it != m_pending.end(); ++it) {
    if (it->session == session) {
      m_pending.erase(it);
      return;
    }
  }
}

void CSessionTable::ClearPendingSessions() {
  std::lock_guard<std::recursive_mutex> lock(m_csPending);
  m_pending.clear();
}

size_t CSessionTable::PendingSessionCount() {
  std::lock_guard<std::recursive_mutex> lock(m_csPending);
  return m_pending.size();
}

void CSessionTable::RetryPendingSessions(const std::function<void(uint32_t)>& sendLogon) {
  std::lock_guard<std::recursive_mutex> lock(m_csPending);
  for (auto it = m_pending.begin(); it != m_pending.end();) {
    const uint32_t r = AddSession(it->session);
    if (r == 1) {
      sendLogon(it->session);
      it = m_pending.erase(it);
    } else if (r == 0 || r == kExcluded) {
      it = m_pending.erase(it);
    } else if (++it->tries >= kMaxPendingTries) {
      m_log.Debug("Failed to get session information, session:%d", static_cast<int>(it->session));
      it = m_pending.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace lindqvar
