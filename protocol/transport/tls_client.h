// The client side of the TLS connection to an authentication server: the
// agent's one client context (made on first use and kept for the life of
// the process, loaded with the compiled-in client identity and CA bundle),
// a TCP connect with a short limit, the TLS handshake with the server name
// and, when switched on, verification of the server.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/timings.h"
#include "protocol/transport/certificate_material.h"
#include "protocol/transport/ip_address.h"
#include "protocol/transport/server_verification.h"
#include "protocol/transport/tls_connection.h"

namespace lindqvar {

class CLog;
class ISupportLibrary;

// Initialises OpenSSL without reading any configuration file. Programs call
// it first, before any other OpenSSL call: the agent runs as LocalSystem and
// must never take settings or modules from a file that someone else could
// have put in OpenSSL's configuration directory. Safe to call more than once.
void InitTlsLibrary();

// Where a connection goes: the configured name (for SNI), the port and the
// address it resolved to.
struct TlsTarget {
  std::string name;
  uint32_t port = 0;
  IpAddress address;
};

class CTlsClient {
 public:
  CTlsClient(CLog& log, ISupportLibrary& support, const Timings& timings,
             const CertificateMaterial& material = BuiltInCertificateMaterial());
  ~CTlsClient();
  CTlsClient(const CTlsClient&) = delete;
  CTlsClient& operator=(const CTlsClient&) = delete;

  // Starts the connection's limits (the timings' socket limit per message,
  // the exchange limit for everything from here to the close), connects the
  // connection's socket (already created with the target's family) and runs
  // the TLS handshake. 1 when the TLS session is set up (an SSL_connect
  // result of 0 is the only handshake failure seen here; a failed
  // handshake, or one that did not finish within its limit, shows as the
  // first read failing), else 0. The socket and any TLS session are left
  // for close_connection. With server verification on, a server whose
  // certificate does not pass (see server_verification.h) fails here, with
  // one error line that names it and the reason, before the agent sends
  // anything of the dialogue.
  uint32_t SslClientInit(CTlsConnection& connection, const TlsTarget& target);

  // Server verification for the connections that start from now on (the
  // default is off). Each problem of new settings is logged once.
  void SetServerVerification(const ServerVerification& verification);
  // Whether the connections that start from now on take the subject and
  // fingerprint of the server's certificate also with verification off
  // (ServerCertificateCheck::describe); off by default.
  void SetDescribeServerCertificate(bool on) { m_describeCertificate = on; }

  // The context, made on first use under a lock; null while it cannot be
  // made. A context whose identity or CA loading failed is kept as it is.
  SSL_CTX* Context();

 private:
  // SslClientInit's steps: everything up to the handshake, which is true
  // when the TLS session is set up; the TCP connect within the connect
  // polls. Each failure logs its own line.
  bool SetUp(CTlsConnection& connection, const TlsTarget& target);
  bool Connect(CTlsConnection& connection, const TlsTarget& target);

  CLog& m_log;
  ISupportLibrary& m_support;
  const Timings m_timings;
  const CertificateMaterial& m_material;
  std::mutex m_contextLock;
  std::atomic<SSL_CTX*> m_context{nullptr};
  std::mutex m_verificationLock;
  ServerVerification m_verification;
  std::atomic<bool> m_describeCertificate{false};
};

}  // namespace lindqvar
