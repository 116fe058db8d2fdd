// The event message of one report: the record that withdraws the last sent
// addresses when the report's path asks for it, then the record of the
// current addresses. Every report the agent makes is built here.
#pragma once

#include <cstdint>

#include "identity/address_lists.h"
#include "protocol/messages/event.h"
#include "protocol/wire/encoder.h"

namespace lindqvar {

class CTerminalSession;

// The paths that report a session, each with its own withdraw rule, logon
// flag and action code of the local delivery record (ReportAction, in this
// order).
enum class ReportKind { kLogon, kWakeup, kLogoff, kKeepAlive, kAddressChange };

// MSG_EVENT for `entry` at the addresses `now`, given the addresses of the
// last successful report that carried a change (`last`, all zero when none).
void BuildEventReport(CEncoder& event, ReportKind kind, const AddressSet& last,
                      const AddressSet& now, const CTerminalSession& entry,
                      const WorkstationFacts& machine);

// The action code of the kind's local delivery record (kAction*).
uint32_t ReportAction(ReportKind kind);

}  // namespace lindqvar
