#include "session/event_report.h"

namespace lindqvar {

namespace {

// Whether the report withdraws the last sent set first. The withdrawing
// record tells the servers that the user left those addresses; the paths
// test different lists for it, as the servers expect, and the rules stand
// side by side so that none drifts alone.
bool Withdraws(ReportKind kind, const AddressSet& last, const AddressSet& now) {
  const bool lastIPv4 = last.ipv4[0] != 0;
  switch (kind) {
    case ReportKind::kLogon:
    case ReportKind::kWakeup:
    case ReportKind::kKeepAlive:
      // When the addresses changed: the previous IPv4 list or the NEW IPv6
      // list has an entry.
      return AddressSetChanged(last, now) && (lastIPv4 || FirstGroup(now.ipv6[0].data()) != 0);
    case ReportKind::kLogoff:
      // Never: the logoff withdraws the user anyway.
      return false;
    case ReportKind::kAddressChange:
      // The change is the event: the previous IPv4 list or the PREVIOUS
      // IPv6 list has an entry.
      return lastIPv4 || FirstGroup(last.ipv6[0].data()) != 0;
  }
  return false;
}

}  // namespace

void BuildEventReport(CEncoder& event, ReportKind kind, const AddressSet& last,
                      const AddressSet& now, const CTerminalSession& entry,
                      const WorkstationFacts& machine) {
  event.begin_message(MSG_EVENT);
  if (Withdraws(kind, last, now))
    build_session_record(event, entry, machine, last.ipv4, last.ipv6, 0);
  build_session_record(event, entry, machine, now.ipv4, now.ipv6,
                       kind == ReportKind::kLogoff ? 0 : 1);
  event.end_group(MSG_EVENT);
}

uint32_t ReportAction(ReportKind kind) {
  constexpr uint32_t kActions[] = {kActionLogon, kActionWakeup, kActionLogoff, kActionKeepAlive,
                                   kActionAddressChange};
  return kActions[static_cast<size_t>(kind)];
}

}  // namespace lindqvar
