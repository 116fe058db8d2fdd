// A TCP socket with the few operations the agent and its tools need, one
// interface for both systems (socket_posix.cpp, socket_win32.cpp). Address
// families are given with the agent's numbers (kFamilyIPv4 = 2,
// kFamilyIPv6 = 23) and mapped to the system's inside.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/network.h"

namespace lindqvar {

// SOCKET on Windows, a file descriptor elsewhere.
using NativeSocket = uintptr_t;
inline constexpr NativeSocket kInvalidSocket = ~NativeSocket{0};

// One endpoint: family, address bytes in network order (IPv4 in the first
// 4), port in host order.
struct SocketAddress {
  int family = kFamilyIPv4;
  std::array<uint8_t, 16> bytes{};
  uint16_t port = 0;

  // "127.0.0.1" / "::1".
  std::string AddressText() const;
  // "127.0.0.1:8001" / "[::1]:8001".
  std::string Text() const;
  // Parses an IPv4 or IPv6 literal (no brackets, no port).
  static bool FromLiteral(const std::string& text, uint16_t port, SocketAddress& out);
};

// Outcome of one round of waiting for a non-blocking connect.
enum class ConnectWait {
  kConnected,  // writable: the connection is up
  kFailed,     // the connect failed (the exception set on Windows; an error
               // pending on a writable socket elsewhere, which is how other
               // systems report the same thing)
  kPending,    // nothing yet
  kError,      // the wait itself failed
};

class CSocket {
 public:
  CSocket() = default;
  explicit CSocket(NativeSocket s) : m_socket(s) {}
  ~CSocket() { Close(); }
  CSocket(CSocket&& other) noexcept : m_socket(other.release()) {}
  CSocket& operator=(CSocket&& other) noexcept;
  CSocket(const CSocket&) = delete;
  CSocket& operator=(const CSocket&) = delete;

  // A stream socket (protocol 0) of the given family; invalid on failure.
  static CSocket Open(int family);

  bool Valid() const { return m_socket != kInvalidSocket; }
  NativeSocket Native() const { return m_socket; }
  NativeSocket release();

  // FIONBIO / O_NONBLOCK.
  bool SetNonBlocking(bool nonBlocking);
  // SO_SNDTIMEO and SO_RCVTIMEO.
  bool SetTimeouts(uint32_t milliseconds);
  // Starts (or makes) a connection; the result is the system's, 0 or -1.
  int Connect(const SocketAddress& to);
  // One select round on writability and exceptions.
  ConnectWait WaitConnected(uint32_t timeoutMicroseconds);

  // Server side.
  bool SetReuseAddress();
  bool Bind(const SocketAddress& at);
  bool Listen(int backlog);
  // Waits up to `timeoutMs` for a connection; an invalid socket on time-out
  // or failure.
  CSocket Accept(uint32_t timeoutMs, SocketAddress* peer = nullptr);
  bool LocalAddress(SocketAddress& out) const;

  // Plain stream I/O (for tools and tests; the agent's traffic goes through
  // TLS). Results as the system's send/recv.
  int Send(const void* data, size_t size);
  int Receive(void* data, size_t size);
  // Waits until the socket is readable / writable; false on time-out or
  // failure of the wait.
  bool WaitReadable(uint32_t timeoutMs);
  bool WaitWritable(uint32_t timeoutMs);

  // shutdown(both), then closesocket / close.
  void ShutdownBoth();
  void Close();

 private:
  NativeSocket m_socket = kInvalidSocket;
};

// The last socket error of the calling thread (WSAGetLastError / errno).
int LastSocketError();

// getaddrinfo(name, no service, stream, TCP), any family, in the resolver's
// order; 0 or the resolver's error. Families in the agent's numbers.
int ResolveName(const std::string& name, std::vector<ResolvedAddress>& out);

// Starts the socket library for a program's lifetime (WSAStartup 2.2 /
// WSACleanup on Windows; nothing elsewhere).
class CSocketLibraryScope {
 public:
  CSocketLibraryScope();
  ~CSocketLibraryScope();
  CSocketLibraryScope(const CSocketLibraryScope&) = delete;
  CSocketLibraryScope& operator=(const CSocketLibraryScope&) = delete;
  bool Ok() const { return m_ok; }

 private:
  bool m_ok = false;
};

}  // namespace lindqvar
