// The two registry values of the agent's key that switch on server
// verification (see protocol/server_verification.h and
// docs/configuration.md):
//   VerifyServer             REG_DWORD, 0 (or absent, the default) off; any
//                            other value, of any type, on
//   ServerCertificateSha256  REG_MULTI_SZ (or REG_SZ) of SHA-256 fingerprints
//                            of accepted server certificates, in hex
// and the opt-ins of session reporting, read beside them:
//   ExcludedUsers            REG_MULTI_SZ (or REG_SZ) of user patterns
//                            (session/user_exclusions.h)
//   ResendLogoff             REG_DWORD, 0 (or absent, the default) off; any
//                            other number keeps and re-sends the logoffs
//                            that reached no server (CSessionEvents)
#pragma once

#include <cstdint>
#include <vector>

#include "protocol/transport/server_verification.h"

namespace lindqvar {

class IRegistry;

inline constexpr char16_t kVerifyServerValue[] = u"VerifyServer";
inline constexpr char16_t kServerPinsValue[] = u"ServerCertificateSha256";
inline constexpr char16_t kResendLogoffValue[] = u"ResendLogoff";

// Reads both values. A missing key or value gives the default (off, no pin
// list). A VerifyServer of another type switches verification on; a pin list
// of another type, or entries that are not fingerprints, match no
// certificate. Each such case is described in `problems`.
ServerVerification ReadServerVerification(IRegistry& registry);

// The stored bytes of the opt-in ExcludedUsers value (REG_MULTI_SZ, or a
// REG_SZ of one pattern); empty when the key or value is missing or of
// another type. session/user_exclusions.h parses them.
std::vector<uint8_t> ReadUserExclusions(IRegistry& registry);

// ResendLogoff: on for a REG_DWORD other than 0; off when the key or value
// is missing or the value is of another type or size.
bool ReadResendLogoff(IRegistry& registry);

}  // namespace lindqvar
