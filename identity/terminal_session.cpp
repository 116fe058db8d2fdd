#include "identity/terminal_session.h"

#include <cstdio>

#include "identity/azure.h"
#include "identity/wide_text.h"
#include "platform/os.h"

namespace lindqvar {

namespace {

constexpr uint32_t kSidTextBufferLength = 260;
constexpr uint32_t kRegSz = 1;
constexpr uint32_t kRegExpandSz = 2;
constexpr size_t kSidHeaderSize = 8;  // revision, count, identifier authority
constexpr uint8_t kSidRevision = 1;
constexpr uint8_t kSidMaxSubAuthorities = 15;

std::string Utf8(const std::u16string& s) { return WideToUtf8(s); }

// Abandons the token on every way out of GetSessionAccount: the handle that
// operation takes is never closed, and that is the behaviour to keep.
class CAbandonOnExit {
 public:
  CAbandonOnExit(IAccounts& accounts, std::unique_ptr<IUserToken>& token)
      : m_accounts(accounts), m_token(token) {}
  ~CAbandonOnExit() {
    if (m_token) m_accounts.AbandonToken(std::move(m_token));
  }
  CAbandonOnExit(const CAbandonOnExit&) = delete;
  CAbandonOnExit& operator=(const CAbandonOnExit&) = delete;

