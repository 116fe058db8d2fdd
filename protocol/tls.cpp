#include "protocol/tls.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/log.h"
#include "platform/support.h"
#include "protocol/ip_address.h"
#include "protocol/vlx_crypt.h"

namespace lindqvar {

void InitTlsLibrary() {
  // Once configuration loading has been declined, later initialisations
  // (with or without the flag) never load it either.
  OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_LOAD_SSL_STRINGS |
                       OPENSSL_INIT_LOAD_CRYPTO_STRINGS,
                   nullptr);
}

namespace {

constexpr const char kSslClientInit[] = "CSessionManager::SslClientInit";
// The line number that the connect-readiness line carries, fixed like the
// numbers in the other "%s:%d" lines of the agent.
constexpr int kConnectReadyLine = 2496;

// Which pass phrase the callback hands out: 0 the 16-byte blob, 1 the
// 32-byte one. Process-wide, set by load_client_identity.
std::atomic<int> g_passPhraseSelector{0};

struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
struct X509InfoStackFree {
  void operator()(STACK_OF(X509_INFO) * s) const { sk_X509_INFO_pop_free(s, X509_INFO_free); }
};
using UniqueBio = std::unique_ptr<BIO, BioFree>;
using UniqueX509 = std::unique_ptr<X509, X509Free>;
using UniquePkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

UniqueBio TextBio(const CSecureBuffer& text) {
  // Length -1: the BIO reads the NUL-terminated text that decrypt_blob made.
  return UniqueBio(BIO_new_mem_buf(text.data(), -1));
}

}  // namespace

CTlsConnection::~CTlsConnection() { close_connection(*this); }

void CTlsConnection::StartExchange(uint32_t messageLimitMs, uint32_t exchangeLimitMs) {
  m_limited = true;
  m_expired = false;
  m_messageLimitMs = messageLimitMs;
  m_exchangeDeadline = Clock::now() + std::chrono::milliseconds(exchangeLimitMs);
  m_messageDeadline = m_exchangeDeadline;
}

void CTlsConnection::BeginMessage() {
  if (!m_limited) return;
  m_messageDeadline = std::min(m_exchangeDeadline,
                               Clock::now() + std::chrono::milliseconds(m_messageLimitMs));
}

uint32_t CTlsConnection::ExchangeTimeLeftMs() const {
  if (!m_limited) return UINT32_MAX;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_exchangeDeadline - Clock::now());
  return left.count() > 0 ? static_cast<uint32_t>(left.count()) : 0;
}

template <typename Call>
int CTlsConnection::Drive(Call call) {
  if (!ssl || m_expired) return -1;
  for (;;) {
    ERR_clear_error();  // SSL_get_error reads the queue: no stale entries
    const int result = call();
    if (result > 0) return result;
    const int error = SSL_get_error(ssl, result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return result;
    // Without limits the call is the plain one: it blocks in the socket.
    if (!m_limited) return result;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_messageDeadline - Clock::now()).count();
    if (left <= 0) {
      m_expired = true;
      return -1;
    }
    const auto waitMs = static_cast<uint32_t>(left);
    const bool ready = error == SSL_ERROR_WANT_WRITE ? socket.WaitWritable(waitMs)
                                                     : socket.WaitReadable(waitMs);
    if (!ready) {
      // The limit passed (or the wait itself failed): a TLS stream cut off
      // in the middle of a record cannot go on.
      m_expired = true;
      return -1;
    }
  }
}

int CTlsConnection::Handshake() {
  BeginMessage();
  return Drive([this] { return SSL_connect(ssl); });
}

int CTlsConnection::Write(const uint8_t* data, uint32_t size) {
  BeginMessage();
  return Drive([&] { return SSL_write(ssl, data, static_cast<int>(size)); });
}

int CTlsConnection::Read(void* data, int size) {
  return Drive([&] { return SSL_read(ssl, data, size); });
}

uint32_t CTlsConnection::ReceiveMessage(CDecoder& decoder) {
  BeginMessage();
  return lindqvar::ReceiveMessage(
      decoder, [this](void* buffer, int count) { return Read(buffer, count); });
}

