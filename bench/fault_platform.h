// A platform that fails one chosen call: every interface of a Platform
// wrapped by one template, which counts the calls made through it, per
// interface, and makes the armed call fail as the system would (an error
// code, an empty answer, a failed wait) instead of passing it on. Releases
// and accessors (closing a key, freeing a buffer, the last error, a log
// line) pass on uncounted: the system reports nothing for them, and the log
// is what the sweep reads.
#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "platform/os.h"
#include "platform/platform.h"

namespace lindqvar::testing {

enum class Iface {
  kSupport,
  kRegistry,
  kNetwork,
  kSessions,
  kAccounts,
  kAdapters,
  kHyperV,
  kConsole,
  kSecurityPackage,
  kImpersonation,
  kWaits,
  kWindow,
  kCount
};
inline constexpr std::array<const char*, static_cast<size_t>(Iface::kCount)> kIfaceNames = {
    "support", "registry", "network",  "sessions",      "accounts", "adapters",
    "hyperv",  "console",  "security", "impersonation", "waits",    "window"};

// The calls counted so far and the one armed call.
class CFaultPlan {
 public:
  void Arm(Iface iface, uint64_t call) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_armed = iface;
    m_armedCall = call;
  }
  // From here on nothing fails; Reached() keeps the counts of this moment.
  void Disarm() {
    Arm(Iface::kCount, 0);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_reached = m_calls;
  }
  // Counts the call; true when it is the armed one, which is then noted.
  bool Fail(Iface iface, const char* method) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const uint64_t n = ++m_calls[static_cast<size_t>(iface)];
    if (iface != m_armed || n != m_armedCall) return false;
    m_firedMethod = method;
    m_firedStep = m_step;
    // Said at once: the run may not live to say it later.
    std::printf("fired %s %s\n", method, m_step);
    std::fflush(stdout);
    return true;
  }
  uint64_t Calls(Iface iface) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls[static_cast<size_t>(iface)];
  }
  uint64_t Reached(Iface iface) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reached[static_cast<size_t>(iface)];
  }
  // The method and the scenario step of the failed call; empty until it came.
  std::string FiredMethod() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_firedMethod;
  }
  std::string FiredStep() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_firedStep;
  }
  void SetStep(const char* step) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_step = step;
  }

 private:
  mutable std::mutex m_mutex;
  std::array<uint64_t, static_cast<size_t>(Iface::kCount)> m_calls{}, m_reached{};
  Iface m_armed = Iface::kCount;
  uint64_t m_armedCall = 0;
  std::string m_firedMethod, m_firedStep;
  const char* m_step = "";
};

// The one wrapper: an interface I, around an object it borrows or owns.
template <class I, Iface kI>
class CFaulty : public I {
 public:
  CFaulty(I& inner, CFaultPlan& plan) : m_inner(inner), m_plan(plan) {}
  CFaulty(std::unique_ptr<I> owned, CFaultPlan& plan)
      : m_owned(std::move(owned)), m_inner(*m_owned), m_plan(plan) {}

 protected:
  bool Fail(const char* method) { return m_plan.Fail(kI, method); }
  std::unique_ptr<I> m_owned;
  I& m_inner;
  CFaultPlan& m_plan;
};

