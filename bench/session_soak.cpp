// The soak of every sending path (see session_soak.h):
//   session_soak [events]   (default 10000)
// Prints the events run, the passes that reached a server, resident memory
// at the start, after every thousand events and at the end, and whether the
// lab's table ends with what the agent last reported; then the time of a
// keep-alive pass against a SendSessionEvent pass to one server.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "bench/session_soak.h"

namespace {

long ResidentKb() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * 4;
}

// The soak without the fake support library's record of every log line,
// which would grow with the events and hide the agent's own memory.
class CQuietSoak : public lindqvar::testing::CSessionSoak {
 public:
  CQuietSoak() { support.keepRecords = false; }
  // What the other fakes keep of the calls made (for the tests that read
  // it): part of the memory measured.
  void PrintFakeRecords() {
    size_t commandBytes = 0;
    for (const std::string& c : console.commandLines) commandBytes += sizeof c + c.capacity();
    std::printf(
        "kept by the fakes: %d tokens, %zu console command lines (%zu bytes), %zu registry opens, "
        "%zu waits\n",
        accounts.TokensIssued(), console.commandLines.size(), commandBytes,
        registry.AccessMasks().size(), waits.TimeOuts().size());
  }
};

class CPassTimer : public lindqvar::testing::CSessionSoak {
 public:
  // Mean milliseconds of one SendSessionEvent pass and of one keep-alive
  // pass to one healthy server, alternating, `rounds` of each.
  std::pair<double, double> LogonAndKeepAliveMs(int rounds) {
    using namespace lindqvar;
    support.SetSettings(1, u"127.0.0.1:" + AnsiToWide(std::to_string(healthy[0].Port())), u"psk");
    CSessionManager m(Get());
    m.Init();
    m.Notifications().OnNotification({NotificationKind::kSessionLogon, 5});
    using Clock = std::chrono::steady_clock;
    Clock::duration logon{}, keepAlive{};
    for (int i = 0; i < rounds; ++i) {
      auto t = Clock::now();
      m.Events().SendSessionEvent(5, 1, 0);
      logon += Clock::now() - t;
      t = Clock::now();
      m.Events().SendKeepAliveEvent();
      keepAlive += Clock::now() - t;
    }
    const auto ms = [rounds](Clock::duration d) {
      return std::chrono::duration<double, std::milli>(d).count() / rounds;
    };
    return {ms(logon), ms(keepAlive)};
  }
};

}  // namespace

int main(int argc, char** argv) {
  const size_t events = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10000;
  CQuietSoak soak;
  const long rssAtStart = ResidentKb();
  long rssAfterFirst = 0;
  std::printf("resident memory (kB): start %ld", rssAtStart);
  const auto r = soak.Run(events, [&](size_t n) {
    if (n % 1000 != 0) return;
    const long kb = ResidentKb();
    if (n == 1000) rssAfterFirst = kb;
    std::printf(", %zu: %ld", n, kb);
    std::fflush(stdout);
  });
  const long rssAtEnd = ResidentKb();
  if (rssAfterFirst == 0) rssAfterFirst = rssAtEnd;
  std::printf(", end %ld\n", rssAtEnd);
  std::printf("events %zu, delivered %zu\n", r.events, r.delivered);
  std::printf("resident memory: %ld kB after 1000 events, %ld kB at the end (%+ld kB)\n",
              rssAfterFirst, rssAtEnd, rssAtEnd - rssAfterFirst);
  std::printf("lab table matches the last report: %s\n", r.tableMatches ? "yes" : "NO");
  soak.PrintFakeRecords();
  CPassTimer passes;
  // 200 rounds of each, fewer for a soak shorter than that (a smoke run).
  const auto [logon, keepAlive] =
      passes.LogonAndKeepAliveMs(static_cast<int>(std::clamp<size_t>(events, 1, 200)));
  std::printf("one pass to one server: SendSessionEvent %.2f ms, keep-alive %.2f ms, ratio %.3f\n",
              logon, keepAlive, keepAlive / logon);
  // In this order every event finds the user logged on (or is the logoff)
  // and the addresses alternate, so each one reaches the healthy servers
  // whatever the third server does.
  return r.tableMatches && r.delivered == r.events ? 0 : 1;
}
