// A soak of every sending path of the agent: logon, unlock, keep-alive,
// address change, resume, re-send and logoff in turn, against two healthy
// lab authenticators and a third server that fails in turn (closed port,
// rejected hello, closed after the hello acknowledgement, stalled). Used by
// bench/session_soak, which also times passes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/session_manager.h"
#include "agent/state.h"
#include "platform/os.h"
#include "session/session_events.h"
#include "tests/identity/identity_fakes.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {

// The fake system is a base, so the bench can time passes over it.
class CSessionSoak : protected FakePlatform {
 public:
  struct Result {
    size_t events = 0;
    size_t delivered = 0;       // passes that reached a server
    bool tableMatches = false;  // the healthy lab's table shows what was last reported
  };

  CSessionSoak() {
    // Room for slow sanitizer builds; the stalling server gives up first.
    timings.socketTimeoutMs = 2000;
    timings.exchangeLimitMs = 6000;
    timings.consoleIdlePolls = 1;
    timings.consoleIdlePollMs = 0;
    timings.wakeupRetryMs = 0;
    for (lab::Fault f :
         {lab::Fault::kRejectHello, lab::Fault::kCloseAfterHelloAck, lab::Fault::kStall}) {
      lab::LabOptions o = CLabFixture::Options("psk");
      o.fault = f;
      o.stallMs = 100;
      o.keepReports = false;
      failing.push_back(std::make_unique<CLabFixture>(o));
    }
    failingPorts = {ClosedPort()};
    for (auto& l : failing) failingPorts.push_back(l->Port());
    registry.AddKey(RegistryHive::kLocalMachine, kAgentKeyPath);
    network.hostName = "ws1";
    network.SetNames("ws1", {FakeNetwork::V4(10, 0, 0, 5)});
    FakeAccounts::User u;
    u.sid = DomainSid(1005);
    u.name = u"soak";
    u.domain = u"CORP";
    accounts.SetUser(5, u);
    sessions.consoleSession = 5;
    Configure(0);
  }

  // `afterEvent` is called with the number of events run so far.
  Result Run(size_t count, const std::function<void(size_t)>& afterEvent = {}) {
    CSessionManager m(Get());
    m.Init();
    Result r;
    bool alternate = false;
    for (size_t i = 0; i < count; ++i) {
      // Each round of the seven paths meets the next failing server.
      if (i % 7 == 0) {
        Configure(i / 7);
        m.ReloadSettings();
      }
      const uint64_t before = Finished();
      switch (i % 7) {
        case 0: m.Notifications().OnNotification({NotificationKind::kSessionLogon, 5}); break;
        case 1: m.Notifications().OnNotification({NotificationKind::kSessionUnlock, 5}); break;
        case 2: m.Events().SendKeepAliveEvent(); break;
        case 3:
          alternate = !alternate;
          network.SetNames("ws1", {FakeNetwork::V4(10, 0, 0, alternate ? 6 : 5)});
          m.Events().CheckAddressChange();
          break;
        case 4: m.Notifications().OnNotification({NotificationKind::kResume}); break;
        case 5: m.Events().ResendLogonEvent(); break;
        case 6: m.Notifications().OnNotification({NotificationKind::kSessionLogoff, 5}); break;
      }
      if (Finished() > before) ++r.delivered;
      ++r.events;
      if (afterEvent) afterEvent(r.events);
    }
    // The last word: a logon at the current addresses.
    m.Notifications().OnNotification({NotificationKind::kSessionLogon, 5});
    const auto entries = healthy[0].Server().Table().Entries();
    const std::string address = alternate ? "10.0.0.6" : "10.0.0.5";
    r.tableMatches = entries.size() == 1 && entries[0].user == "SOAK" &&
                     entries[0].addresses == std::vector<std::string>{address} &&
                     m.Events().Logon() == 1;
    return r;
  }

 private:
  // Two healthy servers and the failing one of this turn.
  void Configure(size_t turn) {
    std::string list;
    for (auto& h : healthy) list += "127.0.0.1:" + std::to_string(h.Port()) + ";";
    list += "127.0.0.1:" + std::to_string(failingPorts[turn % failingPorts.size()]);
    support.SetSettings(1, AnsiToWide(list), u"psk");
  }
  uint64_t Finished() { return healthy[0].Server().Finished(); }

 protected:
  static lab::LabOptions Healthy() {
    lab::LabOptions o = CLabFixture::Options("psk");
    o.keepReports = false;  // the soak measures the agent's memory, not the labs'
    return o;
  }
  CLabFixture healthy[2] = {CLabFixture(Healthy()), CLabFixture(Healthy())};
  std::vector<std::unique_ptr<CLabFixture>> failing;
  std::vector<uint16_t> failingPorts;
};

}  // namespace lindqvar::testing
