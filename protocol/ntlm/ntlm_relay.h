// The NTLM relay: when a server's event acknowledgement asks for proof of
// the session's user, the agent makes the user's NTLM tokens on a thread of
// its own that impersonates that user, and carries the NTLM messages
// (messages/ntlm_messages.h) over the same connection: message 1 (136) out,
// the server's message 2 (137) with the challenge in, message 3 (138) out,
// the result (141) in. The server, not the agent, checks the answer. The
// delivery counts the event as delivered whatever happens here; each
// failure leaves one log line, never a token. With server verification on,
// the proof is bound to the verified server (its service name and the TLS
// channel bindings); with it off, the first relay of the process logs a
// warning.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/log.h"
#include "platform/security_package.h"
#include "protocol/ntlm/ntlm_package.h"
#include "protocol/transport/tls_connection.h"

namespace lindqvar {

class ISupportLibrary;

// What the dialogue runs when an event acknowledgement asks for NTLM proof
// (delivery/server_dialogue.h).
class INtlmRelay {
 public:
  virtual ~INtlmRelay() = default;
  virtual void NtlmAuthenticate(CTlsConnection& connection, uint32_t session) = 0;
};

// How a relay ended, for tools that show it.
struct NtlmOutcome {
  uint32_t key = 0;     // 0: no key taken
  int32_t result = -1;  // the server's result word; -1 when none was read
  std::string failure;  // the failure's log text; empty when a result came
};

class CNtlmRelay : public INtlmRelay {
 public:
  CNtlmRelay(CLog& log, ISupportLibrary& support, IImpersonation& impersonation,
             CNtlmPackage& package)
      : m_log(log), m_support(support), m_impersonation(impersonation), m_package(package) {}

  // Runs the relay on a new thread and waits for it without a time limit
  // (the connection's own limits bound it).
  void NtlmAuthenticate(CTlsConnection& connection, uint32_t session) override;

  // Tools only: make the tokens from these credentials instead of the
  // session user's own (still impersonating the user). Null: the agent's way.
  void SetExplicitCredentials(const AuthIdentity* identity) { m_identity = identity; }

  // The last exchange key handed out (100000 before the first relay).
  uint32_t LastKey() const { return m_dwNtlmKey.load(); }
  NtlmOutcome LastOutcome() const;

 private:
  // The relay thread: the session user's impersonation, then the exchange.
  NtlmOutcome Relay(CTlsConnection& connection, uint32_t session, const ContextBinding& binding);
  // The four messages under `key`, the package's context keyed by the
  // connection's socket number and `key`.
  NtlmOutcome Exchange(CTlsConnection& connection, uint32_t socketKey, uint32_t key,
                       const ContextBinding& binding);

  CLog& m_log;
  ISupportLibrary& m_support;
  IImpersonation& m_impersonation;
  CNtlmPackage& m_package;
  const AuthIdentity* m_identity = nullptr;
  // Relays run under the session-table lock and never overlap; atomic only
  // so that tools may read it from another thread.
  std::atomic<uint32_t> m_dwNtlmKey{100000};
  // The warning about relaying to an unverified server is logged once.
  std::atomic<bool> m_warnedUnverified{false};
  mutable std::mutex m_outcomeLock;
  NtlmOutcome m_lastOutcome;
};

}  // namespace lindqvar
