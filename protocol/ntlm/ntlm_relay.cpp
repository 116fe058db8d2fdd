#include "protocol/ntlm/ntlm_relay.h"

#include <memory>
#include <thread>

#include "platform/os.h"
#include "platform/support.h"
#include "protocol/messages/ntlm_messages.h"
#include "protocol/transport/server_verification.h"

namespace lindqvar {

namespace {

// A failed write shows as the next read failing.
void Send(CTlsConnection& connection, const NtlmToken& message) {
  CEncoder encoder(kReplyEncoderCapacity);
  message.Write(encoder);
  connection.WriteMessage(encoder);
}

// The binding of a proof to the server the connection verified: the
// service name of the configured host, and the channel bindings of the
// server's certificate.
bool BindingOfVerifiedServer(CTlsConnection& connection, ContextBinding& binding) {
  const ServerCertificateCheck& check = connection.ServerCheck();
  if (!connection.Ssl() || !check.Passes()) return false;
  std::string host = check.host;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  if (host.empty()) return false;
  const std::vector<uint8_t> endPoint =
      TlsServerEndPoint(SSL_get0_peer_certificate(connection.Ssl()));
  if (endPoint.empty()) return false;
  binding.targetName = Utf8ToWide("HOST/" + host);
  binding.channelBindings = ChannelBindingsBlock(endPoint);
  return true;
}

}  // namespace

void CNtlmRelay::NtlmAuthenticate(CTlsConnection& connection, uint32_t session) {
  NtlmOutcome outcome;
  ContextBinding binding;
  if (connection.ServerCheck().settings.verify && !BindingOfVerifiedServer(connection, binding)) {
    // A verified server gets a proof that is good for it alone; a proof
    // that cannot be bound is not made.
    m_log.Error(
        "Failed to bind NTLM authentication to the verified server, no NTLM authentication");
    outcome.failure = "Failed to bind NTLM authentication to the verified server";
  } else {
    if (!connection.ServerCheck().settings.verify && !m_warnedUnverified.exchange(true)) {
      m_log.Error(
          "Server verification is off (VerifyServer 0): NTLM authentication goes to whichever "
          "server answered, which may relay the user's NTLM response or guess the password from "
          "it; switch VerifyServer on with pinned certificates");
    }
    // A thread of its own, so that the impersonation ends with it.
    std::thread relay([&] { outcome = Relay(connection, session, binding); });
    relay.join();
  }
  std::lock_guard<std::mutex> lock(m_outcomeLock);
  m_lastOutcome = outcome;
}

NtlmOutcome CNtlmRelay::LastOutcome() const {
  std::lock_guard<std::mutex> lock(m_outcomeLock);
  return m_lastOutcome;
}

NtlmOutcome CNtlmRelay::Relay(CTlsConnection& connection, uint32_t session,
                              const ContextBinding& binding) {
  NtlmOutcome outcome;
  std::unique_ptr<IUserToken> token;
  if (!m_support.GetTokenOfSession(session, token) || !token) {
    m_log.Error("Failed to get token of session %d", static_cast<int>(session));
    outcome.failure = "Failed to get token of session";
    return outcome;
  }
  std::unique_ptr<IUserToken> impersonation;
  if (!m_impersonation.DuplicateForImpersonation(*token, impersonation)) {
    outcome.failure = "DuplicateToken failed";  // not logged: nothing can be done about it
    return outcome;
  }
  // From here on this thread acts as the session's user; it is not
  // reverted, the thread ends after the relay. Without the user's identity
  // the package would answer with the process's own (the machine
  // account's): nothing is sent then.
  if (!m_impersonation.SetThreadToken(*impersonation)) {
    m_log.Error("Failed to impersonate the user of session %d, no NTLM authentication",
                static_cast<int>(session));
    outcome.failure = "Failed to impersonate the user of session";
    return outcome;
  }
  token.reset();

  const uint32_t key = ++m_dwNtlmKey;
  const auto socketKey = static_cast<uint32_t>(connection.Socket().Native());
  outcome = Exchange(connection, socketKey, key, binding);
  // Clean-up, in this order: the impersonation token, the key's NTLM
  // context.
  impersonation.reset();
  m_package.DropExchange(socketKey, key);
  return outcome;
}

NtlmOutcome CNtlmRelay::Exchange(CTlsConnection& connection, uint32_t socketKey, uint32_t key,
                                 const ContextBinding& binding) {
  NtlmOutcome outcome;
  outcome.key = key;
  auto fail = [&](const char* text) {
    m_log.Error("%s", text);
    outcome.failure = text;
    return outcome;
  };

  std::string first;
  m_package.MakeFirstToken(socketKey, key, first, m_identity,
                           binding.targetName.empty() ? nullptr : &binding);
  Send(connection, NtlmToken{MSG_NTLM_NEGOTIATE, key, first});

  CDecoder decoder;
  if (!connection.ReceiveMessage(decoder))
    return fail("ReceiveServerReply(), failed to receive NTLM message 2 from authenticator");
  NtlmToken challenge{MSG_NTLM_CHALLENGE};
  if (!challenge.Read(decoder))
    return fail("msg_decode_NTLM_auth_type2(), failed to decode NTLM message 2 from authenticator");

  std::string final;
  m_package.MakeFinalToken(socketKey, key, challenge.token.data(),
                           static_cast<uint32_t>(challenge.token.size()), final);
  if (final.empty()) return fail("Failed to generate message 3\n");
  Send(connection, NtlmToken{MSG_NTLM_AUTHENTICATE, key, final});

  if (!connection.ReceiveMessage(decoder))
    return fail("failed to receive NTLM auth result after message 3 from authenticator");
  NtlmResult result;
  result.Read(decoder);
  outcome.result = result.status;
  if (result.status == 1)
    m_log.Debug("NTLM auth succeeded");
  else
    m_log.Error("NTLM auth failed");
  return outcome;
}

}  // namespace lindqvar
