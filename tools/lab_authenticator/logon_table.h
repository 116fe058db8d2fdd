// The lab authenticator's view of who is logged on where: built from the
// session records that agents report, one entry per user and workstation
// with the addresses currently reported for them.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "protocol/messages/event.h"

namespace lindqvar::lab {

struct LogonEntry {
  std::string domain;
  std::string user;
  std::string workstation;
  std::string azureAccount;
  std::vector<std::string> addresses;  // IPv4 first, in reported order
  std::string agent;                   // address:port the last report came from
  std::time_t since = 0;               // when this user was first reported here
  std::time_t lastSeen = 0;
};

class CLogonTable {
 public:
  // A record with the logon flag set reports the user at exactly its
  // addresses (an address belongs to one user at a time, so other entries
  // lose it, and an entry left without addresses that way is dropped). A
  // record with the flag clear withdraws its addresses from the user's
  // entry; the entry goes when none are left or the record carried none.
  void Apply(const SessionRecord& record, const std::string& agent, std::time_t now);

  const std::vector<LogonEntry>& Entries() const { return m_entries; }
  // The entry holding `address`, or null.
  const LogonEntry* FindByAddress(const std::string& address) const;

  // For a person: one line per entry under a heading.
  std::string FormatText() const;

 private:
  std::vector<LogonEntry> m_entries;
};

}  // namespace lindqvar::lab
