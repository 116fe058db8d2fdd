// Runs natively and, in the Windows build, under Wine: one test for both
// implementations of the portable facilities.
#include "platform/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/os.h"
#include "platform/worker_thread.h"

namespace lindqvar {
namespace {

using RP = CEvent::ResetPolicy;
using IS = CEvent::InitialState;

// Long enough never to expire on a loaded machine; it only bounds a wait
// that a fault would leave hanging.
constexpr uint32_t kBound = 10000;

TEST(Event, ManualStaysSignaledAutomaticReleasesOneWait) {
  CEvent manual(RP::kManual, IS::kSignaled);
  EXPECT_EQ(manual.Wait(0), WaitResult::kSignaled);
  EXPECT_EQ(manual.Wait(kInfinite), WaitResult::kSignaled);  // already set: returns at once
  manual.Reset();
  EXPECT_EQ(manual.Wait(0), WaitResult::kTimeout);

  CEvent automatic(RP::kAutomatic, IS::kNotSignaled);
  EXPECT_EQ(automatic.Wait(5), WaitResult::kTimeout);
  automatic.Set();
  EXPECT_EQ(automatic.Wait(0), WaitResult::kSignaled);
  EXPECT_EQ(automatic.Wait(0), WaitResult::kTimeout);
}

TEST(Event, WaitAnyReportsWhichAndConsumesOnlyAutomaticSignals) {
  CEvent stop(RP::kManual, IS::kNotSignaled);
  CEvent change(RP::kAutomatic, IS::kNotSignaled);
  EXPECT_EQ(CEvent::WaitAny(stop, change, 5), -1);
  change.Set();
  EXPECT_EQ(CEvent::WaitAny(stop, change, kBound), 1);
  EXPECT_EQ(CEvent::WaitAny(stop, change, 0), -1);
  stop.Set();
  change.Set();
  EXPECT_EQ(CEvent::WaitAny(stop, change, kBound), 0);  // the first wins
  EXPECT_EQ(CEvent::WaitAny(stop, change, kBound), 0);  // manual stays set
}

TEST(Event, WaitsWakeForASetFromAnotherThread) {
  // Ping-pong: each side waits for the other's Set, so in most rounds the
  // wait is already blocked when the Set comes.
  CEvent stop(RP::kManual, IS::kNotSignaled);
  CEvent ping(RP::kAutomatic, IS::kNotSignaled);
  CEvent pong(RP::kAutomatic, IS::kNotSignaled);
  std::atomic<int> answered{0};
  std::thread peer([&] {
    while (CEvent::WaitAny(stop, ping, kBound) == 1) {
      ++answered;
      pong.Set();
    }
  });
  for (int round = 0; round < 200; ++round) {
    ping.Set();
    // Half the peer's bound: an answer that only a time-out produced fails.
    if (pong.Wait(kBound / 2) != WaitResult::kSignaled) {
      ADD_FAILURE() << "no answer in round " << round;
      break;
    }
  }
  stop.Set();
  peer.join();
  EXPECT_EQ(answered.load(), 200);
}

TEST(CWorkerThread, ReportsStillActiveThenTheRoutineResult) {
  CEvent release(RP::kManual, IS::kNotSignaled);
  CWorkerThread t;
  EXPECT_FALSE(t.Started());
  t.Start([&] {
    return release.Wait(kBound) == WaitResult::kSignaled ? 7u : 8u;
  });
  EXPECT_TRUE(t.Started());
  EXPECT_EQ(t.ExitCode(), CWorkerThread::kStillActive);
  release.Set();
  t.Join();
  EXPECT_EQ(t.ExitCode(), 7u);
}

TEST(Text, Utf8AndUtf16RoundTripAndBadInputIsReplaced) {
  const std::u16string wide = u"a\u00e9\u20ac\U0001F600";
  EXPECT_EQ(WideToUtf8(wide), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(Utf8ToWide("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), wide);
  EXPECT_EQ(WideToUtf8(std::u16string(1, char16_t(0xD800))), "\xEF\xBF\xBD");
  EXPECT_EQ(Utf8ToWide("\xC3"), u"\uFFFD");           // truncated sequence
  EXPECT_EQ(Utf8ToWide("\xC0\x80"), u"\uFFFD\uFFFD");  // overlong form
  EXPECT_EQ(Utf8ToWide("\xED\xA0\x80").size(), 3u);    // encoded surrogate
  EXPECT_EQ(AnsiToWide("plain"), u"plain");
  EXPECT_EQ(WideToAnsi(u"plain"), "plain");
}

}  // namespace
}  // namespace lindqvar
