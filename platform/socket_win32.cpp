#include "platform/socket_sys.h"

namespace lindqvar {

using socket_sys::H;

CSocket CSocket::Open(int family) {
  // Not inheritable: a console program started as a user must not hold it.
  const SOCKET s = ::WSASocketW(socket_sys::ToSystemFamily(family), SOCK_STREAM, 0, nullptr, 0,
                                WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  return CSocket(static_cast<NativeSocket>(s));
}

bool CSocket::SetNonBlocking(bool nonBlocking) {
  u_long mode = nonBlocking ? 1 : 0;
  return ::ioctlsocket(H(m_socket), FIONBIO, &mode) == 0;
}

bool CSocket::SetTimeouts(uint32_t milliseconds) {
  const DWORD ms = milliseconds;
  const bool snd = ::setsockopt(H(m_socket), SOL_SOCKET, SO_SNDTIMEO,
                                reinterpret_cast<const char*>(&ms), sizeof ms) == 0;
  const bool rcv = ::setsockopt(H(m_socket), SOL_SOCKET, SO_RCVTIMEO,
                                reinterpret_cast<const char*>(&ms), sizeof ms) == 0;
  return snd && rcv;
}

ConnectWait CSocket::WaitConnected(uint32_t timeoutMicroseconds) {
  fd_set writable, failed;
  FD_ZERO(&writable);
  FD_ZERO(&failed);
  FD_SET(H(m_socket), &writable);
  FD_SET(H(m_socket), &failed);
  timeval tv{};
  tv.tv_sec = static_cast<long>(timeoutMicroseconds / 1000000);
  tv.tv_usec = static_cast<long>(timeoutMicroseconds % 1000000);
  const int n = ::select(0, nullptr, &writable, &failed, &tv);
  if (n == SOCKET_ERROR) return ConnectWait::kError;
  if (FD_ISSET(H(m_socket), &writable)) return ConnectWait::kConnected;
  if (FD_ISSET(H(m_socket), &failed)) return ConnectWait::kFailed;
  return ConnectWait::kPending;
}

namespace {

bool WaitFor(SOCKET socket, bool write, uint32_t timeoutMs) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(socket, &set);
  timeval tv{};
  tv.tv_sec = static_cast<long>(timeoutMs / 1000);
  tv.tv_usec = static_cast<long>((timeoutMs % 1000) * 1000);
  return ::select(0, write ? nullptr : &set, write ? &set : nullptr, nullptr, &tv) > 0;
}

}  // namespace

bool CSocket::WaitReadable(uint32_t timeoutMs) { return WaitFor(H(m_socket), false, timeoutMs); }

bool CSocket::WaitWritable(uint32_t timeoutMs) { return WaitFor(H(m_socket), true, timeoutMs); }

void CSocket::Close() {
  if (Valid()) ::closesocket(H(release()));
}

int LastSocketError() { return ::WSAGetLastError(); }

CSocketLibraryScope::CSocketLibraryScope() {
  WSADATA data;
  m_ok = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
}

CSocketLibraryScope::~CSocketLibraryScope() {
  if (m_ok) ::WSACleanup();
}

}  // namespace lindqvar
