// Network facts the agent takes from the system: its host name, the
// addresses a name resolves to, the computer's DNS domain, and address-change
// notification.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lindqvar {

class CEvent;

// One resolved address, in network byte order.
struct ResolvedAddress {
  int family = 0;                   // kFamilyIPv4 or kFamilyIPv6
  std::array<uint8_t, 16> bytes{};  // IPv4 in the first 4 bytes
};
inline constexpr int kFamilyIPv4 = 2;   // AF_INET
inline constexpr int kFamilyIPv6 = 23;  // AF_INET6 as Windows numbers it

// Address-change notification: armed once, then its event is signalled on
// every change until re-armed.
class IAddressChangeWatch {
 public:
  virtual ~IAddressChangeWatch() = default;
  // Requests the first notification; 0 when the request is pending, else
  // the error.
  virtual uint32_t Arm() = 0;
  // Signalled when an address changed.
  virtual CEvent& Changed() = 0;
  // After a signal (the caller resets Changed()): cancel the request and
  // make the next one.
  virtual void Rearm() = 0;
};

class INetwork {
 public:
  virtual ~INetwork() = default;
  // WSAStartup(2.2) / WSACleanup on Windows.
  virtual void Startup() = 0;
  virtual void Cleanup() = 0;
  // gethostname into 256 bytes; empty on failure.
  virtual std::string HostName() = 0;
  // getaddrinfo(name, any family, stream, TCP) in the resolver's order.
  // Returns 0 or the resolver's error.
  virtual int Resolve(const std::string& name, std::vector<ResolvedAddress>& out) = 0;
  // GetComputerNameExW(ComputerNamePhysicalDnsDomain). False on failure with
  // the error in `error`; an empty `domain` on success means size 0.
  virtual bool PhysicalDnsDomain(std::u16string& domain, uint32_t& error) = 0;
  virtual std::unique_ptr<IAddressChangeWatch> CreateAddressChangeWatch() = 0;
};

}  // namespace lindqvar