uint32_t close_connection(CTlsConnection& connection) {
  if (connection.ssl) {
    SSL_set_quiet_shutdown(connection.ssl, 1);
    SSL_shutdown(connection.ssl);
    SSL_free(connection.ssl);
    connection.ssl = nullptr;
  }
  if (connection.socket.valid()) {
    connection.socket.ShutdownBoth();
    connection.socket.Close();
  }
  return 1;
}

int aes_128_cbc(const std::array<uint8_t, 16>& key, const uint8_t* input, uint32_t length,
                int encrypt, CSecureBuffer& out) {
  out.reset();
  static const uint8_t kZeroIv[16] = {};
  std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
  if (!ctx || !input) return -1;
  if (EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key.data(), kZeroIv,
                        encrypt ? 1 : 0) != 1)
    return -1;
  CSecureBuffer buffer(static_cast<size_t>(length) + 32);
  if (!buffer.data()) return -1;
  int produced = 0;
  if (EVP_CipherUpdate(ctx.get(), buffer.data(), &produced, input, static_cast<int>(length)) != 1)
    return -1;
  int last = 0;
  if (EVP_CipherFinal_ex(ctx.get(), buffer.data() + produced, &last) != 1) return -1;
  buffer.set_size(static_cast<size_t>(produced) + static_cast<size_t>(last));
  out = std::move(buffer);
  return 0;
}

int decrypt_blob(const CertificateMaterial& material, const CertificateItem& item,
                 CSecureBuffer& out) {
  out.reset();
  CSecureBuffer plain;
  if (aes_128_cbc(material.key, item.data, item.length, 0, plain) != 0 || plain.empty()) return -1;
  CSecureBuffer text(plain.size() + 1);
  if (!text.data()) return -1;
  std::memcpy(text.data(), plain.data(), plain.size());
  text.data()[plain.size()] = 0;
  text.set_size(plain.size());
  out = std::move(text);
  return 0;
}

int load_ca_bundle(SSL_CTX* context, const CertificateMaterial& material) {
  CSecureBuffer text;
  if (!context || decrypt_blob(material, material.caBundle, text) != 0) return -1;
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  UniqueBio bio = TextBio(text);
  if (!store || !bio) return -1;
  std::unique_ptr<STACK_OF(X509_INFO), X509InfoStackFree> infos(
      PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
  if (!infos) return -1;
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (info && info->x509) X509_STORE_add_cert(store, info->x509);
  }
  return 0;
}

int load_client_identity(SSL_CTX* context, const CertificateMaterial& material, int mode,
                         ISupportLibrary& support) {
  g_passPhraseSelector.store(mode == 1 ? 1 : 0);
  CSecureBuffer certText, keyText;
  if (decrypt_blob(material, material.clientCertificate, certText) != 0) return -1;
  if (decrypt_blob(material, material.clientKey, keyText) != 0) return -1;
  if (!context) return -1;

  UniqueBio certBio = TextBio(certText);
  UniqueX509 certificate(certBio ? PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr)
                                 : nullptr);
  if (!certificate) return -1;
  if (support.cfg_is_fips_mode_enabled() && !VlxX509IsFipsCompliant(certificate.get())) return -1;
  if (SSL_CTX_use_certificate(context, certificate.get()) != 1) return -1;

  // The key must be an RSA key, as the product's material always is.
  UniqueBio keyBio = TextBio(keyText);
  UniquePkey key(keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, pass_phrase_callback,
                                                  const_cast<CertificateMaterial*>(&material))
                        : nullptr);
  if (!key || !EVP_PKEY_is_a(key.get(), "RSA")) return -1;
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1) return -1;
  return 0;
}

int pass_phrase_callback(char* buffer, int size, int /*rwflag*/, void* userdata) {
  if (!buffer || size <= 0 || !userdata) return 0;
  const auto& material = *static_cast<const CertificateMaterial*>(userdata);
  const CertificateItem& item =
      g_passPhraseSelector.load() == 1 ? material.alternativePassPhrase : material.passPhrase;
  CSecureBuffer plain;
  if (decrypt_blob(material, item, plain) != 0) return 0;
  const size_t n = std::min(std::strlen(plain.text()), static_cast<size_t>(size) - 1);
  std::memcpy(buffer, plain.data(), n);
  buffer[n] = '\0';
  buffer[size - 1] = '\0';
  return static_cast<int>(n);
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
  m_context.store(ctx, std::memory_order_release);
  return ctx;
}

