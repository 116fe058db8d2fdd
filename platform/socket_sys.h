// Private to the socket implementation: the system's socket headers and the
// few names that differ between them.
#pragma once

#ifdef _WIN32
#include "platform/win32/windows_include.h"
namespace lindqvar::socket_sys {
using Length = int;
using Handle = SOCKET;
inline constexpr int kShutdownBoth = SD_BOTH;
}  // namespace lindqvar::socket_sys
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
namespace lindqvar::socket_sys {
using Length = socklen_t;
using Handle = int;
inline constexpr int kShutdownBoth = SHUT_RDWR;
}  // namespace lindqvar::socket_sys
#endif

#include "platform/socket.h"

namespace lindqvar::socket_sys {

inline Handle H(NativeSocket s) { return static_cast<Handle>(s); }

// Agent family numbers <-> the system's.
inline int ToSystemFamily(int family) { return family == kFamilyIPv6 ? AF_INET6 : AF_INET; }
inline int FromSystemFamily(int family) { return family == AF_INET6 ? kFamilyIPv6 : kFamilyIPv4; }

}  // namespace lindqvar::socket_sys
