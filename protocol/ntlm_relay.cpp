#include "protocol/ntlm_relay.h"

#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include "platform/os.h"
#include "protocol/codec.h"
#include "protocol/server_verification.h"
#include "protocol/tls.h"

namespace lindqvar {

namespace {

bool SendNtlmMessage(CTlsConnection& connection, uint8_t code, uint32_t key,
                     const std::string& token) {
  CEncoder message(kReplyEncoderCapacity);
  message.begin_message(code);
  message.add_u32(ATTR_ID, key);
  message.add_bytes(ATTR_NTLM_TOKEN, token.c_str(), static_cast<uint32_t>(token.size()));
  message.end_group(code);
  uint32_t length = 0;
  const uint8_t* bytes = message.get_buffer(&length);
  // A failed write shows as the next read failing.
  return bytes && connection.Write(bytes, length) > 0;
}

// The binding of a proof to the server the connection verified: the
// service name of the configured host, and the channel bindings of the
// server's certificate.
bool BindingOfVerifiedServer(CTlsConnection& connection, ContextBinding& binding) {
  const ServerCertificateCheck& check = connection.serverCheck;
  if (!connection.ssl || !check.Passes()) return false;
  std::string host = check.host;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  if (host.empty()) return false;
  const std::vector<uint8_t> endPoint = TlsServerEndPoint(SSL_get0_peer_certificate(connection.ssl));
  if (endPoint.empty()) return false;
  binding.targetName = Utf8ToWide("HOST/" + host);
  binding.channelBindings = ChannelBindingsBlock(endPoint);
  return true;
}

}  // namespace

void CNtlmRelay::NtlmAuthenticate(CTlsConnection& connection, uint32_t session) {
  NtlmOutcome outcome;
  ContextBinding binding;
  if (connection.serverCheck.settings.verify) {
    // A verified server gets a proof that is good for it alone; a proof
    // that cannot be bound is not made.
    if (!BindingOfVerifiedServer(connection, binding)) {
      m_log.Error("Failed to bind NTLM authentication to the verified server, no NTLM authentication");
      outcome.failure = "Failed to bind NTLM authentication to the verified server";
      std::lock_guard<std::mutex> lock(m_outcomeLock);
      m_lastOutcome = outcome;
      return;
    }
  } else if (!m_bWarnedUnverified.exchange(true)) {
    m_log.Error(
        "Server verification is off (VerifyServer 0): NTLM authentication goes to whichever server "
        "answered, which may relay the user's NTLM response or guess the password from it; switch "
        "VerifyServer on with pinned certificates");
  }
  // A thread of its own, so that the impersonation ends with it.
  std::thread relay([&] { Relay(connection, session, binding, outcome); });
  relay.join();
  std::lock_guard<std::mutex> lock(m_outcomeLock);
  m_lastOutcome = outcome;
}

NtlmOutcome CNtlmRelay::LastOutcome() const {
  std::lock_guard<std::mutex> lock(m_outcomeLock);
  return m_lastOutcome;
}

void CNtlmRelay::Relay(CTlsConnection& connection, uint32_t session,
                       const ContextBinding& binding, NtlmOutcome& outcome) {
  std::unique_ptr<IUserToken> impersonation;
  std::unique_ptr<char[]> challenge;
  const uint32_t socketKey = static_cast<uint32_t>(connection.socket.native());
  uint32_t key = 0;
  auto fail = [&](const char* text) {
    m_log.Error("%s", text);
    outcome.failure = text;
  };

  do {
    std::unique_ptr<IUserToken> token;
    if (!m_support.GetTokenOfSession(session, token) || !token) {
      m_log.Error("Failed to get token of session %d", static_cast<int>(session));
      outcome.failure = "Failed to get token of session";
      break;
    }
    if (!m_impersonation.DuplicateForImpersonation(*token, impersonation)) {
      impersonation.reset();
      outcome.failure = "DuplicateToken failed";
      break;  // silently, as nothing can be done about it
    }
    // From here on this thread acts as the session's user; it is not
    // reverted, the thread ends after the relay. Without the user's
    // identity the package would answer with the process's own (the
    // machine account's): nothing is sent then.
    if (!m_impersonation.SetThreadToken(*impersonation)) {
      m_log.Error("Failed to impersonate the user of session %d, no NTLM authentication",
                  static_cast<int>(session));
      outcome.failure = "Failed to impersonate the user of session";
      break;
    }
    token.reset();

    key = ++m_dwNtlmKey;
    outcome.key = key;

    std::string first;
    m_package.MakeFirstToken(socketKey, key, first, m_pIdentity,
                             binding.targetName.empty() ? nullptr : &binding);
    SendNtlmMessage(connection, MSG_NTLM_NEGOTIATE, key, first);

    CDecoder decoder;
    if (!connection.ReceiveMessage(decoder)) {
      fail("ReceiveServerReply(), failed to receive NTLM message 2 from authenticator");
      break;
    }
    if (!decoder.next() || decoder.code() != MSG_NTLM_CHALLENGE) {
      fail("msg_decode_NTLM_auth_type2(), failed to decode NTLM message 2 from authenticator");
      break;
    }
    uint32_t challengeLength = 0;
    while (decoder.next()) {
      if (decoder.code() == ATTR_ID) {
        (void)decoder.value_u32();  // read, not checked
      } else if (decoder.code() == ATTR_NTLM_TOKEN &&
                 (decoder.type() == TYPE_BYTES || decoder.type() == TYPE_STRING)) {
        // At most a received message's length (1 MiB); an allocation that
        // fails leaves no challenge, and so no message 3, not an exception.
        challengeLength = decoder.value_size();
        challenge.reset(new (std::nothrow) char[challengeLength + 1]());
        if (challenge)
          std::memcpy(challenge.get(), decoder.value_data(), challengeLength);
        else
          challengeLength = 0;
      }
    }

    std::string final;
    m_package.MakeFinalToken(socketKey, key, challenge.get(), challengeLength, final);
    if (final.empty()) {
      fail("Failed to generate message 3\n");
      break;
    }
    SendNtlmMessage(connection, MSG_NTLM_AUTHENTICATE, key, final);

    if (!connection.ReceiveMessage(decoder)) {
      fail("failed to receive NTLM auth result after message 3 from authenticator");
      break;
    }
    int32_t result = -1;
    if (decoder.next() && decoder.code() == MSG_NTLM_RESULT) {
      while (decoder.next())
        if (decoder.code() == ATTR_NTLM_STATUS && decoder.type() == TYPE_U32)
          result = static_cast<int32_t>(decoder.value_raw_u32());
    }
    outcome.result = result;
    if (result == 1)
      m_log.Debug("NTLM auth succeeded");
    else
      m_log.Error("NTLM auth failed");
  } while (false);

  // Clean-up, in this order: the impersonation token, the challenge, the
  // key's NTLM context.
  impersonation.reset();
  challenge.reset();
  if (key) m_package.DropExchange(socketKey, key);
}

}  // namespace lindqvar
