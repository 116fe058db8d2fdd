// How the lab authenticator shows what it sees: lines for a person, or one
// JSON object per line for programs (tests read these).
#pragma once

#include <string>

#include "platform/socket.h"
#include "tools/lab_authenticator/lab_server.h"
#include "tools/lab_authenticator/logon_table.h"

namespace lindqvar::lab {

// {"event":"listening","address":"127.0.0.1","port":40123}
std::string JsonListening(const SocketAddress& address);
// {"event":"connection", ...every field of the report...}
std::string JsonConnection(const ConnectionReport& report);
// {"event":"table","entries":[{"domain":..,"user":..,"workstation":..,"addresses":[..]},..]}
std::string JsonTable(const CLogonTable& table);

std::string TextListening(const SocketAddress& address);
std::string TextConnection(const ConnectionReport& report);

// A JSON string literal, quotes included.
std::string JsonQuote(const std::string& text);

}  // namespace lindqvar::lab
