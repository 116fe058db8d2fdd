// The operating system's security package interface (the security support
// provider calls the NTLM client needs) and the impersonation of a session's
// user. platform/win32/security_package_win32.cpp has the Windows
// implementation over Secur32 and Advapi32; tests use fakes. Statuses are
// the system's SECURITY_STATUS values (negative: failure).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/support.h"

namespace lindqvar {

// A credential or context handle of the package (two pointer-sized words).
struct SecurityHandle {
  uintptr_t lower = 0;
  uintptr_t upper = 0;
};

// Explicit credentials (SEC_WINNT_AUTH_IDENTITY_W with flag 2, wide text).
struct AuthIdentity {
  std::u16string user;
  std::u16string domain;
  std::u16string password;
};

namespace sec {
inline constexpr int32_t kOk = 0;
inline constexpr int32_t kContinueNeeded = 0x00090312;
inline constexpr int32_t kCompleteNeeded = 0x00090313;
inline constexpr int32_t kCompleteAndContinue = 0x00090314;
inline constexpr uint32_t kCredentialsOutbound = 2;   // SECPKG_CRED_OUTBOUND
inline constexpr uint32_t kAllocateMemory = 0x100;    // ISC_REQ_ALLOCATE_MEMORY
inline constexpr uint32_t kAttrSizes = 0;             // SECPKG_ATTR_SIZES
inline constexpr uint32_t kAttrNegotiationInfo = 12;  // SECPKG_ATTR_NEGOTIATION_INFO
inline constexpr uint32_t kAttrFlags = 14;            // SECPKG_ATTR_FLAGS
}  // namespace sec

// A token the package allocated; released with FreeContextBuffer.
struct PackageBuffer {
  void* data = nullptr;
  uint32_t size = 0;
};

// What ties a client context to one server: the name of the service the
// proof is for (InitializeSecurityContextW's target name) and the channel
// bindings of the TLS connection it travels on, a SEC_CHANNEL_BINDINGS block
// (given with the server's token as a SECBUFFER_CHANNEL_BINDINGS buffer).
// Both empty: the context is bound to nothing.
struct ContextBinding {
  std::u16string targetName;
  std::vector<uint8_t> channelBindings;
};

// What one QueryContextAttributesW call gave: the package name for the
// negotiation information, the flags word for the flags.
struct ContextAttribute {
  std::u16string packageName;
  uint32_t flags = 0;
};

class ISecurityPackage {
 public:
  virtual ~ISecurityPackage() = default;
  // QuerySecurityPackageInfoW: the package's name (the information buffer
  // is freed inside).
  virtual int32_t QueryPackageInfo(const std::u16string& package, std::u16string& name) = 0;
  // AcquireCredentialsHandleW with no principal and no logon id; `identity`
  // null: the calling thread's own credentials.
  virtual int32_t AcquireCredentials(const std::u16string& package, uint32_t use,
                                     const AuthIdentity* identity, SecurityHandle& credential) = 0;
  // InitializeSecurityContextW with the binding's target name (none when
  // empty), reserved words 0 and the native data representation. `context`
  // null on the first call; `input` null when no token is given; the
  // binding's channel bindings go with an input token only. One output
  // token buffer, allocated by the package when the flags ask for it.
  virtual int32_t InitializeContext(SecurityHandle& credential, SecurityHandle* context,
                                    uint32_t flags, const ContextBinding& binding,
                                    const uint8_t* input, uint32_t inputSize,
                                    SecurityHandle& newContext, PackageBuffer& output,
                                    uint32_t& attributes) = 0;
  // CompleteAuthToken over the one output token buffer.
  virtual int32_t CompleteToken(SecurityHandle& context, PackageBuffer& token) = 0;
  // QueryContextAttributesW for sec::kAttrSizes, kAttrNegotiationInfo or
  // kAttrFlags; buffers the package returns are freed inside.
  virtual int32_t QueryAttribute(SecurityHandle& context, uint32_t attribute,
                                 ContextAttribute& out) = 0;
  virtual int32_t DeleteContext(SecurityHandle& context) = 0;
  virtual int32_t FreeCredentials(SecurityHandle& credential) = 0;
  virtual void FreeBuffer(void* buffer) = 0;
};

// Impersonation of a session's user on the calling thread.
class IImpersonation {
 public:
  virtual ~IImpersonation() = default;
  // DuplicateToken(primary, SecurityImpersonation): an impersonation token,
  // closed by its destructor. False on failure.
  virtual bool DuplicateForImpersonation(IUserToken& primary,
                                         std::unique_ptr<IUserToken>& impersonation) = 0;
  // SetThreadToken(calling thread, token). False on failure.
  virtual bool SetThreadToken(IUserToken& impersonation) = 0;
};

}  // namespace lindqvar
