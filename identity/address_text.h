// Text forms of addresses for the address-discovery log lines, and the
// parse of the adapter list's address texts.
#pragma once

#include <string>
#include <string_view>

#include "platform/network.h"

namespace lindqvar {

// "a.b.c.d" for IPv4; the compressed form for IPv6 (the longest run of two
// or more zero groups becomes "::", hexadecimal in lower case).
std::string AddressText(const ResolvedAddress& address);

// A dotted IPv4 text. Text that is not one gives the empty address 0.0.0.0.
ResolvedAddress ParseIPv4Text(std::string_view text);

}  // namespace lindqvar
