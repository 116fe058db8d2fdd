#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <cerrno>

#include <mutex>

#include "platform/socket_sys.h"

namespace lindqvar {

using socket_sys::H;

CSocket CSocket::Open(int family) {
  // A write to a connection the peer has closed must fail with EPIPE, not
  // end the process: TLS writes go through write(), which cannot be told
  // MSG_NOSIGNAL, so the signal is ignored once for the process.
  static std::once_flag ignorePipe;
  std::call_once(ignorePipe, [] { ::signal(SIGPIPE, SIG_IGN); });
  const int s = ::socket(socket_sys::ToSystemFamily(family), SOCK_STREAM | SOCK_CLOEXEC, 0);
  return CSocket(static_cast<NativeSocket>(s));
}

bool CSocket::SetNonBlocking(bool nonBlocking) {
  const int flags = ::fcntl(H(m_socket), F_GETFL, 0);
  if (flags < 0) return false;
  const int wanted = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return ::fcntl(H(m_socket), F_SETFL, wanted) == 0;
}

bool CSocket::SetTimeouts(uint32_t milliseconds) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(milliseconds / 1000);
  tv.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
  const bool snd = ::setsockopt(H(m_socket), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
  const bool rcv = ::setsockopt(H(m_socket), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
  return snd && rcv;
}

ConnectWait CSocket::WaitConnected(uint32_t timeoutMicroseconds) {
  // poll rather than select: no limit on descriptor numbers. Windows puts a
  // refused connection in select's exception set; here it shows as a
  // writable socket with an error pending, which is reported the same way.
  pollfd p{H(m_socket), POLLOUT, 0};
  const int n = ::poll(&p, 1, static_cast<int>((timeoutMicroseconds + 999) / 1000));
  if (n < 0) return errno == EINTR ? ConnectWait::kPending : ConnectWait::kError;
  if (n == 0) return ConnectWait::kPending;
  int error = 0;
  socklen_t len = sizeof error;
  if (::getsockopt(H(m_socket), SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0)
    return ConnectWait::kFailed;
  if (p.revents & (POLLERR | POLLHUP)) return ConnectWait::kFailed;
  return (p.revents & POLLOUT) ? ConnectWait::kConnected : ConnectWait::kPending;
}

namespace {

bool WaitFor(int socket, short events, uint32_t timeoutMs) {
  pollfd p{socket, events, 0};
  int n;
  do {
    n = ::poll(&p, 1, static_cast<int>(timeoutMs));
  } while (n < 0 && errno == EINTR);
  return n > 0;
}

}  // namespace

bool CSocket::WaitReadable(uint32_t timeoutMs) { return WaitFor(H(m_socket), POLLIN, timeoutMs); }

bool CSocket::WaitWritable(uint32_t timeoutMs) { return WaitFor(H(m_socket), POLLOUT, timeoutMs); }

void CSocket::Close() {
  if (Valid()) ::close(H(release()));
}

int LastSocketError() { return errno; }

CSocketLibraryScope::CSocketLibraryScope() : m_ok(true) {}
CSocketLibraryScope::~CSocketLibraryScope() = default;

}  // namespace lindqvar
