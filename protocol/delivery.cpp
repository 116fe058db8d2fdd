#include "protocol/delivery.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstring>

#include "platform/log.h"
#include "platform/os.h"
#include "platform/support.h"

namespace lindqvar {

namespace {

// What the agent says it is in its hello.
constexpr char kAgentVersionText[] = "Velmora Extension 1.1";
// The server's version text must fit in this many bytes, terminator included.
constexpr size_t kServerVersionSize = 32;

// Values of a bytes or string attribute: only those have a checked length
// (a group's length is never checked by the walk), so only they are copied.
bool HasData(const CDecoder& decoder) {
  return decoder.type() == TYPE_BYTES || decoder.type() == TYPE_STRING;
}

}  // namespace

void compute_response(uint8_t challenge[16], const uint8_t key[16], uint8_t digest[16]) {
  for (int i = 0; i < 16; ++i) challenge[i] ^= key[i];
  unsigned int size = 16;
  EVP_Digest(challenge, 16, digest, &size, EVP_md5(), nullptr);
}

void preshared_key_block(const std::string& presharedKey, uint8_t key[16]) {
  std::memset(key, 0, 16);
  // A bounded copy of 16 bytes: it stops at a NUL like the C copy it stands
  // for, and a longer key is cut to its first 16 bytes.
  for (size_t i = 0; i < 16 && i < presharedKey.size() && presharedKey[i] != '\0'; ++i)
    key[i] = static_cast<uint8_t>(presharedKey[i]);
}

const char* ExchangeStageName(ExchangeStage stage) {
  switch (stage) {
    case ExchangeStage::kResolve: return "resolve";
    case ExchangeStage::kSocket: return "socket";
    case ExchangeStage::kConnect: return "connect";
    case ExchangeStage::kVerify: return "verify";
    case ExchangeStage::kHello: return "hello";
    case ExchangeStage::kHelloParse: return "hello-parse";
    case ExchangeStage::kHelloAck: return "hello-ack";
    case ExchangeStage::kHelloReject: return "hello-reject";
    case ExchangeStage::kEventAck: return "event-ack";
    case ExchangeStage::kDone: return "done";
  }
  return "unknown";
}

CAuthenticatorClient::CAuthenticatorClient(CLog& log, ISupportLibrary& support,
                                           INetwork& network, const Timings& timings,
                                           const CertificateMaterial& material)
    : m_log(log),
      m_support(support),
      m_resolver(network, log),
      m_tls(log, support, timings, material) {}

void CAuthenticatorClient::SetTickLogging(bool on) {
  m_bLogTickCount = on ? 1 : 0;
  m_resolver.SetTickLogging(on);
}

void CAuthenticatorClient::SetConfiguration(DeliveryConfigPtr config) {
  std::lock_guard<std::mutex> lock(m_configLock);
  m_config = std::move(config);
}

void CAuthenticatorClient::SetLocalAddress(const IpAddress& address) {
  std::lock_guard<std::mutex> lock(m_configLock);
  m_localAddress = address;
}

DeliveryConfigPtr CAuthenticatorClient::Configuration() const {
  std::lock_guard<std::mutex> lock(m_configLock);
  return m_config;
}

DeliveryResult CAuthenticatorClient::Deliver(uint32_t session, const CEncoder& event) {
  std::lock_guard<std::mutex> pass(m_passLock);
  m_pass = Configuration();
  bool anySucceeded = false;
  if (m_pass) {
    CDecoder decoder;
    for (const auto& server : m_pass->servers) {
      if (!server) continue;
      SetCurrentServer(*server);
      if (SendAndReceive(session, &event, decoder)) anySucceeded = true;
    }
  }
  m_pass.reset();

  if (m_reachability) m_reachability(anySucceeded ? 2 : 1);
  DeliveryResult result;
  result.delivered = anySucceeded;
  const IpAddress last = m_resolver.LastAddress();
  if (last.Family() == kFamilyIPv4) result.serverIPv4 = last.IPv4();
  return result;
}

uint32_t CAuthenticatorClient::ReceiveServerReply(CTlsConnection& connection, CDecoder& decoder) {
  // A message longer than kMaxMessageLength fails the receive. The
  // connection bounds the time it may take.
  return connection.ReceiveMessage(decoder);
}

void CAuthenticatorClient::Report(ExchangeReport& report, ExchangeStage stage) {
  report.stage = stage;
  if (m_pObserver) m_pObserver->OnExchange(report);
}

uint32_t CAuthenticatorClient::SendAndReceive(uint32_t session, const CEncoder* event,
                                              CDecoder& decoder, ExchangeMode mode) {
  CEncoder reply(kReplyEncoderCapacity);
  const auto tid = static_cast<int>(CurrentThreadId());
  ExchangeReport report;
  report.server = m_currentServer;
  m_pReport = &report;
  if (m_pObserver) m_pObserver->OnExchangeStart(m_currentServer);

  CTlsConnection connection;
  uint32_t result = 0;
  ExchangeStage stage = ExchangeStage::kResolve;
  do {
    TlsTarget target;
    if (!m_resolver.resolve_server(m_currentServer, &target.address)) break;
    report.address = target.address;

    stage = ExchangeStage::kSocket;
    connection.socket = CSocket::Open(target.address.Family());
    if (!connection.socket.valid() || connection.socket.native() == 0) {
      m_log.Error("SendAndReceive(), failed to call socket()");
      break;
    }

    IpAddress local;
    {
      std::lock_guard<std::mutex> lock(m_configLock);
      local = m_localAddress;
    }
    if (m_bLogTickCount)
      m_log.Debug("SendAndReceive(), Local IP:%s, BRK IP:%s, BRK Port:%d, TICC:%d, TID:%d",
                  local.Text(), target.address.Text(), static_cast<int>(m_currentServer.port),
                  static_cast<int>(TickCount()), tid);
    else
      m_log.Debug("SendAndReceive(), Local IP:%s, BRK IP:%s, BRK Port:%d, TID:%d", local.Text(),
                  target.address.Text(), static_cast<int>(m_currentServer.port), tid);

    stage = ExchangeStage::kConnect;
    const void* nul = std::memchr(m_currentServer.host, '\0', sizeof m_currentServer.host);
    target.name.assign(m_currentServer.host, nul ? static_cast<const char*>(nul) -
                                                       m_currentServer.host
                                                 : sizeof m_currentServer.host);
    target.port = m_currentServer.port;
    const uint32_t tlsUp = m_tls.SslClientInit(connection, target);
    report.certificate = connection.serverCheck;
    if (!tlsUp) {
      // A refused server never sees the hello, nor (later) the NTLM relay.
      if (connection.serverCheck.refused) stage = ExchangeStage::kVerify;
      break;
    }
    if (m_pObserver && connection.ssl) {
      report.tlsVersion = SSL_get_version(connection.ssl);
      report.cipher = SSL_get_cipher_name(connection.ssl);
    }

    stage = ExchangeStage::kHello;
    if (!ReceiveServerReply(connection, decoder)) {
      m_log.Error("ReceiveServerReply(), failed to receive hello message from authenticator, TID:%d",
                  tid);
      break;
    }
    stage = ExchangeStage::kHelloParse;
    if (!process_hello(decoder, reply)) {
      m_log.Error("process_hello(), failed to process hello message from authenticator, TID:%d",
                  tid);
      break;
    }

    stage = ExchangeStage::kHelloAck;
    uint32_t replyLength = 0;
    const uint8_t* replyBytes = reply.get_buffer(&replyLength);
    connection.Write(replyBytes, replyLength);  // a failed write shows as the next read failing
    if (!ReceiveServerReply(connection, decoder)) {
      m_log.Error(
          "ReceiveServerReply(), failed to receive hello ack message from authenticator, TID:%d",
          tid);
      break;
    }
    stage = ExchangeStage::kHelloReject;
    if (!process_hello_ack(decoder)) {
      m_log.Error(
          "process_hello_ack(), failed to process hello ack message from authenticator, please "
          "check your preshared key, TID:%d",
          tid);
      break;
    }

    if (mode == ExchangeMode::kHelloOnly || !event) {
      stage = ExchangeStage::kDone;
      result = 1;
      break;
    }

    stage = ExchangeStage::kEventAck;
    uint32_t eventLength = 0;
    const uint8_t* eventBytes = event->get_buffer(&eventLength);
    connection.Write(eventBytes, eventLength);
    if (!ReceiveServerReply(connection, decoder)) {
      m_log.Error(
          "ReceiveServerReply(), failed to receive logon event ack message from authenticator, "
          "TID:%d",
          tid);
      break;
    }

    // Whatever the acknowledgement says (also when it is not one), the event
    // was delivered.
    stage = ExchangeStage::kDone;
    result = 1;
    if (process_event_ack(decoder) == 2) {
      m_log.Debug("Start NTLM authentication on session %d, TID:%d", static_cast<int>(session), tid);
      if (m_pNtlmRelay) m_pNtlmRelay->NtlmAuthenticate(connection, session);
    }
  } while (false);

  close_connection(connection);
  m_pReport = nullptr;
  if (mode == ExchangeMode::kEvent) {
    if (result)
      m_log.Debug("SendAndReceive(), succeeded to send event to authenticator, TID:%d", tid);
    else
      m_log.Error("SendAndReceive(), failed to send event to authenticator, TID:%d", tid);
  }
  Report(report, stage);
  return result;
}

uint32_t CAuthenticatorClient::process_hello(CDecoder& decoder, CEncoder& reply) {
  if (!decoder.next() || decoder.code() != MSG_HELLO) return 0;

  uint32_t id = 0;
  uint32_t flags = 0;
  char version[kServerVersionSize] = {};
  uint8_t challenge[16] = {};
  while (decoder.next()) {
    switch (decoder.code()) {
      case ATTR_ID:
        id = decoder.value_u32();
        break;
      case ATTR_HELLO_FLAGS:
        flags = decoder.value_u32();
        break;
      case ATTR_VERSION_TEXT:
        if (!HasData(decoder)) break;
        // A text that does not fit is a malformed hello: refused like any
        // other, so that no server can end the agent's process with it.
        if (decoder.value_size() >= kServerVersionSize) return 0;
        std::memcpy(version, decoder.value_data(), decoder.value_size());
        version[decoder.value_size()] = '\0';
        break;
      case ATTR_DIGEST:
        if (!HasData(decoder)) break;
        std::memset(challenge, 0, sizeof challenge);
        std::memcpy(challenge, decoder.value_data(),
                    decoder.value_size() < sizeof challenge ? decoder.value_size()
                                                            : sizeof challenge);
        break;
      default:
        break;
    }
  }

  uint8_t response[16] = {};
  if (flags & 1) {
    // Outside a pass (a single exchange) the key in force now is used.
    const DeliveryConfigPtr config = m_pass ? m_pass : Configuration();
    uint8_t key[16];
    // Both arms are lvalues, so the key is read in place, never copied into
    // a temporary that nobody wipes.
    static const std::string kNoKey;
    preshared_key_block(config ? config->presharedKey : kNoKey, key);
    compute_response(challenge, key, response);
    // Both hold key material now (the challenge was XORed with the key).
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(challenge, sizeof challenge);
  }

  reply.begin_group(MSG_HELLO);
  reply.add_u32(ATTR_ID, id);
  reply.add_u32(ATTR_HELLO_FLAGS, flags);
  reply.add_string(ATTR_VERSION_TEXT, kAgentVersionText,
                   static_cast<uint32_t>(sizeof kAgentVersionText - 1), 0);
  reply.add_bytes(ATTR_DIGEST, response, sizeof response);
  std::u16string guid;
  if (m_support.cfg_get_velmora_guid(guid) && !guid.empty()) {
    const std::string utf8 = WideToUtf8(guid);
    reply.add_bytes(ATTR_CLIENT_GUID, utf8.data(), static_cast<uint32_t>(utf8.size()));
  }
  reply.end_group(MSG_HELLO);

  if (m_pReport) {
    m_pReport->helloId = id;
    m_pReport->helloFlags = flags;
    m_pReport->serverVersion = version;
  }
  return 1;
}

uint32_t CAuthenticatorClient::process_hello_ack(CDecoder& decoder) {
  if (!decoder.next() || decoder.code() != MSG_HELLO_ACK) return 0;
  uint32_t result = 0;
  while (decoder.next()) {
    if (decoder.code() == ATTR_HELLO_RESULT) result = decoder.value_u32();
  }
  if (m_pReport) m_pReport->helloResult = result;
  return result == 1 ? 1 : 0;
}

uint32_t CAuthenticatorClient::process_event_ack(CDecoder& decoder) {
  if (!decoder.next() || decoder.code() != MSG_EVENT_ACK) return 0;
  uint32_t result = 0;
  uint32_t interval = 0;
  while (decoder.next()) {
    if (decoder.code() == ATTR_EVENT_RESULT) {
      result = decoder.value_u32();
    } else if (decoder.code() == ATTR_KEEPALIVE_INTERVAL) {
      interval = decoder.value_u32();
      if (interval != 0 && interval != m_dwKeepAliveInterval.load()) m_dwKeepAliveInterval = interval;
    }
  }
  if (m_pReport) {
    m_pReport->eventAckRecognised = true;
    m_pReport->eventResult = result;
    m_pReport->keepAliveInterval = interval;
  }
  return result;
}

}  // namespace lindqvar
