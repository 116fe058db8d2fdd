#include "protocol/delivery/server_dialogue.h"

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstring>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/support.h"
#include "protocol/messages/event.h"

namespace lindqvar {

Hello AnswerHello(const Hello& hello, const std::string& presharedKey,
                  const std::string& clientGuid) {
  Hello answer;
  answer.id = hello.id;
  answer.flags = hello.flags;
  answer.version = kAgentVersionText;
  answer.clientGuid = clientGuid;
  if (hello.flags & kHelloDigestRequired) {
    uint8_t key[16];
    uint8_t challenge[16];
    PresharedKeyBlock(presharedKey, key);
    std::memcpy(challenge, hello.digest.data(), sizeof challenge);
    compute_response(challenge, key, answer.digest.data());
    // Both hold key material now (the challenge was XORed with the key).
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(challenge, sizeof challenge);
  }
  return answer;
}

namespace {

// One dialogue: what it is about, and its steps, each returning the stage
// it reached (the next one to take when it passed).
class CServerDialogue {
 public:
  CServerDialogue(const DialogueParts& parts, const ServerEntry& server,
                  const std::string& presharedKey, const IpAddress& localAddress)
      : m_parts(parts),
        m_server(server),
        m_presharedKey(presharedKey),
        m_localAddress(localAddress),
        m_threadId(static_cast<int>(CurrentThreadId())) {}

  ExchangeReport Run(uint32_t session, const CEncoder* event) {
    ExchangeReport report;
    report.server = m_server;
    CTlsConnection connection;
    CDecoder decoder;  // each message received replaces the one before
    ExchangeStage stage = Connect(connection, report);
    if (stage == ExchangeStage::kHello) stage = Greet(connection, decoder, report);
    if (stage == ExchangeStage::kEventAck)
      stage =
          event ? SendEvent(connection, decoder, session, *event, report) : ExchangeStage::kDone;
    close_connection(connection);

    if (event) {
      if (stage == ExchangeStage::kDone)
        m_parts.log.Debug("SendAndReceive(), succeeded to send event to authenticator, TID:%d",
                          m_threadId);
      else
        m_parts.log.Error("SendAndReceive(), failed to send event to authenticator, TID:%d",
                          m_threadId);
    }
    report.stage = stage;
    return report;
  }

 private:
  // Resolution, socket, TCP connect and TLS set-up: kHello when the TLS
  // session is up.
  ExchangeStage Connect(CTlsConnection& connection, ExchangeReport& report) {
    TlsTarget target;
    if (!m_parts.resolver.resolve_server(m_server, &target.address)) return ExchangeStage::kResolve;
    report.address = target.address;

    CSocket& socket = connection.Socket();
    socket = CSocket::Open(target.address.Family());
    if (!socket.Valid() || socket.Native() == 0) {
      m_parts.log.Error("SendAndReceive(), failed to call socket()");
      return ExchangeStage::kSocket;
    }
    if (m_parts.tickLogging)
      m_parts.log.Debug("SendAndReceive(), Local IP:%s, BRK IP:%s, BRK Port:%d, TICC:%d, TID:%d",
                        m_localAddress.Text(), target.address.Text(),
                        static_cast<int>(m_server.port), static_cast<int>(TickCount()), m_threadId);
    else
      m_parts.log.Debug("SendAndReceive(), Local IP:%s, BRK IP:%s, BRK Port:%d, TID:%d",
                        m_localAddress.Text(), target.address.Text(),
                        static_cast<int>(m_server.port), m_threadId);

    // The configured name, bounded by its field in case it lacks a terminator.
    const void* nul = std::memchr(m_server.host, '\0', sizeof m_server.host);
    target.name.assign(m_server.host,
                       nul ? static_cast<const char*>(nul) - m_server.host : sizeof m_server.host);
    target.port = m_server.port;
    const uint32_t up = m_parts.tls.SslClientInit(connection, target);
    report.certificate = connection.ServerCheck();
    // A refused server never sees the hello, nor (later) the NTLM relay.
    if (!up)
      return connection.ServerCheck().refused ? ExchangeStage::kVerify : ExchangeStage::kConnect;
    report.tlsVersion = SSL_get_version(connection.Ssl());
    report.cipher = SSL_get_cipher_name(connection.Ssl());
    return ExchangeStage::kHello;
  }