 private:
  IAccounts& m_accounts;
  std::unique_ptr<IUserToken>& m_token;
};

}  // namespace

uint32_t LoadSessionUser(const UserLookup& system, CTerminalSession& record, uint32_t sessionId,
                         CLog& log, uint32_t preferAzure) {
  record.m_dwSessionId = sessionId;
  record.m_strUserName.clear();
  record.m_strDomain.clear();
  record.m_strTenantId.clear();
  UserLookupOutcome& outcome = record.m_lookup;
  outcome = {};

  // The AD answer. Its tenant id is always empty.
  std::u16string adUser, adDomain;
  const std::u16string adTenant;
  bool adValid = false;
  const int ts = GetTSSessionUserName(system, log, sessionId, adUser, adDomain, 1);
  outcome.domainResult = ts;
  if (ts == kTsFailed) outcome.domainError = system.accounts.LastError();
  if (ts != kTsFailed) log.Debug("iResult:%d", ts);
  if (ts == kTsDomainAccount) {
    log.Debug("GetTSSessionUserName() result, strUsername:%s, strDomain:%s", Utf8(adUser).c_str(),
              Utf8(adDomain).c_str());
    if (WideEqualsNoCase(adDomain, u"AzureAD")) {
      // An Azure AD account seen through the classic route: its answer comes
      // from the Azure lookup instead.
      log.Debug("Discard this logon info, strUsername:%s, strDomain:%s", Utf8(adUser).c_str(),
                Utf8(adDomain).c_str());
      outcome.domainAccountIsAzureAD = true;
    } else {
      adValid = true;
    }
  }

  // The Azure answer is asked for whatever the AD lookup gave.
  std::u16string azureUser, azureDomain, azureTenant;
  outcome.azureResult =
      GetAZureSessionUserInfo(system, log, sessionId, azureUser, azureDomain, azureTenant);
  const bool azureValid = outcome.azureResult == kAzureOk;

  const std::u16string* user = &adUser;
  const std::u16string* domain = &adDomain;
  const std::u16string* tenant = &adTenant;
  const bool takeAzure = azureValid && (!adValid || preferAzure == 1);
  if (takeAzure) {
    user = &azureUser;
    domain = &azureDomain;
    tenant = &azureTenant;
    log.Debug(adValid ? "Got both AD and Azure user logon info, prefer user Azure"
                      : "Got only Azure user logon info");
  } else if (!adValid) {
    log.Debug("Failed to get username for session ID:%d", static_cast<int>(sessionId));
    return 0;
  }

  outcome.emptyUser = user->empty();
  if (outcome.emptyUser) return 0;
  outcome.source = takeAzure ? UserSource::kAzureAD : UserSource::kDomain;
  // UTF-16 to UTF-8 cannot fail here (unpaired surrogates become U+FFFD),
  // so every field converts.
  record.m_strUserName = Utf8(*user);
  record.m_strDomain = Utf8(*domain);
  if (!tenant->empty()) record.m_strTenantId = Utf8(*tenant);
  return 1;
}

int GetTSSessionUserName(const UserLookup& system, CLog& log, uint32_t sessionId,
                         std::u16string& user, std::u16string& domain, uint32_t useDnsDomain) {
  const int r = GetSessionAccount(system, log, sessionId, user, domain, useDnsDomain);
  if (r == 0) return kTsFailed;
  if (r == 2) return kTsNoUser;
  const std::u16string computer = system.accounts.ComputerName();
  return WideEqualsNoCase(domain, computer) ? kTsLocalAccount : kTsDomainAccount;
}

int GetSessionAccount(const UserLookup& system, CLog& log, uint32_t sessionId, std::u16string& user,
                      std::u16string& domain, uint32_t useDnsDomain) {
  IAccounts& accounts = system.accounts;
  std::unique_ptr<IUserToken> token;
  CAbandonOnExit keepOpen(accounts, token);

  const int r = QuerySessionUserToken(accounts, log, sessionId, &token, false);
  if (r == 1) return 2;
  if (r != 0) {
    log.Debug("Failed to get token for session ID:%d,error:%d", static_cast<int>(sessionId),
              static_cast<int>(accounts.LastError()));
    return 0;
  }

  SidBytes sid;
  if (!accounts.TokenUserSid(*token, sid)) {
    log.Debug("Failed to get token information for session ID:%d,error:%d",
              static_cast<int>(sessionId), static_cast<int>(accounts.LastError()));
    return 0;
  }

  std::u16string name, sidDomain;
  if (!accounts.LookupSidAccount(sid, name, sidDomain)) return 0;
  user = name;

  if (!useDnsDomain) {
    domain = sidDomain;
    return 1;
  }
  std::u16string sessionDomain, userDnsDomain;
  const bool fromSession = accounts.LogonSessionDnsDomain(*token, sessionDomain);
  const bool fromUser = GetUserDnsDomain(system.registry, sid, userDnsDomain) != 0;
  domain = ChooseDnsDomain(log, fromSession ? &sessionDomain : nullptr,
                           fromUser ? &userDnsDomain : nullptr, sidDomain);
  return 1;
}

std::u16string ChooseDnsDomain(CLog& log, const std::u16string* sessionDomain,
                               const std::u16string* userDnsDomain,
                               const std::u16string& sidDomain) {
  if (sessionDomain && !sessionDomain->empty()) {
    if (userDnsDomain && !WideEqualsNoCase(*userDnsDomain, *sessionDomain)) {
      log.Error("USERDNSDOMAIN %s differs from the logon session's DNS domain %s, ignored",
                Utf8(*userDnsDomain).c_str(), Utf8(*sessionDomain).c_str());
    }
    return *sessionDomain;
  }
  return userDnsDomain ? *userDnsDomain : sidDomain;
}

int QuerySessionUserToken(IAccounts& accounts, CLog& log, uint32_t sessionId,
                          std::unique_ptr<IUserToken>* token, bool wantLinkedToken) {
  if (!token) return -1;
  token->reset();
  if (!accounts.HasQueryUserToken()) return -1;

  if (accounts.QueryUserToken(sessionId, *token) && *token) {
    if (wantLinkedToken) {
      // An elevated user's full token replaces the filtered one when the
      // system offers it; the first handle stays open.
      std::unique_ptr<IUserToken> linked = accounts.LinkedToken(**token);
      if (linked) {
        accounts.AbandonToken(std::move(*token));
        *token = std::move(linked);
      }
    }
    return 0;
  }

  const uint32_t error = accounts.LastError();
  log.Debug("Failed to call WTSQueryUserToken for session ID:%d,error:%d",
            static_cast<int>(sessionId), static_cast<int>(error));
  token->reset();
  return error == kErrorNotLoggedOn ? 1 : -1;
}

uint32_t GetUserDnsDomain(IRegistry& registry, const SidBytes& sid, std::u16string& domain) {
  std::u16string sidText;
  uint32_t length = kSidTextBufferLength;
  if (!SidToText(sid, sidText, length)) return 0;

  std::unique_ptr<IRegistryKey> userKey;
  if (registry.OpenKey(RegistryHive::kUsers, sidText, reg_access::kRead, userKey) !=
          kErrorSuccess ||
      !userKey) {
    return 0;
  }
  // Opened below the user's key, as that key sees the registry.
  std::unique_ptr<IRegistryKey> environment;
  if (userKey->OpenSubKey(u"Volatile Environment", reg_access::kRead, environment) !=
          kErrorSuccess ||
      !environment) {
    return 0;
  }
  return RegQueryStringValue(*environment, u"USERDNSDOMAIN", domain, nullptr);
}

uint32_t RegQueryStringValue(IRegistryKey& key, std::u16string_view name, std::u16string& value,
                             uint32_t* length) {
  if (length) *length = 0;
  uint32_t type = 0;
  std::vector<uint8_t> data;
  if (key.QueryValue(name, type, data) != kErrorSuccess || data.empty() ||
      (type != kRegSz && type != kRegExpandSz)) {
    return 0;
  }
  // A value of 0 bytes is refused above; any other size is taken, an odd
  // one included, and the length is the size in bytes halved.
  value = RegistryValueText(data);
  if (length) *length = static_cast<uint32_t>(data.size() / sizeof(char16_t));
  return 1;
}

bool IsValidSid(const SidBytes& sid) {
  if (sid.size() < kSidHeaderSize) return false;
  if (sid[0] != kSidRevision || sid[1] > kSidMaxSubAuthorities) return false;
  return sid.size() >= kSidHeaderSize + 4u * sid[1];
}

uint32_t SidToText(const SidBytes& sid, std::u16string& text, uint32_t& length) {
  if (!IsValidSid(sid)) return 0;
  const uint32_t count = sid[1];
  // The size is reckoned in bytes but compared with the caller's length in
  // characters: with a length of 260, SIDs of 9 or more sub-authorities are
  // refused although their text would fit.
  const uint32_t required = (count * 12 + 28) * 2;
  if (length < required) {
    length = required;
    SetLastErrorCode(kErrorInsufficientBuffer);
    return 0;
  }

  char part[64];
  std::string out;
  std::snprintf(part, sizeof part, "S-%lu-", static_cast<unsigned long>(kSidRevision));
  out += part;
  const uint8_t* authority = sid.data() + 2;
  if (authority[0] != 0 || authority[1] != 0) {
    std::snprintf(
        part, sizeof part, "0x%02hx%02hx%02hx%02hx%02hx%02hx",
        static_cast<unsigned short>(authority[0]), static_cast<unsigned short>(authority[1]),
        static_cast<unsigned short>(authority[2]), static_cast<unsigned short>(authority[3]),
        static_cast<unsigned short>(authority[4]), static_cast<unsigned short>(authority[5]));
  } else {
    const unsigned long value = (static_cast<unsigned long>(authority[2]) << 24) |
                                (static_cast<unsigned long>(authority[3]) << 16) |
                                (static_cast<unsigned long>(authority[4]) << 8) |
                                static_cast<unsigned long>(authority[5]);
    std::snprintf(part, sizeof part, "%lu", value);
  }
  out += part;
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* p = sid.data() + kSidHeaderSize + 4 * i;
    const unsigned long sub =
        static_cast<unsigned long>(p[0]) | (static_cast<unsigned long>(p[1]) << 8) |
        (static_cast<unsigned long>(p[2]) << 16) | (static_cast<unsigned long>(p[3]) << 24);
    std::snprintf(part, sizeof part, "-%lu", sub);
    out += part;
  }
  text.assign(out.begin(), out.end());
  return 1;
}

}  // namespace lindqvar