// A method that fails with `failure` (a statement) when its call is armed.
#define LINDQ_FAULT(Ret, Name, Params, Args, ...) \
  Ret Name Params override {                      \
    if (this->Fail(#Name)) {                      \
      __VA_ARGS__;                                \
    }                                             \
    return this->m_inner.Name Args;               \
  }
// A method passed on uncounted.
#define LINDQ_PASS(Ret, Name, Params, Args) \
  Ret Name Params override { return this->m_inner.Name Args; }

inline constexpr uint32_t kAccessDenied = 5;               // ERROR_ACCESS_DENIED
inline constexpr int32_t kSecInternalError = -2146893052;  // SEC_E_INTERNAL_ERROR

struct CFaultySupport : CFaulty<ISupportLibrary, Iface::kSupport> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(LogHandle, log_initialize, (std::u16string_view n), (n), return nullptr)
  LINDQ_PASS(void, log_deinitialize, (LogHandle h), (h))
  LINDQ_FAULT(void, log_setlevel, (LogHandle h, uint32_t l), (h, l), return )
  LINDQ_PASS(void, log_debug, (LogHandle h, std::string_view l), (h, l))
  LINDQ_PASS(void, log_error, (LogHandle h, std::string_view l), (h, l))
  LINDQ_PASS(void, LogW, (uint32_t id, const char16_t* d), (id, d))
  LINDQ_PASS(void, LogW, (uint32_t id, uint32_t l, std::span<const LogField> f), (id, l, f))
  LINDQ_FAULT(uint32_t, get_desired_status, (uint32_t c, std::u16string_view k), (c, k), return 0)
  // A failed read leaves the caller's zero-filled record as it was.
  LINDQ_FAULT(void, cfg_get_lindqvar_settings, (uint8_t * r), (r), return )
  LINDQ_FAULT(void, cfg_get_logging_info, (uint8_t * r), (r), return )
  LINDQ_FAULT(bool, cfg_is_fips_mode_enabled, (), (), return false)
  LINDQ_FAULT(bool, cfg_get_velmora_guid, (std::u16string & g), (g), return false)
  LINDQ_FAULT(SupportKeyHandle, reg_openkeyW, (SupportHive h, std::u16string_view p), (h, p),
              return nullptr)
  LINDQ_PASS(void, reg_closekeyW, (SupportKeyHandle k), (k))
  LINDQ_FAULT(bool, reg_getstringW,
              (SupportKeyHandle k, std::u16string_view n, std::u16string& v, uint32_t* l),
              (k, n, v, l), return false)
  LINDQ_FAULT(bool, reg_valueexistsbykeyW, (SupportKeyHandle k, std::u16string_view n), (k, n),
              return false)
  LINDQ_FAULT(bool, GetTokenOfSession, (uint32_t s, std::unique_ptr<IUserToken>& t), (s, t),
              return false)
};

struct CFaultyRegistryKey : CFaulty<IRegistryKey, Iface::kRegistry> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(uint32_t, SetDword, (std::u16string_view n, uint32_t v), (n, v), return kAccessDenied)
  LINDQ_FAULT(uint32_t, QueryString, (std::u16string_view n, std::u16string& v), (n, v),
              return kAccessDenied)
  LINDQ_FAULT(uint32_t, QueryValue, (std::u16string_view n, uint32_t& t, std::vector<uint8_t>& d),
              (n, t, d), return kAccessDenied)
  uint32_t OpenSubKey(std::u16string_view p, uint32_t a,
                      std::unique_ptr<IRegistryKey>& k) override {
    if (Fail("OpenSubKey")) return kAccessDenied;
    return Wrap(m_inner.OpenSubKey(p, a, k), k, m_plan);
  }
  static uint32_t Wrap(uint32_t result, std::unique_ptr<IRegistryKey>& key, CFaultPlan& plan) {
    if (key) key = std::make_unique<CFaultyRegistryKey>(std::move(key), plan);
    return result;
  }
};

struct CFaultyRegistry : CFaulty<IRegistry, Iface::kRegistry> {
  using CFaulty::CFaulty;
  uint32_t OpenKey(RegistryHive h, std::u16string_view p, uint32_t a,
                   std::unique_ptr<IRegistryKey>& k) override {
    if (Fail("OpenKey")) return kAccessDenied;
    return CFaultyRegistryKey::Wrap(m_inner.OpenKey(h, p, a, k), k, m_plan);
  }
  uint32_t OpenKey(SupportKeyHandle s, std::u16string_view p, uint32_t a,
                   std::unique_ptr<IRegistryKey>& k) override {
    if (Fail("OpenKey")) return kAccessDenied;
    return CFaultyRegistryKey::Wrap(m_inner.OpenKey(s, p, a, k), k, m_plan);
  }
};

struct CFaultyWatch : CFaulty<IAddressChangeWatch, Iface::kNetwork> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(uint32_t, Arm, (), (), return 50)  // ERROR_NOT_SUPPORTED
  LINDQ_PASS(CEvent&, Changed, (), ())
  LINDQ_FAULT(void, Rearm, (), (), return )
};

