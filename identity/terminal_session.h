// Who is logged on in a terminal-services session: the record of one
// session (CTerminalSession) and the lookups that fill it. Two sources are
// asked every time: the session's user token with its SID, account and the
// user's USERDNSDOMAIN (the AD lookup), and the Azure AD lookup of
// identity/azure.h. The prefer-Azure setting decides when both answer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/accounts.h"
#include "platform/console_runner.h"
#include "platform/log.h"
#include "platform/registry.h"
#include "platform/timings.h"

namespace lindqvar {

// What the user lookups take from the system.
struct UserLookup {
  IAccounts& accounts;
  IRegistry& registry;
  IConsoleRunner& console;
  const Timings& timings;
};

// Results of GetTSSessionUserName.
inline constexpr int kTsFailed = 0;
inline constexpr int kTsDomainAccount = 1;
inline constexpr int kTsLocalAccount = 2;  // the domain is this computer's name
inline constexpr int kTsNoUser = 3;

// Which answer a record's user came from.
enum class UserSource { kNone, kDomain, kAzureAD };

// What the two lookups of LoadSessionUser answered, kept with the record so
// that a person can be told where its user came from or why there is none.
struct UserLookupOutcome {
  UserSource source = UserSource::kNone;
  int domainResult = kTsFailed;         // GetTSSessionUserName's result
  uint32_t domainError = 0;             // the system's error when that lookup failed
  bool domainAccountIsAzureAD = false;  // an "AzureAD" account, left to the Azure AD lookup
  int32_t azureResult = 0;              // GetAZureSessionUserInfo's result (identity/azure.h)
  bool emptyUser = false;               // the answer taken had an empty user name
};

class CTerminalSession {
 public:
  CTerminalSession() = default;
  virtual ~CTerminalSession() = default;

  uint32_t SessionId() const { return m_dwSessionId; }
  // UTF-8 texts. The tenant id is empty unless the Azure answer was taken.
  const std::string& UserName() const { return m_strUserName; }
  const std::string& Domain() const { return m_strDomain; }
  const std::string& TenantId() const { return m_strTenantId; }
  const UserLookupOutcome& Lookup() const { return m_lookup; }

 private:
  friend uint32_t LoadSessionUser(const UserLookup&, CTerminalSession&, uint32_t, CLog&, uint32_t);

  uint32_t m_dwSessionId = 0;
  std::string m_strUserName;
  std::string m_strDomain;
  std::string m_strTenantId;
  UserLookupOutcome m_lookup;
};

// Fills `record` for the session: 1 when a user was found, else 0.
uint32_t LoadSessionUser(const UserLookup& system, CTerminalSession& record, uint32_t sessionId,
                         CLog& log, uint32_t preferAzure);

int GetTSSessionUserName(const UserLookup& system, CLog& log, uint32_t sessionId,
                         std::u16string& user, std::u16string& domain, uint32_t useDnsDomain);

// 0 failure, 1 found, 2 nobody logged on.
int GetSessionAccount(const UserLookup& system, CLog& log, uint32_t sessionId, std::u16string& user,
                      std::u16string& domain, uint32_t useDnsDomain);

// 0 with the token, 1 nobody logged on, -1 any other failure (an absent
// out pointer, or WTSQueryUserToken missing from the system).
int QuerySessionUserToken(IAccounts& accounts, CLog& log, uint32_t sessionId,
                          std::unique_ptr<IUserToken>* token, bool wantLinkedToken);

// The DNS domain to report for an account. The logon session's own DNS
// domain wins; the user's USERDNSDOMAIN, which the user can rewrite, counts
// only where the session gives none (or its data is unavailable); without
// either the SID's domain stays. `sessionDomain` and `userDnsDomain` are null
// when unknown. A USERDNSDOMAIN that differs from the session's is logged.
std::u16string ChooseDnsDomain(CLog& log, const std::u16string* sessionDomain,
                               const std::u16string* userDnsDomain,
                               const std::u16string& sidDomain);

// The user's own USERDNSDOMAIN from HKEY_USERS\<SID>\Volatile Environment.
uint32_t GetUserDnsDomain(IRegistry& registry, const SidBytes& sid, std::u16string& domain);

// A REG_SZ or REG_EXPAND_SZ value of at least one byte (not expanded), read
// as RegistryValueText reads it; `length` (optional) gets the value's size
// in bytes halved, so a stored terminator counts.
uint32_t RegQueryStringValue(IRegistryKey& key, std::u16string_view name, std::u16string& value,
                             uint32_t* length);

// The SID's text form "S-1-...". `length` is the caller's buffer length; a
// buffer that is too small gives 0 with the required size in `length` and
// the thread's last error set to kErrorInsufficientBuffer.
uint32_t SidToText(const SidBytes& sid, std::u16string& text, uint32_t& length);
// IsValidSid: revision 1, at most 15 sub-authorities, all of them present.
bool IsValidSid(const SidBytes& sid);

}  // namespace lindqvar
