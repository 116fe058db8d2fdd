#include "tests/fakes/fake_security_package.h"

#include <cstdlib>
#include <cstring>

#include "platform/os.h"

namespace lindqvar::testing {

namespace {
thread_local std::string t_threadUser;
}

bool FakeImpersonation::DuplicateForImpersonation(IUserToken& primary,
                                                  std::unique_ptr<IUserToken>& impersonation) {
  if (duplicateFails) return false;
  auto& p = static_cast<FakeUserToken&>(primary);
  impersonation = std::make_unique<FakeUserToken>(p.domain, p.user, true);
  return true;
}

bool FakeImpersonation::SetThreadToken(IUserToken& impersonation) {
  auto& t = static_cast<FakeUserToken&>(impersonation);
  if (!t.impersonation) return false;  // a primary token cannot be set on a thread
  if (t.domain + "\\" + t.user == refuseThreadTokenFor) return false;
  t_threadUser = t.domain + "\\" + t.user;
  ++threadTokensSet;
  return true;
}

std::string FakeImpersonation::ThreadUser() { return t_threadUser; }

int32_t FakeSecurityPackage::QueryPackageInfo(const std::u16string& package, std::u16string& name) {
  if (queryStatus) return queryStatus;
  name = package;
  return sec::kOk;
}

int32_t FakeSecurityPackage::AcquireCredentials(const std::u16string& package, uint32_t use,
                                                const AuthIdentity* identity,
                                                SecurityHandle& credential) {
  if (acquireStatus) return acquireStatus;
  if (package != u"NTLM" || use != sec::kCredentialsOutbound) return static_cast<int32_t>(0x80090305);
  std::string who = identity ? WideToUtf8(identity->domain) + "\\" + WideToUtf8(identity->user)
                             : FakeImpersonation::ThreadUser();
  if (who.empty()) who = "NOBODY";
  std::lock_guard<std::mutex> lock(m_mutex);
  credential.lower = m_next++;
  m_credentials[credential.lower] = who;
  return sec::kOk;
}

int32_t FakeSecurityPackage::InitializeContext(SecurityHandle& credential, SecurityHandle* context,
                                               uint32_t flags, const ContextBinding& binding,
                                               const uint8_t* input, uint32_t inputSize,
                                               SecurityHandle& newContext, PackageBuffer& output,
                                               uint32_t& attributes) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_bindings.push_back(binding);
  if (!(flags & sec::kAllocateMemory) || !m_credentials.count(credential.lower))
    return static_cast<int32_t>(0x80090301);  // invalid handle
  std::string token;
  int32_t status;
  if (!context) {
    if (input) return static_cast<int32_t>(0x80090308);
    token = "NEGOTIATE";
    status = firstStepStatus ? firstStepStatus : sec::kContinueNeeded;
    if (status >= 0) {
      newContext.lower = m_next++;
      m_contexts[newContext.lower] = m_credentials[credential.lower];
    }
  } else {
    if (!m_contexts.count(context->lower) || !input) return static_cast<int32_t>(0x80090308);
    token = "AUTHENTICATE " + m_contexts[context->lower] + " " +
            std::string(reinterpret_cast<const char*>(input), inputSize);
    status = finalStepStatus ? finalStepStatus : sec::kOk;
  }
  if (status < 0) return status;
  output.data = std::malloc(token.size());
  std::memcpy(output.data, token.data(), token.size());
  output.size = static_cast<uint32_t>(token.size());
  m_buffers.insert(output.data);
  attributes = 0;
  return status;
}

int32_t FakeSecurityPackage::CompleteToken(SecurityHandle&, PackageBuffer&) { return completeStatus; }

int32_t FakeSecurityPackage::QueryAttribute(SecurityHandle& context, uint32_t attribute,
                                            ContextAttribute& out) {
  if (attributeStatus) return attributeStatus;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_contexts.count(context.lower)) return static_cast<int32_t>(0x80090301);
  if (attribute == sec::kAttrNegotiationInfo) out.packageName = u"NTLM";
  if (attribute == sec::kAttrFlags) out.flags = 0x800;
  return sec::kOk;
}

int32_t FakeSecurityPackage::DeleteContext(SecurityHandle& context) {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_contexts.erase(context.lower) ? sec::kOk : static_cast<int32_t>(0x80090301);
}

int32_t FakeSecurityPackage::FreeCredentials(SecurityHandle& credential) {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_credentials.erase(credential.lower) ? sec::kOk : static_cast<int32_t>(0x80090301);
}

void FakeSecurityPackage::FreeBuffer(void* buffer) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_buffers.erase(buffer)) std::free(buffer);
}

size_t FakeSecurityPackage::LiveCredentials() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_credentials.size();
}
size_t FakeSecurityPackage::LiveContexts() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_contexts.size();
}
size_t FakeSecurityPackage::LiveBuffers() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_buffers.size();
}

std::vector<ContextBinding> FakeSecurityPackage::Bindings() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_bindings;
}

}  // namespace lindqvar::testing