struct CFaultyNetwork : CFaulty<INetwork, Iface::kNetwork> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(void, Startup, (), (), return )
  LINDQ_PASS(void, Cleanup, (), ())
  LINDQ_FAULT(std::string, HostName, (), (), return {})
  LINDQ_FAULT(int, Resolve, (const std::string& n, std::vector<ResolvedAddress>& o), (n, o),
              return 11002)  // WSATRY_AGAIN
  LINDQ_FAULT(bool, PhysicalDnsDomain, (std::u16string & d, uint32_t& e), (d, e), e = 234;
              return false)  // ERROR_MORE_DATA
  std::unique_ptr<IAddressChangeWatch> CreateAddressChangeWatch() override {
    if (Fail("CreateAddressChangeWatch")) return nullptr;
    auto watch = m_inner.CreateAddressChangeWatch();
    return watch ? std::make_unique<CFaultyWatch>(std::move(watch), m_plan) : nullptr;
  }
};

struct CFaultySessions : CFaulty<ISessions, Iface::kSessions> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(bool, Enumerate, (std::vector<SessionInfo> & s), (s), return false)
  LINDQ_FAULT(uint32_t, ActiveConsoleSession, (), (), return kNoSession)
};

// A failed call leaves its error for LastError, as the system's calls do.
struct CFaultyAccounts : CFaulty<IAccounts, Iface::kAccounts> {
  using CFaulty::CFaulty;
  bool Denied() {
    m_denied = true;
    return false;
  }
  uint32_t LastError() override {
    return m_denied.exchange(false) ? kAccessDenied : m_inner.LastError();
  }
  LINDQ_FAULT(bool, HasQueryUserToken, (), (), return false)
  LINDQ_FAULT(bool, QueryUserToken, (uint32_t s, std::unique_ptr<IUserToken>& t), (s, t),
              return Denied())
  LINDQ_FAULT(std::unique_ptr<IUserToken>, LinkedToken, (IUserToken & t), (t), return nullptr)
  LINDQ_FAULT(bool, TokenUserSid, (IUserToken & t, SidBytes& s), (t, s), return Denied())
  LINDQ_FAULT(bool, LookupSidAccount, (const SidBytes& s, std::u16string& n, std::u16string& d),
              (s, n, d), return Denied())
  LINDQ_FAULT(bool, LogonSessionDnsDomain, (IUserToken & t, std::u16string& d), (t, d),
              return Denied())
  LINDQ_FAULT(std::u16string, ComputerName, (), (), return {})
  LINDQ_PASS(void, AbandonToken, (std::unique_ptr<IUserToken> t), (std::move(t)))

 private:
  std::atomic<bool> m_denied{false};
};

struct CFaultyAdapters : CFaulty<IAdapters, Iface::kAdapters> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(uint32_t, AllocateAdaptersAddresses, (std::vector<AdapterAddresses> & a), (a),
              return 8)  // ERROR_NOT_ENOUGH_MEMORY
  LINDQ_FAULT(uint32_t, GetAdaptersInfo, (std::vector<AdapterInfo> & a), (a),
              return 232)  // ERROR_NO_DATA
};

struct CFaultyHyperV : CFaulty<IHyperV, Iface::kHyperV> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(void, QueryExternalPorts, (std::vector<HyperVPortRow> & r), (r), return )
};

struct CFaultyPipe : CFaulty<IConsolePipe, Iface::kConsole> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(bool, Peek, (uint32_t & a), (a), return false)
  // A short read: one byte of what was asked.
  bool Read(char* b, uint32_t s, uint32_t& r) override {
    return m_inner.Read(b, Fail("Read") && s > 1 ? 1 : s, r);
  }
};

struct CFaultyConsole : CFaulty<IConsoleRunner, Iface::kConsole> {
  using CFaulty::CFaulty;
  ConsoleStart Start(IUserToken& t, const std::string& p, const std::string& a,
                     std::unique_ptr<IConsolePipe>& pipe) override {
    if (Fail("Start")) return {ConsoleStartFailure::kProcess, kAccessDenied};
    const ConsoleStart r = m_inner.Start(t, p, a, pipe);
    if (pipe) pipe = std::make_unique<CFaultyPipe>(std::move(pipe), m_plan);
    return r;
  }
};

