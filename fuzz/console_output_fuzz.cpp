// The Azure lookup's parse of a console program's output, which any program
// found under the tool's name can write: no input may crash or hang it, and
// its result says exactly whether all three values were found, none of them
// holding a line break.
#include <cstdlib>
#include <string>

#include "identity/azure.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace lindqvar;
  const std::string output(reinterpret_cast<const char*>(data), size);
  std::u16string user, domain, tenant;
  const int32_t result = ParseConsoleOutput(output, user, domain, tenant);
  const bool all = !user.empty() && !domain.empty() && !tenant.empty();
  if ((result == 0) != all || (result != 0 && result != -1)) std::abort();
  for (const std::u16string* s : {&user, &domain, &tenant}) {
    if (s->find(u'\n') != std::u16string::npos) std::abort();
  }
  return 0;
}
