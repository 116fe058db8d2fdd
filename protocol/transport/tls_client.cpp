#include "protocol/transport/tls_client.h"

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <cstring>

#include "platform/log.h"
#include "platform/support.h"
#include "protocol/transport/vlx_crypt.h"

namespace lindqvar {

namespace {

constexpr const char kSslClientInit[] = "CSessionManager::SslClientInit";
// The line number that the connect-readiness line carries, fixed like the
// numbers in the other "%s:%d" lines of the agent.
constexpr int kConnectReadyLine = 2496;

}  // namespace

void InitTlsLibrary() {
  // Once configuration loading has been declined, later initialisations
  // (with or without the flag) never load it either.
  OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_LOAD_SSL_STRINGS |
                       OPENSSL_INIT_LOAD_CRYPTO_STRINGS,
                   nullptr);
}

CTlsClient::CTlsClient(CLog& log, ISupportLibrary& support, const Timings& timings,
                       const CertificateMaterial& material)
    : m_log(log), m_support(support), m_timings(timings), m_material(material) {}

CTlsClient::~CTlsClient() {
  if (SSL_CTX* ctx = m_context.exchange(nullptr)) SSL_CTX_free(ctx);
}

SSL_CTX* CTlsClient::Context() {
  if (SSL_CTX* ctx = m_context.load(std::memory_order_acquire)) return ctx;
  std::lock_guard<std::mutex> lock(m_contextLock);
  if (SSL_CTX* ctx = m_context.load(std::memory_order_acquire)) return ctx;
  SSL_CTX* ctx = VlxTlsCtxNew(TLS_client_method());
  if (!ctx) return nullptr;
  // Their results are not checked: a context without a client identity or
  // without the CA bundle is still used (and kept).
  load_client_identity(ctx, m_material, 0, m_support);
  load_ca_bundle(ctx, m_material);
  // Read what the socket holds at once instead of each record's header and
  // body in two reads: the server's handshake flight (seven records) then
  // costs one or two system calls instead of fourteen. The bytes are the
  // same; SSL_has_pending still tells whether the session holds any.
  SSL_CTX_set_read_ahead(ctx, 1);
  m_context.store(ctx, std::memory_order_release);
  return ctx;
}

void CTlsClient::SetServerVerification(const ServerVerification& verification) {
  std::lock_guard<std::mutex> lock(m_verificationLock);
  if (m_verification == verification) return;
  m_verification = verification;
  for (const std::string& problem : verification.problems)
    m_log.Error("Server verification setting: %s", problem.c_str());
  m_log.Debug("Server verification is %s, %d pinned certificate(s)",
              verification.verify ? "on" : "off", static_cast<int>(verification.pins.size()));
}

uint32_t CTlsClient::SslClientInit(CTlsConnection& connection, const TlsTarget& target) {
  m_log.Debug("%s is called", kSslClientInit);
  const uint32_t result = SetUp(connection, target) ? 1 : 0;
  if (!result) m_log.Error("SslClientInit(), failed to initialize ssl context");
  m_log.Debug("%s exit", kSslClientInit);
  return result;
}

bool CTlsClient::SetUp(CTlsConnection& connection, const TlsTarget& target) {
  SSL_CTX* context = Context();
  if (!context) return false;
  // The exchange's clock starts here: connect, handshake and every message
  // after it share the exchange limit.
  connection.StartExchange(m_timings.socketTimeoutMs, m_timings.exchangeLimitMs);
  if (!Connect(connection, target)) return false;

  SSL*& ssl = connection.m_ssl;
  ssl = SSL_new(context);
  if (!ssl) {
    m_log.Error("SslClientInit(), failed to  create a new SSL structure for a connection");
    return false;
  }
  if (SSL_set_fd(ssl, static_cast<int>(connection.m_socket.Native())) == 0) {
    m_log.Error("SslClientInit(), failed to  connect the SSL object with a file descriptor");
    return false;
  }
  if (!is_address_literal(target.name.c_str())) {
    SSL_set_tlsext_host_name(ssl, target.name.c_str());
  } else {
    m_log.Debug("To send SNI server name to BRK, we need FQDN of BRK");
  }
  ServerCertificateCheck& check = connection.m_serverCheck;
  check = ServerCertificateCheck{};
  check.describe = m_describeCertificate;
  {
    std::lock_guard<std::mutex> lock(m_verificationLock);
    check.settings = m_verification;
  }
  PrepareServerVerification(ssl, target.name, check);
  const int handshake = connection.Handshake();
  FinishServerVerification(ssl, check);
  if (check.settings.verify && (check.seen || handshake == 1) && !check.Passes()) {
    check.refused = true;
    m_log.Error("SslClientInit(), server verification failed for authenticator %s port %d: %s",
                target.name.c_str(), static_cast<int>(target.port),
                check.Reason(target.name).c_str());
    return false;
  }
  // Any result but 0 counts: a handshake that failed otherwise (or did not
  // finish within its limit) shows up as the first read failing.
  return handshake != 0;
}

bool CTlsClient::Connect(CTlsConnection& connection, const TlsTarget& target) {
  CSocket& socket = connection.m_socket;
  socket.SetNonBlocking(true);
  socket.SetTimeouts(m_timings.socketTimeoutMs);
  SocketAddress to;
  to.family = target.address.Family() == kFamilyIPv4 ? kFamilyIPv4 : kFamilyIPv6;
  std::memcpy(to.bytes.data(), target.address.Bytes(), to.bytes.size());
  to.port = static_cast<uint16_t>(target.port);
  socket.Connect(to);  // in progress: the polls below tell how it went

  m_log.Debug("%s:%d,  check if connection is ready", kSslClientInit, kConnectReadyLine);
  for (uint32_t poll = 0; poll < m_timings.connectPolls && connection.ExchangeTimeLeftMs() > 0;
       ++poll) {
    const ConnectWait wait = socket.WaitConnected(m_timings.connectPollUs);
    if (wait == ConnectWait::kError || wait == ConnectWait::kFailed) break;
    if (wait == ConnectWait::kConnected) {
      // The socket stays non-blocking: the TLS calls wait for it within
      // their limits (see CTlsConnection), so a server that sends slowly
      // cannot hold a read past them. The system's limits are set all the
      // same.
      socket.SetTimeouts(m_timings.socketTimeoutMs);
      return true;
    }
  }
  m_log.Error("SslClientInit(), failed to  connect to authenticator, error:%d", -1);
  return false;
}

}  // namespace lindqvar