struct CFaultySecurityPackage : CFaulty<ISecurityPackage, Iface::kSecurityPackage> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(int32_t, QueryPackageInfo, (const std::u16string& p, std::u16string& n), (p, n),
              return kSecInternalError)
  LINDQ_FAULT(int32_t, AcquireCredentials,
              (const std::u16string& p, uint32_t u, const AuthIdentity* i, SecurityHandle& c),
              (p, u, i, c), return kSecInternalError)
  LINDQ_FAULT(int32_t, InitializeContext,
              (SecurityHandle & c, SecurityHandle* x, uint32_t f, const ContextBinding& b,
               const uint8_t* in, uint32_t n, SecurityHandle& nx, PackageBuffer& o, uint32_t& a),
              (c, x, f, b, in, n, nx, o, a), return kSecInternalError)
  LINDQ_FAULT(int32_t, CompleteToken, (SecurityHandle & c, PackageBuffer& t), (c, t),
              return kSecInternalError)
  LINDQ_FAULT(int32_t, QueryAttribute, (SecurityHandle & c, uint32_t a, ContextAttribute& o),
              (c, a, o), return kSecInternalError)
  LINDQ_PASS(int32_t, DeleteContext, (SecurityHandle & c), (c))
  LINDQ_PASS(int32_t, FreeCredentials, (SecurityHandle & c), (c))
  LINDQ_PASS(void, FreeBuffer, (void* b), (b))
};

struct CFaultyImpersonation : CFaulty<IImpersonation, Iface::kImpersonation> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(bool, DuplicateForImpersonation, (IUserToken & p, std::unique_ptr<IUserToken>& i),
              (p, i), return false)
  LINDQ_FAULT(bool, SetThreadToken, (IUserToken & i), (i), return false)
};

struct CFaultyWaits : CFaulty<IWaits, Iface::kWaits> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(WaitResult, Wait, (CEvent & e, uint32_t ms), (e, ms), SetLastErrorCode(6);
              return WaitResult::kFailed)  // ERROR_INVALID_HANDLE
  LINDQ_FAULT(int, WaitAny, (CEvent & a, CEvent& b, uint32_t ms), (a, b, ms), SetLastErrorCode(6);
              return -2)
};

struct CFaultyWindow : CFaulty<ISessionWindow, Iface::kWindow> {
  using CFaulty::CFaulty;
  LINDQ_FAULT(bool, Create, (ISessionNotificationSink & s), (s), return false)
  LINDQ_FAULT(bool, RegisterNotifications, (), (), return false)
  LINDQ_FAULT(void, Drain, (), (), return )
  LINDQ_FAULT(PumpWait, WaitForStopOrMessage, (CEvent & s, uint32_t ms), (s, ms),
              return PumpWait::kFailed)
  LINDQ_PASS(void, DestroyAndUnregister, (), ())
};

#undef LINDQ_FAULT
#undef LINDQ_PASS

// Every interface of `inner` wrapped over one plan.
class CFaultPlatform {
 public:
  CFaultPlatform(const Platform& inner, CFaultPlan& plan)
      : m_inner(inner),
        m_support(*inner.support, plan),
        m_registry(*inner.registry, plan),
        m_network(*inner.network, plan),
        m_sessions(*inner.sessions, plan),
        m_accounts(*inner.accounts, plan),
        m_adapters(*inner.adapters, plan),
        m_hyperv(*inner.hyperv, plan),
        m_console(*inner.console, plan),
        m_securityPackage(*inner.securityPackage, plan),
        m_impersonation(*inner.impersonation, plan),
        m_waits(*inner.waits, plan),
        m_window(*inner.window, plan) {}

  Platform Get() {
    Platform p = m_inner;
    p.support = &m_support;
    p.registry = &m_registry;
    p.network = &m_network;
    p.sessions = &m_sessions;
    p.accounts = &m_accounts;
    p.adapters = &m_adapters;
    p.hyperv = &m_hyperv;
    p.console = &m_console;
    p.securityPackage = &m_securityPackage;
    p.impersonation = &m_impersonation;
    p.waits = &m_waits;
    p.window = &m_window;
    return p;
  }

 private:
  Platform m_inner;
  CFaultySupport m_support;
  CFaultyRegistry m_registry;
  CFaultyNetwork m_network;
  CFaultySessions m_sessions;
  CFaultyAccounts m_accounts;
  CFaultyAdapters m_adapters;
  CFaultyHyperV m_hyperv;
  CFaultyConsole m_console;
  CFaultySecurityPackage m_securityPackage;
  CFaultyImpersonation m_impersonation;
  CFaultyWaits m_waits;
  CFaultyWindow m_window;
};

}  // namespace lindqvar::testing
