// The parts of CSocket that read the same on both systems.
#include <cstring>
#include <utility>

#include "platform/socket_sys.h"

namespace lindqvar {

using socket_sys::FromSystemFamily;
using socket_sys::H;
using socket_sys::ToSystemFamily;

namespace {

// sockaddr_storage from an agent address; returns the length used.
socket_sys::Length ToSockaddr(const SocketAddress& a, sockaddr_storage& out) {
  std::memset(&out, 0, sizeof out);
  if (a.family == kFamilyIPv6) {
    auto* s6 = reinterpret_cast<sockaddr_in6*>(&out);
    s6->sin6_family = AF_INET6;
    s6->sin6_port = htons(a.port);
    std::memcpy(&s6->sin6_addr, a.bytes.data(), 16);
    return sizeof(sockaddr_in6);
  }
  auto* s4 = reinterpret_cast<sockaddr_in*>(&out);
  s4->sin_family = AF_INET;
  s4->sin_port = htons(a.port);
  std::memcpy(&s4->sin_addr, a.bytes.data(), 4);
  return sizeof(sockaddr_in);
}

SocketAddress FromSockaddr(const sockaddr* sa) {
  SocketAddress a;
  a.family = FromSystemFamily(sa->sa_family);
  if (sa->sa_family == AF_INET6) {
    const auto* s6 = reinterpret_cast<const sockaddr_in6*>(sa);
    std::memcpy(a.bytes.data(), &s6->sin6_addr, 16);
    a.port = ntohs(s6->sin6_port);
  } else {
    const auto* s4 = reinterpret_cast<const sockaddr_in*>(sa);
    std::memcpy(a.bytes.data(), &s4->sin_addr, 4);
    a.port = ntohs(s4->sin_port);
  }
  return a;
}

}  // namespace

std::string SocketAddress::AddressText() const {
  char text[64] = {};
  const int fam = ToSystemFamily(family);
  if (!inet_ntop(fam, const_cast<uint8_t*>(bytes.data()), text, sizeof text)) return "0.0.0.0";
  return text;
}

std::string SocketAddress::Text() const {
  const std::string a = AddressText();
  return (family == kFamilyIPv6 ? "[" + a + "]" : a) + ":" + std::to_string(port);
}

bool SocketAddress::FromLiteral(const std::string& text, uint16_t port, SocketAddress& out) {
  SocketAddress a;
  a.port = port;
  if (inet_pton(AF_INET, text.c_str(), a.bytes.data()) == 1) {
    a.family = kFamilyIPv4;
  } else if (inet_pton(AF_INET6, text.c_str(), a.bytes.data()) == 1) {
    a.family = kFamilyIPv6;
  } else {
    return false;
  }
  out = a;
  return true;
}

CSocket& CSocket::operator=(CSocket&& other) noexcept {
  if (this != &other) {
    Close();
    m_socket = other.release();
  }
  return *this;
}

NativeSocket CSocket::release() { return std::exchange(m_socket, kInvalidSocket); }

int CSocket::Connect(const SocketAddress& to) {
  sockaddr_storage ss;
  const socket_sys::Length len = ToSockaddr(to, ss);
  return ::connect(H(m_socket), reinterpret_cast<sockaddr*>(&ss), len);
}

bool CSocket::SetReuseAddress() {
  int one = 1;
  return ::setsockopt(H(m_socket), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one),
                      sizeof one) == 0;
}

bool CSocket::Bind(const SocketAddress& at) {
  if (at.family == kFamilyIPv6) {
    // Listen on IPv6 only: an IPv4 listener is a separate socket.
    int one = 1;
    ::setsockopt(H(m_socket), IPPROTO_IPV6, IPV6_V6ONLY, reinterpret_cast<const char*>(&one),
                 sizeof one);
  }
  sockaddr_storage ss;
  const socket_sys::Length len = ToSockaddr(at, ss);
  return ::bind(H(m_socket), reinterpret_cast<sockaddr*>(&ss), len) == 0;
}

bool CSocket::Listen(int backlog) { return ::listen(H(m_socket), backlog) == 0; }

CSocket CSocket::Accept(uint32_t timeoutMs, SocketAddress* peer) {
  if (!WaitReadable(timeoutMs)) return CSocket();
  sockaddr_storage ss;
  socket_sys::Length len = sizeof ss;
  const auto s = ::accept(H(m_socket), reinterpret_cast<sockaddr*>(&ss), &len);
  CSocket accepted(static_cast<NativeSocket>(s));
  if (accepted.Valid() && peer) *peer = FromSockaddr(reinterpret_cast<sockaddr*>(&ss));
  return accepted;
}

bool CSocket::LocalAddress(SocketAddress& out) const {
  sockaddr_storage ss;
  socket_sys::Length len = sizeof ss;
  if (::getsockname(H(m_socket), reinterpret_cast<sockaddr*>(&ss), &len) != 0) return false;
  out = FromSockaddr(reinterpret_cast<sockaddr*>(&ss));
  return true;
}

int CSocket::Send(const void* data, size_t size) {
  return static_cast<int>(
      ::send(H(m_socket), static_cast<const char*>(data), static_cast<int>(size), 0));
}

int CSocket::Receive(void* data, size_t size) {
  return static_cast<int>(::recv(H(m_socket), static_cast<char*>(data), static_cast<int>(size), 0));
}

void CSocket::ShutdownBoth() {
  if (Valid()) ::shutdown(H(m_socket), socket_sys::kShutdownBoth);
}

int ResolveName(const std::string& name, std::vector<ResolvedAddress>& out) {
  out.clear();
  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* list = nullptr;
  const int rc = ::getaddrinfo(name.c_str(), nullptr, &hints, &list);
  if (rc != 0) return rc;
  for (const addrinfo* p = list; p; p = p->ai_next) {
    if (!p->ai_addr) continue;
    const SocketAddress a = FromSockaddr(p->ai_addr);
    ResolvedAddress r;
    r.family = a.family;
    r.bytes = a.bytes;
    out.push_back(r);
  }
  ::freeaddrinfo(list);
  return 0;
}

}  // namespace lindqvar
