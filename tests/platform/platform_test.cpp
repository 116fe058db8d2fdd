// Runs natively and, in the Windows build, under Wine: one test for both
// implementations of the portable facilities. Secret strings and the delivery
// snapshot leave no copy of the key behind in the storage they release or
// give up; short secrets live in the string object itself, so the storage can
// be read after the string is gone.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <thread>

#include "platform/event.h"
#include "platform/os.h"
#include "platform/secret.h"
#include "platform/worker_thread.h"
#include "protocol/transport/server_entry.h"

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

// --- secrets ---------------------------------------------------------------------

// Whether `size` bytes at `data` still hold the secret or any 4-byte piece of it.
bool HoldsPieceOf(const void* data, size_t size, const std::string& secret) {
  const std::string bytes(static_cast<const char*>(data), size);
  for (size_t at = 0; at + 4 <= secret.size(); ++at) {
    if (bytes.find(secret.substr(at, 4)) != std::string::npos) return true;
  }
  return false;
}

TEST(SecretStringTest, NothingOfTheSecretStaysBehind) {
  const std::string secret = "Kx9#qTv2";  // short: kept inside the object
  // Each row works in `storage`; rows that check what one step leaves keep
  // the (short, heap-free) string alive so that its destructor cannot hide it.
  struct Row {
    const char* what;
    std::function<void(unsigned char* storage)> leave;
  };
  const Row rows[] = {
      {"destroyed",
       [&](unsigned char* storage) {
         auto* s = new (storage) SecretString(secret);
         s->~SecretString();
       }},
      {"given a shorter value",
       [&](unsigned char* storage) {
         auto* s = new (storage) SecretString(secret);
         *s = std::string("ab");
         EXPECT_EQ("ab", *s);
       }},
      {"plain string moved in",
       [&](unsigned char* storage) {
         auto* plain = new (storage) std::string(secret);
         SecretString s(std::move(*plain));
         EXPECT_EQ(secret, s);
         plain->~basic_string();
       }},
      {"plain string assigned by move",
       [&](unsigned char* storage) {
         auto* plain = new (storage) std::string(secret);
         SecretString s;
         s = std::move(*plain);
         EXPECT_EQ(secret, s);
         plain->~basic_string();
       }},
      {"delivery snapshot destroyed",
       [&](unsigned char* storage) {
         auto* config = new (storage) DeliveryConfig();
         config->presharedKey = secret;
         config->~DeliveryConfig();
       }},
      {"secret moved away",
       [&](unsigned char* storage) {
         auto* s = new (storage) SecretString(secret);
         SecretString taker(std::move(*s));
         EXPECT_EQ(secret, taker);
       }},
  };
  for (const Row& row : rows) {
    alignas(DeliveryConfig) unsigned char storage[sizeof(DeliveryConfig) + 16] = {};
    row.leave(storage);
    EXPECT_FALSE(HoldsPieceOf(storage, sizeof storage, secret)) << row.what;
  }
}

}  // namespace
}  // namespace lindqvar
