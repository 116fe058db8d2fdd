#include "protocol/transport/tls_connection.h"

#include <openssl/err.h>

#include <algorithm>

namespace lindqvar {

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
  m_messageDeadline =
      std::min(m_exchangeDeadline, Clock::now() + std::chrono::milliseconds(m_messageLimitMs));
}

uint32_t CTlsConnection::ExchangeTimeLeftMs() const {
  if (!m_limited) return UINT32_MAX;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_exchangeDeadline - Clock::now());
  return left.count() > 0 ? static_cast<uint32_t>(left.count()) : 0;
}

template <typename Call>
int CTlsConnection::Drive(Call call) {
  if (!m_ssl || m_expired) return -1;
  for (;;) {
    ERR_clear_error();  // SSL_get_error reads the queue: no stale entries
    const int result = call();
    if (result > 0) return result;
    const int error = SSL_get_error(m_ssl, result);
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return result;
    // Without limits the call is the plain one: it blocks in the socket.
    if (!m_limited) return result;
    if (!WaitForSocket(error == SSL_ERROR_WANT_WRITE)) return -1;
  }
}

uint32_t CTlsConnection::MessageTimeLeftMs() const {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_messageDeadline - Clock::now());
  return left.count() > 0 ? static_cast<uint32_t>(left.count()) : 0;
}

bool CTlsConnection::WaitForSocket(bool writable) {
  const uint32_t left = MessageTimeLeftMs();
  if (left == 0 || !(writable ? m_socket.WaitWritable(left) : m_socket.WaitReadable(left))) {
    // The limit passed (or the wait itself failed): a TLS stream cut off in
    // the middle of a record cannot go on.
    m_expired = true;
    return false;
  }
  return true;
}

int CTlsConnection::Handshake() {
  BeginMessage();
  return Drive([this] { return SSL_connect(m_ssl); });
}

int CTlsConnection::Write(const uint8_t* data, uint32_t size) {
  BeginMessage();
  return Drive([&] { return SSL_write(m_ssl, data, static_cast<int>(size)); });
}

int CTlsConnection::WriteMessage(const CEncoder& message) {
  uint32_t length = 0;
  const uint8_t* bytes = message.get_buffer(&length);
  return bytes ? Write(bytes, length) : -1;
}

int CTlsConnection::Read(void* data, int size) {
  // With nothing of the session's left in its buffers the read can only go
  // to the socket, which is still empty while the server prepares its
  // answer: the read would fail, wait and read again. Waiting first spares
  // that failed read, one system call per message received. (With no time
  // left the read is tried as it is, and fails unless the bytes are there.)
  if (m_limited && m_ssl && !m_expired && SSL_has_pending(m_ssl) == 0 && MessageTimeLeftMs() > 0 &&
      !WaitForSocket(false))
    return -1;
  return Drive([&] { return SSL_read(m_ssl, data, size); });
}

uint32_t CTlsConnection::ReceiveMessage(CDecoder& decoder) {
  BeginMessage();
  return lindqvar::ReceiveMessage(decoder,
                                  [this](void* buffer, int count) { return Read(buffer, count); });
}

uint32_t close_connection(CTlsConnection& connection) {
  if (connection.m_ssl) {
    SSL_set_quiet_shutdown(connection.m_ssl, 1);
    SSL_shutdown(connection.m_ssl);
    SSL_free(connection.m_ssl);
    connection.m_ssl = nullptr;
  }
  if (connection.m_socket.Valid()) {
    connection.m_socket.ShutdownBoth();
    connection.m_socket.Close();
  }
  return 1;
}

}  // namespace lindqvar
