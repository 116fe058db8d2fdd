#include "agent/args.h"

namespace lindqvar {

bool IsControlSwitch(const char* argument) {
  if (!argument) return false;
  const char* p = argument;
  while (*p == ' ') ++p;  // spaces only, not tabs
  // Only the dash and the character after it are looked at, so "-stop" and
  // "  -service" count as the switch and "-S" or "/s" do not. An argument of
  // blanks only ends at its terminator and has nothing after it.
  return *p == '-' && p[1] == 's';
}

std::string TrimBlanks(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

std::string ControlKeyOf(const std::string& eventName) {
  const auto underscore = eventName.rfind('_');
  return underscore == std::string::npos ? eventName : eventName.substr(underscore + 1);
}

std::optional<ControlArguments> ScanArguments(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (!IsControlSwitch(argv[i])) continue;
    // The switch as the last argument names no event: treated like a
    // missing switch.
    if (i + 1 >= argc || !argv[i + 1]) return std::nullopt;
    ControlArguments args;
    args.eventName = TrimBlanks(argv[i + 1]);
    args.controlKey = ControlKeyOf(args.eventName);
    return args;
  }
  return std::nullopt;
}

}  // namespace lindqvar
