// The pin list of server verification, as read from the registry (any text
// an administrator or a tool wrote): no input may crash or hang the parse;
// every entry is either a pin or a problem, and every pin reads back as
// itself from its text form.
#include <cstdlib>
#include <string_view>

#include "protocol/transport/server_verification.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace lindqvar;
  ServerVerification v;
  AddServerPins(std::string_view(reinterpret_cast<const char*>(data), size), v);
  if (v.pinsConfigured != (v.pins.size() + v.problems.size() > 0)) std::abort();
  for (const Sha256& pin : v.pins) {
    Sha256 again{};
    if (!ParseSha256Fingerprint(Sha256Text(pin), again) || again != pin) std::abort();
  }
  return 0;
}
