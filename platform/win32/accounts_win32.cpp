#include "platform/win32/accounts_win32.h"

#include <memory>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

#include <ntsecapi.h>

namespace lindqvar::win32 {

namespace {

constexpr DWORD kTokenUserBufferSize = 1000;
constexpr DWORD kAccountBufferLength = 260;
constexpr DWORD kComputerNameLength = 16;

class CUserTokenWin32 : public IUserToken {
 public:
  explicit CUserTokenWin32(HANDLE h) : m_token(h) {}
  void* Native() const override { return m_token.get(); }
  // Gives the handle up without closing it.
  void Detach() { m_token.release(); }

 private:
  ScopedHandle m_token;
};

HANDLE Native(IUserToken& token) { return static_cast<HANDLE>(token.Native()); }

}  // namespace

QueryUserTokenFn WtsQueryUserToken() {
  static const QueryUserTokenFn function = [] {
    // The agent imports Wtsapi32's other functions, so the library is
    // loaded; a program that imports none of them loads it from the system
    // folder (and keeps it for its lifetime).
    HMODULE wtsapi = ::GetModuleHandleW(L"Wtsapi32.dll");
    if (!wtsapi) wtsapi = ::LoadLibraryExW(L"Wtsapi32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return wtsapi ? reinterpret_cast<QueryUserTokenFn>(
                        reinterpret_cast<void*>(::GetProcAddress(wtsapi, "WTSQueryUserToken")))
                  : nullptr;
  }();
  return function;
}

// Without WTSQueryUserToken the agent still runs; the AD lookup then fails
// for every session.
CAccountsWin32::CAccountsWin32() : m_queryUserToken(WtsQueryUserToken()) {}

bool CAccountsWin32::HasQueryUserToken() { return m_queryUserToken != nullptr; }

bool CAccountsWin32::QueryUserToken(uint32_t session, std::unique_ptr<IUserToken>& token) {
  if (!m_queryUserToken) return false;
  HANDLE h = nullptr;
  if (!m_queryUserToken(session, &h)) return false;
  if (h) token = std::make_unique<CUserTokenWin32>(h);
  return h != nullptr;
}

std::unique_ptr<IUserToken> CAccountsWin32::LinkedToken(IUserToken& token) {
  TOKEN_LINKED_TOKEN linked = {};
  DWORD returned = 0;
  if (!::GetTokenInformation(Native(token), TokenLinkedToken, &linked, sizeof linked, &returned) ||
      !linked.LinkedToken) {
    return nullptr;
  }
  return std::make_unique<CUserTokenWin32>(linked.LinkedToken);
}

bool CAccountsWin32::TokenUserSid(IUserToken& token, SidBytes& sid) {
  alignas(8) BYTE buffer[kTokenUserBufferSize] = {};
  DWORD returned = 0;
  if (!::GetTokenInformation(Native(token), TokenUser, buffer, sizeof buffer, &returned)) {
    return false;
  }
  PSID user = reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid;
  const auto* bytes = static_cast<const uint8_t*>(user);
  sid.assign(bytes, bytes + ::GetLengthSid(user));
  return true;
}

bool CAccountsWin32::LookupSidAccount(const SidBytes& sid, std::u16string& name,
                                      std::u16string& domain) {
  wchar_t nameBuffer[kAccountBufferLength] = {};
  wchar_t domainBuffer[kAccountBufferLength] = {};
  DWORD nameLength = kAccountBufferLength;
  DWORD domainLength = kAccountBufferLength;
  SID_NAME_USE use = SidTypeUnknown;
  SidBytes copy = sid;
  if (!::LookupAccountSidW(nullptr, copy.data(), nameBuffer, &nameLength, domainBuffer,
                           &domainLength, &use)) {
    return false;
  }
  name = U(nameBuffer);
  domain = U(domainBuffer);
  return true;
}

bool CAccountsWin32::LogonSessionDnsDomain(IUserToken& token, std::u16string& dnsDomain) {
  dnsDomain.clear();
  TOKEN_STATISTICS statistics = {};
  DWORD returned = 0;
  if (!::GetTokenInformation(Native(token), TokenStatistics, &statistics, sizeof statistics,
                             &returned)) {
    return false;
  }
  PSECURITY_LOGON_SESSION_DATA raw = nullptr;
  if (::LsaGetLogonSessionData(&statistics.AuthenticationId, &raw) != 0 || !raw) return false;
  struct FreeLsaBuffer {
    void operator()(SECURITY_LOGON_SESSION_DATA* p) const { ::LsaFreeReturnBuffer(p); }
  };
  const std::unique_ptr<SECURITY_LOGON_SESSION_DATA, FreeLsaBuffer> data(raw);
  // A session data block too old to carry the DNS domain counts as none.
  if (data->Size <
      offsetof(SECURITY_LOGON_SESSION_DATA, DnsDomainName) + sizeof(LSA_UNICODE_STRING)) {
    return true;
  }
  const LSA_UNICODE_STRING& name = data->DnsDomainName;
  if (name.Buffer && name.Length > 0) {
    dnsDomain.assign(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / sizeof(wchar_t));
  }
  return true;
}

std::u16string CAccountsWin32::ComputerName() {
  wchar_t buffer[kComputerNameLength] = {};
  DWORD length = kComputerNameLength;
  if (!::GetComputerNameW(buffer, &length)) buffer[0] = L'\0';
  return U(buffer);
}

uint32_t CAccountsWin32::LastError() { return ::GetLastError(); }

void CAccountsWin32::AbandonToken(std::unique_ptr<IUserToken> token) {
  // The handle stays open for the life of the process, as the user lookup
  // requires; only the wrapper goes.
  if (auto* own = dynamic_cast<CUserTokenWin32*>(token.get())) own->Detach();
}

}  // namespace lindqvar::win32
