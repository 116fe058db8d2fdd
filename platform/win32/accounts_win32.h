// Session tokens, SIDs, accounts and the computer name through WTSAPI32 and
// ADVAPI32.
#pragma once

#include "platform/accounts.h"
#include "platform/win32/windows_include.h"

namespace lindqvar::win32 {

// WTSQueryUserToken is never linked statically: the programs must load on
// systems that lack it. Its address is looked up once, in the already
// loaded Wtsapi32.dll; null where it is missing.
using QueryUserTokenFn = BOOL(WINAPI*)(ULONG, PHANDLE);
QueryUserTokenFn WtsQueryUserToken();

class CAccountsWin32 : public IAccounts {
 public:
  CAccountsWin32();

  bool HasQueryUserToken() override;
  bool QueryUserToken(uint32_t session, std::unique_ptr<IUserToken>& token) override;
  std::unique_ptr<IUserToken> LinkedToken(IUserToken& token) override;
  bool TokenUserSid(IUserToken& token, SidBytes& sid) override;
  bool LookupSidAccount(const SidBytes& sid, std::u16string& name, std::u16string& domain) override;
  bool LogonSessionDnsDomain(IUserToken& token, std::u16string& dnsDomain) override;
  std::u16string ComputerName() override;
  uint32_t LastError() override;
  void AbandonToken(std::unique_ptr<IUserToken> token) override;

 private:
  QueryUserTokenFn m_queryUserToken = nullptr;
};

}  // namespace lindqvar::win32