void CTlsClient::SetServerVerification(const ServerVerification& verification) {
  std::lock_guard<std::mutex> lock(m_verificationLock);
  const ServerVerification& old = m_verification;
  if (old.verify == verification.verify && old.pinsConfigured == verification.pinsConfigured &&
      old.pins == verification.pins && old.problems == verification.problems)
    return;
  m_verification = verification;
  for (const std::string& problem : verification.problems)
    m_log.Error("Server verification setting: %s", problem.c_str());
  m_log.Debug("Server verification is %s, %d pinned certificate(s)",
              verification.verify ? "on" : "off", static_cast<int>(verification.pins.size()));
}

ServerVerification CTlsClient::CurrentServerVerification() const {
  std::lock_guard<std::mutex> lock(m_verificationLock);
  return m_verification;
}

uint32_t CTlsClient::SslClientInit(CTlsConnection& connection, const TlsTarget& target) {
  m_log.Debug("%s is called", kSslClientInit);
  uint32_t result = 0;
  do {
    SSL_CTX* context = Context();
    if (!context) break;

    // The exchange's clock starts here: connect, handshake and every
    // message after it share the exchange limit.
    connection.StartExchange(m_timings.socketTimeoutMs, m_timings.exchangeLimitMs);
    CSocket& socket = connection.socket;
    socket.SetNonBlocking(true);
    socket.SetTimeouts(m_timings.socketTimeoutMs);
    SocketAddress to;
    to.family = target.address.Family() == kFamilyIPv4 ? kFamilyIPv4 : kFamilyIPv6;
    std::memcpy(to.bytes.data(), target.address.Bytes(), to.bytes.size());
    to.port = static_cast<uint16_t>(target.port);
    socket.Connect(to);  // in progress: the polls below tell how it went

    m_log.Debug("%s:%d,  check if connection is ready", kSslClientInit, kConnectReadyLine);
    bool connected = false;
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
        connected = true;
        break;
      }
    }
    if (!connected) {
      m_log.Error("SslClientInit(), failed to  connect to authenticator, error:%d", -1);
      break;
    }

    connection.ssl = SSL_new(context);
    if (!connection.ssl) {
      m_log.Error("SslClientInit(), failed to  create a new SSL structure for a connection");
      break;
    }
    if (SSL_set_fd(connection.ssl, static_cast<int>(socket.native())) == 0) {
      m_log.Error("SslClientInit(), failed to  connect the SSL object with a file descriptor");
      break;
    }
    if (!is_address_literal(target.name.c_str())) {
      SSL_set_tlsext_host_name(connection.ssl, target.name.c_str());
    } else {
      m_log.Debug("To send SNI server name to BRK, we need FQDN of BRK");
    }
    ServerCertificateCheck& check = connection.serverCheck;
    check = ServerCertificateCheck{};
    check.settings = CurrentServerVerification();
    PrepareServerVerification(connection.ssl, target.name, check);
    const int handshake = connection.Handshake();
    FinishServerVerification(connection.ssl, check);
    if (check.settings.verify && (check.seen || handshake == 1) && !check.Passes()) {
      check.refused = true;
      m_log.Error("SslClientInit(), server verification failed for authenticator %s port %d: %s",
                  target.name.c_str(), static_cast<int>(target.port),
                  check.Reason(target.name).c_str());
      break;
    }
    // Any result but 0 counts: a handshake that failed otherwise (or did not
    // finish within its limit) shows up as the first read failing.
    if (handshake != 0) result = 1;
  } while (false);

  if (!result) m_log.Error("SslClientInit(), failed to initialize ssl context");
  m_log.Debug("%s exit", kSslClientInit);
  return result;
}

}  // namespace lindqvar
