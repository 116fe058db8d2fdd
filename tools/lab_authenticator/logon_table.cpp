#include "tools/lab_authenticator/logon_table.h"

#include <algorithm>

namespace lindqvar::lab {

namespace {

bool SameUser(const LogonEntry& e, const SessionRecord& r) {
  return e.domain == r.domain && e.user == r.user && e.workstation == r.workstation;
}

void Remove(std::vector<std::string>& from, const std::string& address) {
  from.erase(std::remove(from.begin(), from.end(), address), from.end());
}

std::string Clock(std::time_t t) {
  std::tm tm{};
#ifdef _WIN32
  localtime_s(&tm, &t);
#else
  localtime_r(&t, &tm);
#endif
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

}  // namespace

void CLogonTable::Apply(const SessionRecord& record, const std::string& agent, std::time_t now) {
  std::vector<std::string> addresses = record.IPv4Text();
  const std::vector<std::string> ipv6 = record.IPv6Text();
  addresses.insert(addresses.end(), ipv6.begin(), ipv6.end());

  if (record.logon) {
    std::vector<LogonEntry> next;
    bool found = false;
    for (auto& e : m_entries) {
      if (SameUser(e, record)) {
        found = true;
        e.azureAccount = record.azureAccount;
        e.addresses = addresses;
        e.agent = agent;
        e.lastSeen = now;
        next.push_back(std::move(e));
        continue;
      }
      const bool hadAddresses = !e.addresses.empty();
      for (const auto& a : addresses) Remove(e.addresses, a);
      if (hadAddresses && e.addresses.empty()) continue;  // its last address moved to this user
      next.push_back(std::move(e));
    }
    if (!found) {
      LogonEntry e;
      e.domain = record.domain;
      e.user = record.user;
      e.workstation = record.workstation;
      e.azureAccount = record.azureAccount;
      e.addresses = addresses;
      e.agent = agent;
      e.since = now;
      e.lastSeen = now;
      next.push_back(std::move(e));
    }
    m_entries.swap(next);
    return;
  }

  auto mine = std::find_if(m_entries.begin(), m_entries.end(),
                           [&](const LogonEntry& e) { return SameUser(e, record); });
  if (mine == m_entries.end()) return;
  for (const auto& a : addresses) Remove(mine->addresses, a);
  mine->lastSeen = now;
  mine->agent = agent;
  if (addresses.empty() || mine->addresses.empty()) m_entries.erase(mine);
}

const LogonEntry* CLogonTable::FindByAddress(const std::string& address) const {
  for (const auto& e : m_entries)
    if (std::find(e.addresses.begin(), e.addresses.end(), address) != e.addresses.end()) return &e;
  return nullptr;
}

std::string CLogonTable::FormatText() const {
  std::string out = "Logged on (" + std::to_string(m_entries.size()) + "):\n";
  if (m_entries.empty()) out += "  nobody\n";
  for (const auto& e : m_entries) {
    out += "  " + (e.domain.empty() ? e.user : e.domain + "\\" + e.user);
    out += "  at " + e.workstation;
    out += "  addresses ";
    if (e.addresses.empty()) out += "(none)";
    for (size_t i = 0; i < e.addresses.size(); ++i) out += (i ? ", " : "") + e.addresses[i];
    if (!e.azureAccount.empty()) out += "  azure " + e.azureAccount;
    out += "  since " + Clock(e.since) + "  via " + e.agent + "\n";
  }
  return out;
}

}  // namespace lindqvar::lab
