// One TLS connection to an authentication server: the socket, the TLS
// session on it, and reads and writes bounded in time.
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>

#include "platform/socket.h"
#include "protocol/transport/server_verification.h"
#include "protocol/wire/decoder.h"
#include "protocol/wire/encoder.h"

namespace lindqvar {

// The socket and the TLS session are released by close_connection, which
// the destructor runs when the owner has not. CTlsClient::SslClientInit
// sets the session up.
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
  // Writes an encoder's message; -1 when the encoder holds none.
  int WriteMessage(const CEncoder& message);
  // Receives one message (ReceiveMessage, wire/decoder.h) within the message limit. 1, or 0
  // on failure (the decoder then holds no message).
  uint32_t ReceiveMessage(CDecoder& decoder);
  // Milliseconds left before the exchange limit (UINT32_MAX without one).
  uint32_t ExchangeTimeLeftMs() const;

  CSocket& Socket() { return m_socket; }
  SSL* Ssl() const { return m_ssl; }
  // The server's certificate as SslClientInit found it, and the settings
  // it was held to (attached to the TLS session, so it lives at least as
  // long).
  ServerCertificateCheck& ServerCheck() { return m_serverCheck; }

 private:
  friend class CTlsClient;
  friend uint32_t close_connection(CTlsConnection& connection);
  using Clock = std::chrono::steady_clock;

  // Starts the message limit for the calls that follow.
  void BeginMessage();
  // SSL_read within the limit of the message being received.
  int Read(void* data, int size);
  // Runs `call` (an SSL_* call on the session) until it completes or fails,
  // waiting for the socket between attempts while the limits allow.
  template <typename Call>
  int Drive(Call call);
  // Waits until the socket is readable (or writable) within the limit of
  // the current message; false, with the connection spent, when the limit
  // passes first or the wait fails.
  bool WaitForSocket(bool writable);
  // Milliseconds left before the current message's limit (0 once passed).
  uint32_t MessageTimeLeftMs() const;

  CSocket m_socket;
  SSL* m_ssl = nullptr;
  ServerCertificateCheck m_serverCheck;
  bool m_limited = false;
  uint32_t m_messageLimitMs = 0;
  Clock::time_point m_exchangeDeadline{};
  Clock::time_point m_messageDeadline{};
  bool m_expired = false;
};

// Quiet TLS shutdown and SSL_free, then shutdown(both) and close of the
// socket, for whatever of the two exists. Always 1.
uint32_t close_connection(CTlsConnection& connection);

}  // namespace lindqvar