  // The hello, the agent's answer and the hello acknowledgement: kEventAck
  // when the hello was accepted.
  ExchangeStage Greet(CTlsConnection& connection, CDecoder& decoder, ExchangeReport& report) {
    if (!connection.ReceiveMessage(decoder)) {
      m_parts.log.Error(
          "ReceiveServerReply(), failed to receive hello message from authenticator, TID:%d",
          m_threadId);
      return ExchangeStage::kHello;
    }
    Hello hello;
    if (!hello.Read(decoder)) {
      m_parts.log.Error(
          "process_hello(), failed to process hello message from authenticator, TID:%d",
          m_threadId);
      return ExchangeStage::kHelloParse;
    }
    report.helloId = hello.id;
    report.helloFlags = hello.flags;
    report.serverVersion = hello.version;

    std::u16string guid;
    std::string clientGuid;
    if (m_parts.support.cfg_get_velmora_guid(guid) && !guid.empty()) clientGuid = WideToUtf8(guid);
    CEncoder reply(kReplyEncoderCapacity);
    AnswerHello(hello, m_presharedKey, clientGuid).Write(reply);
    connection.WriteMessage(reply);  // a failed write shows as the next read failing
    if (!connection.ReceiveMessage(decoder)) {
      m_parts.log.Error(
          "ReceiveServerReply(), failed to receive hello ack message from authenticator, TID:%d",
          m_threadId);
      return ExchangeStage::kHelloAck;
    }
    HelloAck ack;
    const bool accepted = ack.Read(decoder) && ack.result == 1;
    report.helloResult = ack.result;
    if (!accepted) {
      m_parts.log.Error(
          "process_hello_ack(), failed to process hello ack message from authenticator, please "
          "check your preshared key, TID:%d",
          m_threadId);
      return ExchangeStage::kHelloReject;
    }
    return ExchangeStage::kEventAck;
  }

  // The event and its acknowledgement, then the NTLM relay when the
  // acknowledgement asks for it: kDone once an acknowledgement (of any
  // kind) came.
  ExchangeStage SendEvent(CTlsConnection& connection, CDecoder& decoder, uint32_t session,
                          const CEncoder& event, ExchangeReport& report) {
    connection.WriteMessage(event);
    if (!connection.ReceiveMessage(decoder)) {
      m_parts.log.Error(
          "ReceiveServerReply(), failed to receive logon event ack message from authenticator, "
          "TID:%d",
          m_threadId);
      return ExchangeStage::kEventAck;
    }
    // Whatever the acknowledgement says (also when it is not one), the event
    // was delivered.
    EventAck ack;
    report.eventAckRecognised = ack.Read(decoder);
    report.eventResult = ack.result;
    report.keepAliveInterval = ack.keepAliveInterval;
    if (ack.result == kEventResultNtlmRequired) {
      m_parts.log.Debug("Start NTLM authentication on session %d, TID:%d",
                        static_cast<int>(session), m_threadId);
      if (m_parts.ntlmRelay) m_parts.ntlmRelay->NtlmAuthenticate(connection, session);
    }
    return ExchangeStage::kDone;
  }

  const DialogueParts& m_parts;
  const ServerEntry& m_server;
  const std::string& m_presharedKey;
  const IpAddress m_localAddress;
  const int m_threadId;
};

}  // namespace

ExchangeReport SendAndReceive(const DialogueParts& parts, const ServerEntry& server,
                              const std::string& presharedKey, const IpAddress& localAddress,
                              uint32_t session, const CEncoder* event) {
  return CServerDialogue(parts, server, presharedKey, localAddress).Run(session, event);
}

}  // namespace lindqvar
