// The NTLM package through the security support provider interface
// (Secur32), and impersonation of a session's user (Advapi32).
#pragma once

#include "platform/security_package.h"

namespace lindqvar::win32 {

class CSecurityPackageWin32 : public ISecurityPackage {
 public:
  int32_t QueryPackageInfo(const std::u16string& package, std::u16string& name) override;
  int32_t AcquireCredentials(const std::u16string& package, uint32_t use,
                             const AuthIdentity* identity, SecurityHandle& credential) override;
  int32_t InitializeContext(SecurityHandle& credential, SecurityHandle* context, uint32_t flags,
                            const ContextBinding& binding, const uint8_t* input, uint32_t inputSize,
                            SecurityHandle& newContext, PackageBuffer& output,
                            uint32_t& attributes) override;
  int32_t CompleteToken(SecurityHandle& context, PackageBuffer& token) override;
  int32_t QueryAttribute(SecurityHandle& context, uint32_t attribute,
                         ContextAttribute& out) override;
  int32_t DeleteContext(SecurityHandle& context) override;
  int32_t FreeCredentials(SecurityHandle& credential) override;
  void FreeBuffer(void* buffer) override;
};

class CImpersonationWin32 : public IImpersonation {
 public:
  bool DuplicateForImpersonation(IUserToken& primary,
                                 std::unique_ptr<IUserToken>& impersonation) override;
  bool SetThreadToken(IUserToken& impersonation) override;
};

}  // namespace lindqvar::win32
