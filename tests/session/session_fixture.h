// Session tracking over fakes: user lookups answered by FakeAccounts (one
// domain user per session id, "USER<id>" of CORP), host addresses from
// FakeNetwork, and a host that decodes every event it is asked to deliver.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/os.h"
#include "session/session_events.h"
#include "session/session_notifications.h"
#include "session/session_table.h"
#include "tests/identity/identity_fakes.h"
#include "protocol/messages/event.h"

namespace lindqvar::testing {

// Every wait of these tests ends by this deadline.
inline constexpr std::chrono::seconds kDeadline{10};

// Work on a thread of its own. Wait() waits for it until the deadline; past
// it the process ends, since threads caught in a deadlock cannot be unwound.
class Worker {
 public:
  explicit Worker(std::function<void()> work)
      : m_done(std::async(std::launch::async, std::move(work))) {}
  ~Worker() { Wait(); }
  void Wait() {
    if (m_done.wait_for(kDeadline) == std::future_status::ready) return;
    std::fprintf(stderr, "a worker thread did not finish within the deadline\n");
    std::abort();
  }

 private:
  std::future<void> m_done;
};

// The event message an encoder holds, read back (its records own their texts).
inline EventMessage Decoded(const CEncoder& event) {
  uint32_t length = 0;
  const uint8_t* bytes = event.get_buffer(&length);
  std::vector<uint8_t> copy(bytes, bytes + length);
  CDecoder decoder(copy.data(), length);
  EventMessage message;
  EXPECT_TRUE(message.Read(decoder));
  return message;
}

class FakeDelivery : public IEventDelivery {
 public:
  DeliveryResult Deliver(uint32_t session, const CEncoder& event) override {
    Delivery d{session, Decoded(event).records};
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_hold) {
      m_hold = false;
      // Told without a synchronising operation, so that the test thread
      // learns of it without ordering itself after what this thread did.
      m_held.store(true, std::memory_order_relaxed);
      if (!m_releasedChanged.wait_for(lock, kDeadline, [this] { return m_released; }))
        ADD_FAILURE() << "the held delivery was never released";
    }
    // Recorded when it is done: the order in which a server would see them.
    deliveries.push_back(std::move(d));
    return {accept, 0x0100007F};  // 127.0.0.1
  }

  // The next delivery stops once reached, until ReleaseDelivery.
  void HoldNextDelivery() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hold = true;
    m_released = false;
    m_held.store(false, std::memory_order_relaxed);
  }
  // Whether the held delivery was reached before the deadline.
  bool WaitUntilHeld() const {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!m_held.load(std::memory_order_relaxed)) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  void ReleaseDelivery() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_released = true;
    m_releasedChanged.notify_all();
  }

  struct Delivery {
    uint32_t session;
    std::vector<SessionRecord> records;
  };
  // "USER2:1" for each record of each delivery, records joined with "+".
  std::vector<std::string> Summary() const {
    std::vector<std::string> out;
    for (const Delivery& d : deliveries) {
      std::string s;
      for (const auto& r : d.records) s += (s.empty() ? "" : "+") + r.user + ":" + std::to_string(r.logon);
      out.push_back(s);
    }
    return out;
  }

  bool accept = true;
  std::vector<Delivery> deliveries;

 private:
  std::mutex m_mutex;
  std::condition_variable m_releasedChanged;
  bool m_hold = false;
  bool m_released = false;
  std::atomic<bool> m_held{false};
};

class SessionFixture : public ::testing::Test, protected FakeUserLookup {
 protected:
  SessionFixture() {
    network.hostName = "ws1";
    SetAddresses({FakeNetwork::V4(10, 0, 0, 5)});
    SetMachine(machine);
  }
  // The machine's facts as the manager hands them over, with the local
  // address 10.0.0.5.
  void SetMachine(const WorkstationFacts& facts) {
    machine = facts;
    events.SetWorkstation({facts, 0x0500000A});
  }
  // Session `id` gets user USER<id> of domain CORP.
  void AddUser(uint32_t id) {
    accounts.SetUser(id, {DomainSid(1000 + id), u"user" + AnsiToWide(std::to_string(id)), u"CORP"});
  }
  // The ExcludedUsers list, as the registry value holds it.
  void Exclude(std::initializer_list<std::u16string> patterns) {
    std::u16string text;
    for (const std::u16string& p : patterns) text += p + u'\0';
    std::vector<std::string> problems;
    table.SetExclusions(CUserExclusions::Parse(TextBytes(text), problems));
  }
  void SetAddresses(std::vector<ResolvedAddress> addresses) {
    network.names["ws1"] = std::move(addresses);
  }

  // A table whose lookups answer "not ready" for the sessions in notReady.
  class CTestTable : public CSessionTable {
   public:
    explicit CTestTable(SessionFixture& f)
        : CSessionTable(f.log, f.system), m_notReady(f.notReady) {}
    uint32_t LoadUser(CTerminalSession& record, uint32_t session) override {
      return m_notReady.count(session) ? 2 : CSessionTable::LoadUser(record, session);
    }
    const std::set<uint32_t>& m_notReady;
  };
  void Notify(NotificationKind kind, uint32_t session = 0) {
    notifications.OnNotification({kind, session});
  }

  std::set<uint32_t> notReady;  // sessions whose lookup says "not ready"
  CAddressDiscovery addresses{log, network, adapters, hyperv, "ws1", 0};
  CIdentifiers identifiers{log, support, registry};
  CTestTable table{*this};
  FakeDelivery host;
  WorkstationFacts machine{"ws1", "corp.example", 0, {}, {}, {}};
  CSessionEvents events{log, support, table, addresses, identifiers, host};
  CSessionNotifications notifications{log, sessions, timings, table, events};
};

}  // namespace lindqvar::testing
