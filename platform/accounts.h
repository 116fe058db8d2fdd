// Sessions' user tokens, their SIDs and accounts, and this computer's name,
// as the user lookup needs them. platform/win32/identity_win32.h has the
// Windows implementation; tests use fakes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/support.h"

namespace lindqvar {

// A security identifier as the system stores it: revision, sub-authority
// count, 6-byte identifier authority (big-endian), then the sub-authorities
// (32-bit, little-endian).
using SidBytes = std::vector<uint8_t>;

inline constexpr uint32_t kErrorInsufficientBuffer = 122;  // ERROR_INSUFFICIENT_BUFFER
inline constexpr uint32_t kErrorNotLoggedOn = 1245;        // ERROR_NOT_LOGGED_ON

class IAccounts {
 public:
  virtual ~IAccounts() = default;

  // Whether WTSQueryUserToken was found in Wtsapi32.dll (looked up once, at
  // run time, because the function is not linked statically).
  virtual bool HasQueryUserToken() = 0;
  // WTSQueryUserToken for the session. False on failure; LastError() then
  // tells why (kErrorNotLoggedOn when nobody is logged on).
  virtual bool QueryUserToken(uint32_t session, std::unique_ptr<IUserToken>& token) = 0;
  // GetTokenInformation(TokenLinkedToken): the linked token, or null when
  // the system offers none.
  virtual std::unique_ptr<IUserToken> LinkedToken(IUserToken& token) = 0;
  // GetTokenInformation(TokenUser) into a buffer of 1000 bytes: the SID of
  // the token's user. False on failure (see LastError()).
  virtual bool TokenUserSid(IUserToken& token, SidBytes& sid) = 0;
  // LookupAccountSidW on the local system with name and domain buffers of
  // 260 characters each. False on failure.
  virtual bool LookupSidAccount(const SidBytes& sid, std::u16string& name,
                                std::u16string& domain) = 0;
  // The DNS domain name of the token's logon session (LsaGetLogonSessionData
  // for the token's TokenStatistics AuthenticationId), which the user cannot
  // change. False when the system does not give the session's data; true
  // with an empty name when the session has none (a local account).
  virtual bool LogonSessionDnsDomain(IUserToken& token, std::u16string& dnsDomain) = 0;
  // GetComputerNameW into 16 characters; empty on failure.
  virtual std::u16string ComputerName() = 0;
  // The calling thread's last system error (GetLastError()).
  virtual uint32_t LastError() = 0;
  // Frees the wrapper but leaves the system handle open for the life of the
  // process. Used where a token handle is deliberately never closed.
  virtual void AbandonToken(std::unique_ptr<IUserToken> token) = 0;
};

}  // namespace lindqvar
