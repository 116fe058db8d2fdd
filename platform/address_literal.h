// Address literals and the text forms of addresses, as the agent takes and
// writes them: with the system's own conversions where it has them
// (WSAStringToAddressA and WSAAddressToStringA on Windows), elsewhere with
// this project's rendering of what those conversions accept and write.
// docs/windows-runtime.md lists where the two differ under Wine.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/network.h"

namespace lindqvar {

// Text to an address of one family (kFamilyIPv4 or kFamilyIPv6): true and
// the address (IPv4 in the first four bytes, network order) when the text
// is a literal of that family. IPv4 in one to four parts (decimal, octal
// with a leading 0, hex with 0x), optionally followed by ":port"; IPv6 with
// an optional "%scope", optionally in brackets followed by ":port".
bool StringToAddress(const char* text, int family, uint8_t address[16]);

// An address (port 0, no scope) to its text, into at most `size` bytes,
// always terminated: a longer text is cut. IPv4 dotted decimal; IPv6 in
// lower-case hex words, the first longest run of two or more zero words
// written "::", and the last 32 bits dotted for IPv4-compatible, -mapped,
// -translated and ISATAP addresses.
void AddressToString(int family, const uint8_t address[16], char* out, size_t size);

// This project's rendering of the two, which the functions above use where
// the system has no conversions of its own.
bool OwnStringToAddress(const char* text, int family, uint8_t address[16]);
void OwnAddressToString(int family, const uint8_t address[16], char* out, size_t size);

// Copies at most size - 1 characters of `text` and always terminates.
void BoundedCopy(char* out, size_t size, const char* text);

}  // namespace lindqvar
