// A stand-in for the system's NTLM package and for impersonation, for
// native tests. Tokens are readable texts: the first names no one, the
// final one carries the user the credentials belong to and the challenge it
// answers. Credentials given explicitly win; otherwise they are those of
// the user whose token the calling thread impersonates (nobody when none),
// so a test sees on which thread, as whom, a token was made.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/security_package.h"

namespace lindqvar::testing {

// A user token of the fakes: the account it stands for.
class FakeUserToken : public IUserToken {
 public:
  FakeUserToken(std::string domain, std::string user, bool impersonation = false)
      : domain(std::move(domain)), user(std::move(user)), impersonation(impersonation) {}
  void* Native() const override { return const_cast<FakeUserToken*>(this); }
  std::string domain, user;
  bool impersonation;
};

class FakeImpersonation : public IImpersonation {
 public:
  bool DuplicateForImpersonation(IUserToken& primary,
                                 std::unique_ptr<IUserToken>& impersonation) override;
  bool SetThreadToken(IUserToken& impersonation) override;
  // "DOMAIN\user" the calling thread impersonates; empty when none.
  static std::string ThreadUser();

  bool duplicateFails = false;
  // "DOMAIN\user" whose impersonation token SetThreadToken refuses.
  std::string refuseThreadTokenFor;
  std::atomic<int> threadTokensSet{0};
};

class FakeSecurityPackage : public ISecurityPackage {
 public:
  int32_t QueryPackageInfo(const std::u16string& package, std::u16string& name) override;
  int32_t AcquireCredentials(const std::u16string& package, uint32_t use,
                             const AuthIdentity* identity, SecurityHandle& credential) override;
  int32_t InitializeContext(SecurityHandle& credential, SecurityHandle* context, uint32_t flags,
                            const ContextBinding& binding, const uint8_t* input, uint32_t inputSize, SecurityHandle& newContext,
                            PackageBuffer& output, uint32_t& attributes) override;
  int32_t CompleteToken(SecurityHandle& context, PackageBuffer& token) override;
  int32_t QueryAttribute(SecurityHandle& context, uint32_t attribute,
                         ContextAttribute& out) override;
  int32_t DeleteContext(SecurityHandle& context) override;
  int32_t FreeCredentials(SecurityHandle& credential) override;
  void FreeBuffer(void* buffer) override;

  // Failures to force (0: none).
  int32_t queryStatus = 0;
  int32_t acquireStatus = 0;
  int32_t firstStepStatus = 0;   // replaces the first step's status when set
  int32_t finalStepStatus = 0;   // replaces the final step's status when set
  int32_t completeStatus = 0;
  int32_t attributeStatus = 0;

  // What is held now: credentials, contexts and package buffers not yet
  // released. Every exchange must leave all three empty.
  size_t LiveCredentials() const;
  size_t LiveContexts() const;
  size_t LiveBuffers() const;
  // The binding each InitializeContext call was given, in call order.
  std::vector<ContextBinding> Bindings() const;

 private:
  mutable std::mutex m_mutex;
  uintptr_t m_next = 1;
  std::map<uintptr_t, std::string> m_credentials;  // handle -> "DOMAIN\user"
  std::map<uintptr_t, std::string> m_contexts;     // handle -> credential's user
  std::set<void*> m_buffers;
  std::vector<ContextBinding> m_bindings;
};

}  // namespace lindqvar::testing
