// The one thing session tracking asks of the protocol layer: offer a
// finished event message to the authentication servers. Session tracking
// builds the message; the delivery behind this interface owns the servers,
// the key, the connections and the reachability state.
#pragma once

#include <cstdint>

namespace lindqvar {

class CEncoder;

struct DeliveryResult {
  // At least one server acknowledged the event.
  bool delivered = false;
  // The server address resolved last (network byte order) for the local
  // delivery record; 0 before any resolution or when it is an IPv6 address.
  uint32_t serverIPv4 = 0;
};

class IEventDelivery {
 public:
  virtual ~IEventDelivery() = default;
  // One pass: the message for `session` to every configured server, in list
  // order, each over a connection of its own. Passes never overlap.
  virtual DeliveryResult Deliver(uint32_t session, const CEncoder& message) = 0;
};

}  // namespace lindqvar
