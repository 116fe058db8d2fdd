// The agent's command line: "-s" followed by the name of the named event
// through which the parent service controls it.
#pragma once

#include <optional>
#include <string>

namespace lindqvar {

struct ControlArguments {
  std::string eventName;   // trimmed of spaces and tabs
  std::string controlKey;  // the part of the name behind its last "_"
};

// Finds the switch and the event name behind it; nothing when either is
// missing (the agent then ends at once).
std::optional<ControlArguments> ScanArguments(int argc, const char* const* argv);

// True when an argument counts as the "-s" switch.
bool IsControlSwitch(const char* argument);

// The control key of an (already trimmed) event name.
std::string ControlKeyOf(const std::string& eventName);

// Removes leading and trailing spaces and tabs.
std::string TrimBlanks(const std::string& text);

}  // namespace lindqvar
