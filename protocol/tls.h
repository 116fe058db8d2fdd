// The TLS connection to an authentication server: the agent's one client
// context (made on first use and kept for the life of the process, loaded
// with the compiled-in client identity and CA bundle), a TCP connect with a
// short limit, the TLS handshake with the server name, and the teardown.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/socket.h"
#include "platform/timings.h"
#include "protocol/certificate_material.h"
#include "protocol/codec.h"
#include "protocol/ip_address.h"
#include "protocol/server_verification.h"

namespace lindqvar {

class CLog;
class ISupportLibrary;

// One connection: the socket and the TLS session on it. Both are released
// by close_connection, which the destructor runs when the owner has not.
//
// Time limits: once StartExchange has run (SslClientInit runs it before the
// connect), the socket stays non-blocking and every TLS call waits for the
// socket only as long as its limits allow. Each message written or
// received, and the TLS handshake, must complete within the message limit as
// a whole, however the peer spreads its bytes; nothing at all goes on past
// the exchange limit, counted from StartExchange. A call whose limit passes
// fails as a read that timed out does, and the connection is spent: every
// later call fails at once. Without StartExchange no limit applies.
class CTlsConnection {
 public:
  CTlsConnection() = default;
  ~CTlsConnection();
  CTlsConnection(const CTlsConnection&) = delete;
  CTlsConnection& operator=(const CTlsConnection&) = delete;

  void StartExchange(uint32_t messageLimitMs, uint32_t exchangeLimitMs);

  // SSL_connect, within the message limit; the result is SSL_connect's.
  int Handshake();
  // Writes the whole block (one message) within the message limit. The
  // result is SSL_write's, or -1 once a limit has passed.
  int Write(const uint8_t* data, uint32_t size);
  // Receives one message (length-prefixed framing, see codec.h) within the
  // message limit. 1, or 0 on failure (the decoder then holds no message).
  uint32_t ReceiveMessage(CDecoder& decoder);
  // SSL_read within the limit of the message being received (started by
  // ReceiveMessage or BeginMessage); the result is SSL_read's, or -1 once a
  // limit has passed.
  int Read(void* data, int size);
  // Starts the message limit for the Read calls that follow.
  void BeginMessage();
  // True once a limit has passed (or a wait for the socket failed).
  bool Expired() const { return m_expired; }
  // Milliseconds left before the exchange limit (UINT32_MAX without one).
  uint32_t ExchangeTimeLeftMs() const;

  CSocket socket;
  SSL* ssl = nullptr;  // freed by close_connection
  // The server's certificate as SslClientInit found it, and the settings
  // it was held to (attached to `ssl`, so it lives at least as long).
  ServerCertificateCheck serverCheck;

 private:
  using Clock = std::chrono::steady_clock;
  // Runs `call` (an SSL_* call on `ssl`) until it completes or fails,
  // waiting for the socket between attempts while the limits allow.
  template <typename Call>
  int Drive(Call call);

  bool m_limited = false;
  uint32_t m_messageLimitMs = 0;
  Clock::time_point m_exchangeDeadline{};
  Clock::time_point m_messageDeadline{};
  bool m_expired = false;
};

// Initialises OpenSSL without reading any configuration file. Programs call
// it first, before any other OpenSSL call: the agent runs as LocalSystem and
// must never take settings or modules from a file that someone else could
// have put in OpenSSL's configuration directory. Safe to call more than once.
void InitTlsLibrary();

// Quiet TLS shutdown and SSL_free, then shutdown(both) and close of the
// socket, for whatever of the two exists. Always 1.
uint32_t close_connection(CTlsConnection& connection);

// Where a connection goes: the configured name (for SNI), the port and the
// address it resolved to.
struct TlsTarget {
  std::string name;
  uint32_t port = 0;
  IpAddress address;
};

// Decrypts an item with the material's key (AES-128-CBC, zero IV) and adds a
// terminating NUL after the plain bytes, so PEM text reads as a C string.
// `out.size()` is the plain length, the NUL excluded. 0, or -1 when the
// cipher fails or the result is empty; `out` is then empty.
int decrypt_blob(const CertificateMaterial& material, const CertificateItem& item,
                 CSecureBuffer& out);

// The AES-128-CBC routine under decrypt_blob: `encrypt` 0 decrypts, 1
// encrypts. 0 or -1.
int aes_128_cbc(const std::array<uint8_t, 16>& key, const uint8_t* input, uint32_t length,
                int encrypt, CSecureBuffer& out);

// Adds every certificate of the decrypted CA bundle to the context's store.
// 0 when the bundle was read, else -1.
int load_ca_bundle(SSL_CTX* context, const CertificateMaterial& material);

// Installs the client certificate and its RSA key (read with the
// pass-phrase callback). With FIPS mode required by the configuration the
// certificate must pass VlxX509IsFipsCompliant, else it is not installed.
// `mode` 1 selects the alternative pass phrase (the agent passes 0).
// 0 when both were installed, else -1.
int load_client_identity(SSL_CTX* context, const CertificateMaterial& material, int mode,
                         ISupportLibrary& support);

// The pem_password_cb: copies the selected pass phrase (see
// load_client_identity) into `buffer`, at most size - 1 characters, always
// terminated. `userdata` is the CertificateMaterial. Returns the length
// copied, 0 on failure.
int pass_phrase_callback(char* buffer, int size, int rwflag, void* userdata);

// The client side: owns the TLS context.
class CTlsClient {
 public:
  CTlsClient(CLog& log, ISupportLibrary& support, const Timings& timings,
             const CertificateMaterial& material = BuiltInCertificateMaterial());
  ~CTlsClient();
  CTlsClient(const CTlsClient&) = delete;
  CTlsClient& operator=(const CTlsClient&) = delete;

  // Starts the connection's limits (the timings' socket limit per message,
  // the exchange limit for everything from here to the close), connects the
  // caller's socket (already created with the target's family) and runs the
  // TLS handshake. 1 when the TLS session is set up (an SSL_connect result
  // of 0 is the only handshake failure seen here; a failed handshake, or one
  // that did not finish within its limit, shows as the first read failing),
  // else 0. The socket and any SSL object are left for close_connection.
  // With server verification on, a server whose certificate does not pass
  // (see server_verification.h) fails here, with one error line that names
  // it and the reason, before the agent sends anything of the dialogue.
  uint32_t SslClientInit(CTlsConnection& connection, const TlsTarget& target);

  // Server verification for the connections that start from now on (the
  // default is off). Each problem of new settings is logged once.
  void SetServerVerification(const ServerVerification& verification);
  ServerVerification CurrentServerVerification() const;

  // The context, made on first use under a lock; null while it cannot be
  // made. A context whose identity or CA loading failed is kept as it is.
  SSL_CTX* Context();

 private:
  CLog& m_log;
  ISupportLibrary& m_support;
  const Timings m_timings;
  const CertificateMaterial& m_material;
  std::mutex m_contextLock;
  std::atomic<SSL_CTX*> m_context{nullptr};
  mutable std::mutex m_verificationLock;
  ServerVerification m_verification;
};

}  // namespace lindqvar
