#include "platform/win32/security_package_win32.h"

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

#define SECURITY_WIN32
#include <security.h>
#include <sspi.h>

namespace lindqvar::win32 {

namespace {

CredHandle* Cred(SecurityHandle& h) {
  static_assert(sizeof(CredHandle) == sizeof(SecurityHandle));
  return reinterpret_cast<CredHandle*>(&h);
}
CtxtHandle* Ctxt(SecurityHandle& h) { return reinterpret_cast<CtxtHandle*>(&h); }

class CImpersonationTokenWin32 : public IUserToken {
 public:
  explicit CImpersonationTokenWin32(HANDLE h) : m_token(h) {}
  void* Native() const override { return m_token.get(); }

 private:
  ScopedHandle m_token;
};

}  // namespace

int32_t CSecurityPackageWin32::QueryPackageInfo(const std::u16string& package,
                                                std::u16string& name) {
  PSecPkgInfoW info = nullptr;
  const SECURITY_STATUS status =
      ::QuerySecurityPackageInfoW(const_cast<wchar_t*>(W(package)), &info);
  if (status == SEC_E_OK && info) {
    name = U(info->Name);
    ::FreeContextBuffer(info);
  }
  return status;
}

int32_t CSecurityPackageWin32::AcquireCredentials(const std::u16string& package, uint32_t use,
                                                  const AuthIdentity* identity,
                                                  SecurityHandle& credential) {
  SEC_WINNT_AUTH_IDENTITY_W auth{};
  if (identity) {
    auth.User = reinterpret_cast<unsigned short*>(const_cast<char16_t*>(identity->user.c_str()));
    auth.UserLength = static_cast<unsigned long>(identity->user.size());
    auth.Domain =
        reinterpret_cast<unsigned short*>(const_cast<char16_t*>(identity->domain.c_str()));
    auth.DomainLength = static_cast<unsigned long>(identity->domain.size());
    auth.Password =
        reinterpret_cast<unsigned short*>(const_cast<char16_t*>(identity->password.c_str()));
    auth.PasswordLength = static_cast<unsigned long>(identity->password.size());
    auth.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;  // 2
  }
  TimeStamp expiry;
  return ::AcquireCredentialsHandleW(nullptr, const_cast<wchar_t*>(W(package)), use, nullptr,
                                     identity ? &auth : nullptr, nullptr, nullptr, Cred(credential),
                                     &expiry);
}

int32_t CSecurityPackageWin32::InitializeContext(SecurityHandle& credential,
                                                 SecurityHandle* context, uint32_t flags,
                                                 const ContextBinding& binding,
                                                 const uint8_t* input, uint32_t inputSize,
                                                 SecurityHandle& newContext, PackageBuffer& output,
                                                 uint32_t& attributes) {
  SecBuffer outToken{0, SECBUFFER_TOKEN, nullptr};
  SecBufferDesc outDesc{SECBUFFER_VERSION, 1, &outToken};
  // The server's token, and with it the channel bindings when there are
  // any: the package puts them into the final token it makes from it.
  SecBuffer inBuffers[2] = {
      {inputSize, SECBUFFER_TOKEN, const_cast<uint8_t*>(input)},
      {static_cast<unsigned long>(binding.channelBindings.size()), SECBUFFER_CHANNEL_BINDINGS,
       const_cast<uint8_t*>(binding.channelBindings.data())}};
  SecBufferDesc inDesc{SECBUFFER_VERSION, binding.channelBindings.empty() ? 1ul : 2ul, inBuffers};
  std::wstring target;
  if (!binding.targetName.empty()) target = W(binding.targetName);
  unsigned long attrs = 0;
  TimeStamp expiry;
  const SECURITY_STATUS status =
      ::InitializeSecurityContextW(Cred(credential), context ? Ctxt(*context) : nullptr,
                                   target.empty() ? nullptr : const_cast<wchar_t*>(target.c_str()),
                                   flags, 0, SECURITY_NATIVE_DREP, input ? &inDesc : nullptr, 0,
                                   Ctxt(newContext), &outDesc, &attrs, &expiry);
  output.data = outToken.pvBuffer;
  output.size = outToken.cbBuffer;
  attributes = attrs;
  return status;
}

int32_t CSecurityPackageWin32::CompleteToken(SecurityHandle& context, PackageBuffer& token) {
  SecBuffer buffer{token.size, SECBUFFER_TOKEN, token.data};
  SecBufferDesc desc{SECBUFFER_VERSION, 1, &buffer};
  return ::CompleteAuthToken(Ctxt(context), &desc);
}

int32_t CSecurityPackageWin32::QueryAttribute(SecurityHandle& context, uint32_t attribute,
                                              ContextAttribute& out) {
  SECURITY_STATUS status;
  if (attribute == SECPKG_ATTR_NEGOTIATION_INFO) {
    SecPkgContext_NegotiationInfoW info{};
    status = ::QueryContextAttributesW(Ctxt(context), attribute, &info);
    if (status == SEC_E_OK && info.PackageInfo) {
      out.packageName = U(info.PackageInfo->Name);
      ::FreeContextBuffer(info.PackageInfo);
    }
  } else if (attribute == SECPKG_ATTR_FLAGS) {
    SecPkgContext_Flags flags{};
    status = ::QueryContextAttributesW(Ctxt(context), attribute, &flags);
    out.flags = flags.Flags;
  } else {
    SecPkgContext_Sizes sizes{};
    status = ::QueryContextAttributesW(Ctxt(context), attribute, &sizes);
  }
  return status;
}

int32_t CSecurityPackageWin32::DeleteContext(SecurityHandle& context) {
  return ::DeleteSecurityContext(Ctxt(context));
}

int32_t CSecurityPackageWin32::FreeCredentials(SecurityHandle& credential) {
  return ::FreeCredentialsHandle(Cred(credential));
}

void CSecurityPackageWin32::FreeBuffer(void* buffer) { ::FreeContextBuffer(buffer); }

bool CImpersonationWin32::DuplicateForImpersonation(IUserToken& primary,
                                                    std::unique_ptr<IUserToken>& impersonation) {
  HANDLE duplicate = nullptr;
  if (!::DuplicateToken(static_cast<HANDLE>(primary.Native()), SecurityImpersonation, &duplicate) ||
      !duplicate)
    return false;
  impersonation = std::make_unique<CImpersonationTokenWin32>(duplicate);
  return true;
}

bool CImpersonationWin32::SetThreadToken(IUserToken& impersonation) {
  return ::SetThreadToken(nullptr, static_cast<HANDLE>(impersonation.Native())) != FALSE;
}

}  // namespace lindqvar::win32
