// The one event that `lindqvar-diag send` delivers: a single session record
// with the user, domain, workstation and addresses given on the command line,
// in the attribute order the agent writes.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "protocol/codec.h"

namespace lindqvar::diag {

struct DiagEvent {
  uint32_t logon = 1;  // 0 withdraws the user (a logoff)
  std::string domain;
  std::string user;
  std::string workstation;
  std::vector<uint32_t> ipv4;                  // network byte order, at most 4
  std::vector<std::array<uint8_t, 16>> ipv6;   // at most 4
  uint32_t time = 0;                           // seconds since 1970; 0: now
};

// Appends MSG_EVENT with one MSG_SESSION_INFO to an empty encoder.
void BuildEvent(const DiagEvent& event, CEncoder& encoder);

}  // namespace lindqvar::diag
