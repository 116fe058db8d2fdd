// The soak of every sending path (see tests/agent/session_soak.h):
//   session_soak [events]   (default 10000)
// Prints the events run, the passes that reached a server, resident memory
// after the first thousand events and at the end, and whether the lab's
// table ends with what the agent last reported; then the time of a
// keep-alive pass against a SendSessionEvent pass to one server.
#include <cstdio>
#include <cstdlib>

#include "tests/agent/session_soak.h"

int main(int argc, char** argv) {
  const size_t events = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10000;
  lindqvar::testing::CSessionSoak soak;
  const auto r = soak.Run(events);
  std::printf("events %zu, delivered %zu\n", r.events, r.delivered);
  std::printf("resident memory: %ld kB after 1000 events, %ld kB at the end (%+ld kB)\n",
              r.rssAfterFirst, r.rssAtEnd, r.rssAtEnd - r.rssAfterFirst);
  std::printf("lab table matches the last report: %s\n", r.tableMatches ? "yes" : "NO");
  lindqvar::testing::CSessionSoak passes;
  const auto [logon, keepAlive] = passes.LogonAndKeepAliveMs(200);
  std::printf("one pass to one server: SendSessionEvent %.2f ms, keep-alive %.2f ms, ratio %.3f\n",
              logon, keepAlive, keepAlive / logon);
  return r.tableMatches ? 0 : 1;
}
