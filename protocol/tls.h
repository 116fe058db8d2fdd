// The TLS connection to an authentication server: the agent's one client
// context (made on first use and kept for the life of the process, loaded
// with the compiled-in client identity and CA bundle), a TCP connect with a
// short limit, the TLS handshake with the server name, and the teardown.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/socket.h"
#include "platform/timings.h"
#include "protocol/certificate_material.h"
#include "protocol/ip_address.h"

namespace lindqvar {

class CLog;
class ISupportLibrary;

// One connection: the socket and the TLS session on it. Both are released
// by close_connection, which the destructor runs when the owner has not.
class CTlsConnection {
 public:
  CTlsConnection() = default;
  ~CTlsConnection();
  CTlsConnection(const CTlsConnection&) = delete;
  CTlsConnection& operator=(const CTlsConnection&) = delete;

  // SSL_write of the whole block at once; the result is SSL_write's.
  int Write(const uint8_t* data, uint32_t size);
  // SSL_read; the result is SSL_read's (> 0 bytes read, else failure).
  int Read(void* data, int size);

  CSocket socket;
  SSL* ssl = nullptr;  // freed by close_connection
};

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

  // Connects the caller's socket (already created with the target's family)
  // and runs the TLS handshake. 1 when the TLS session is set up (an
  // SSL_connect result of 0 is the only handshake failure seen here; a
  // failed handshake shows as the first read failing), else 0. The socket
  // and any SSL object are left for close_connection.
  uint32_t SslClientInit(CTlsConnection& connection, const TlsTarget& target);

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
};

}  // namespace lindqvar
