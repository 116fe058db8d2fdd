// Session tracking over fakes: user lookups answered by FakeAccounts (one
// domain user per session id, "USER<id>" of CORP), host addresses from
// FakeNetwork, and a host that decodes every event it is asked to deliver.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "platform/os.h"
#include "session/session_events.h"
#include "session/session_table.h"
#include "tests/identity/identity_fakes.h"
#include "tools/lab_authenticator/lab_server.h"

namespace lindqvar::testing {

class FakeEventHost : public ISessionEventHost {
 public:
  bool DeliverEvent(uint32_t session, const CEncoder& event, bool isRetry) override {
    uint32_t length = 0;
    const uint8_t* bytes = event.get_buffer(&length);
    std::vector<uint8_t> copy(bytes, bytes + length);
    CDecoder decoder(copy.data(), length);
    uint8_t code = 0;
    Delivery d{session, isRetry, lab::DecodeEvent(decoder, code)};
    EXPECT_EQ(code, MSG_EVENT);
    deliveries.push_back(std::move(d));
    return accept;
  }
  WorkstationFacts Workstation() override { return machine; }
  uint32_t LocalIPv4() override { return 0x0500000A; }   // 10.0.0.5
  uint32_t ServerIPv4() override { return 0x0100007F; }  // 127.0.0.1
  void RequestResend() override { ++resendRequests; }

  struct Delivery {
    uint32_t session;
    bool isRetry;
    std::vector<lab::SessionRecord> records;
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
  int resendRequests = 0;
  WorkstationFacts machine{"ws1", "corp.example", 0, {}, {}, {}};
  std::vector<Delivery> deliveries;
};

class SessionFixture : public ::testing::Test, protected FakeUserLookup {
 protected:
  SessionFixture() {
    network.hostName = "ws1";
    SetAddresses({FakeNetwork::V4(10, 0, 0, 5)});
  }
  // Session `id` gets user USER<id> of domain CORP.
  void AddUser(uint32_t id) {
    FakeAccounts::User user;
    user.sid = DomainSid(1000 + id);
    user.name = u"user" + AnsiToWide(std::to_string(id));
    user.domain = u"CORP";
    accounts.SetUser(id, user);
  }
  void SetAddresses(std::vector<ResolvedAddress> addresses) {
    network.names["ws1"] = std::move(addresses);
  }

  FakeNetwork network;
  FakeAdapters adapters;
  FakeHyperV hyperv;
  FakeSessions sessions;
  FakeSessionWindow window;
  std::set<uint32_t> notReady;  // sessions whose lookup says "not ready"
  uint32_t preferAzure = 0;     // the lookups' prefer-Azure setting
  int lookups = 0;
  CAddressDiscovery addresses{log, network, adapters, hyperv, "ws1", 0};
  CIdentifiers identifiers{log, support, registry};
  CSessionTable table{log, [this](CTerminalSession& record, uint32_t session) -> uint32_t {
                        ++lookups;
                        if (notReady.count(session)) return 2;
                        return LoadSessionUser(system, record, session, log, preferAzure);
                      }};
  FakeEventHost host;
  CSessionEvents events{
      {log, support, sessions, window, timings, table, addresses, identifiers, host}};
};

}  // namespace lindqvar::testing
