// The NTLM relay against the lab authenticator on 127.0.0.1, with the fake
// package and a scripted acceptor that checks the fake's tokens.
#include <gtest/gtest.h>

#include <set>

#include "protocol/ntlm/ntlm_relay.h"
#include "protocol/wire/base64.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

using lab::Fault;

constexpr char kKey[] = "lab-preshared-16";

// One attribute as the wire has it (big-endian length, code, type, value).
std::vector<uint8_t> Attribute(uint8_t code, uint8_t type, const std::vector<uint8_t>& value) {
  const uint32_t n = static_cast<uint32_t>(value.size()) + 6;
  std::vector<uint8_t> out{uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n), code, type};
  out.insert(out.end(), value.begin(), value.end());
  return out;
}
std::vector<uint8_t> NtlmFrame(uint8_t code, uint32_t key, const std::string& base64) {
  std::vector<uint8_t> body = Attribute(1, 3, {uint8_t(key >> 24), uint8_t(key >> 16), uint8_t(key >> 8), uint8_t(key)});
  const auto token = Attribute(160, 1, std::vector<uint8_t>(base64.begin(), base64.end()));
  body.insert(body.end(), token.begin(), token.end());
  return Attribute(code, 6, body);
}

class NtlmRelayTest : public ::testing::Test {
 protected:
  NtlmRelayTest() {
    agent.support.sessionUsers[7] = {"CORP", "alice"};
    agent.client->SetNtlmRelay(&relay);
  }
  lab::LabOptions Options(Fault fault = Fault::kNone) {
    auto options = CLabFixture::Options(kKey);
    options.eventResult = 2;
    options.fault = fault;
    options.ntlm = acceptor;
    return options;
  }
  void ExpectNoSecretLogged() {
    for (const auto& line : agent.support.Lines())
      for (const char* secret : {"NEGOTIATE", "CHALLENGE", "AUTHENTICATE", "TkVHT1RJQVRF", "Q0hBTExFTkdF"})
        EXPECT_EQ(std::string::npos, line.text.find(secret)) << line.text;
  }

  CDeliveryHarness agent{kKey};
  FakeSecurityPackage package;
  FakeImpersonation impersonation;
  std::string printed;
  CNtlmPackage ntlm{package, [this](const std::string& s) { printed += s; }};
  CNtlmRelay relay{agent.log, agent.support, impersonation, ntlm};
  std::shared_ptr<ScriptedAcceptor> acceptor =
      std::make_shared<ScriptedAcceptor>(std::set<std::string>{"CORP\\alice"});
};

TEST_F(NtlmRelayTest, AWholeRelayProvesTheSessionsUserAndKeysCountOnAcrossRelays) {
  CLabFixture lab(Options());
  agent.AddServer("127.0.0.1", lab.Port());
  // With the server verified, both steps are bound to it: its service name
  // and the channel bindings of its certificate (a 32-byte header of
  // little-endian words whose last two are the data's length and offset).
  Sha256 hash;
  ASSERT_TRUE(ParseSha256Fingerprint(CertificateFingerprint(PkiFile("server.pem")), hash));
  const std::string label = "tls-server-end-point:";
  std::vector<uint8_t> bound(32, 0);
  bound[24] = uint8_t(label.size() + 32);
  bound[28] = 32;
  bound.insert(bound.end(), label.begin(), label.end());
  bound.insert(bound.end(), hash.begin(), hash.end());
  for (uint32_t key : {100001u, 100002u, 100003u}) {
    SCOPED_TRACE(key);
    const bool verified = key == 100003u;
    if (verified) {
      ServerVerification on;
      on.verify = true;
      agent.client->SetServerVerification(on);
    }
    const size_t stepsBefore = package.Bindings().size();
    ASSERT_TRUE(agent.Deliver(7));
    const auto r = lab.WaitReports(key - 100000).back();
    EXPECT_EQ(std::make_tuple("complete", "proven", "alice", "CORP", key),
              std::tie(r.end, r.ntlmEnd, r.ntlmUser, r.ntlmDomain, r.ntlmKey));
    // The agent's messages, byte for byte: its key and its tokens as base64.
    ASSERT_EQ(2u, r.ntlmFrames.size());
    EXPECT_EQ(NtlmFrame(136, key, "TkVHT1RJQVRF"), r.ntlmFrames[0]);
    const std::string answer = "AUTHENTICATE CORP\\alice CHALLENGE-" + std::to_string(key - 100000);
    EXPECT_EQ(NtlmFrame(138, key, Base64Text(answer.data(), uint32_t(answer.size()))), r.ntlmFrames[1]);
    EXPECT_EQ(std::make_tuple(key, 1), std::make_tuple(relay.LastKey(), relay.LastOutcome().result));
    const auto steps = package.Bindings();
    ASSERT_EQ(stepsBefore + 2, steps.size());
    for (size_t i = stepsBefore; i < steps.size(); ++i) {
      EXPECT_EQ(verified ? u"HOST/127.0.0.1" : u"", steps[i].targetName);
      EXPECT_EQ(verified ? bound : std::vector<uint8_t>{}, steps[i].channelBindings);
    }
  }
  EXPECT_EQ(3u, agent.support.CountLines("NTLM auth succeeded"));
  // One warning for the whole run while servers go unverified.
  EXPECT_EQ(1u, agent.support.CountLines(
                    "Server verification is off (VerifyServer 0): NTLM authentication goes to "
                    "whichever server answered, which may relay the user's NTLM response or "
                    "guess the password from it; switch VerifyServer on with pinned certificates"));
  // The tokens were made as the session's user on the relay's own thread.
  EXPECT_EQ(std::make_tuple(3, "", 0u, 0u),
            std::make_tuple(impersonation.threadTokensSet.load(), FakeImpersonation::ThreadUser(),
                            ntlm.ExchangeCount(),
                            package.LiveCredentials() + package.LiveContexts() + package.LiveBuffers()));
  ExpectNoSecretLogged();
}

TEST_F(NtlmRelayTest, EachFailureEndsTheRelayWithItsOneTextAndTheEventStillCounts) {
  struct Row {
    const char* name;
    Fault fault;
    uint32_t eventResult;
    uint32_t session;
    const char* text;     // the relay's one log line; null: none
    const char* labEnd;   // how the lab saw the relay; null: no relay
    bool keyTaken;        // only once the user is impersonated
  } rows[] = {
      {"no token for the session", Fault::kNone, 2, 8, "Failed to get token of session 8", "no NTLM message 1", false},
      // Without the user's identity the process's own would answer: nothing is sent.
      {"impersonation refused", Fault::kNone, 2, 10,
       "Failed to impersonate the user of session 10, no NTLM authentication", "no NTLM message 1", false},
      {"no message 2", Fault::kNtlmNoChallenge, 2, 7,
       "ReceiveServerReply(), failed to receive NTLM message 2 from authenticator", "closed after NTLM message 1", true},
      {"wrong first record", Fault::kNtlmWrongReply, 2, 7,
       "msg_decode_NTLM_auth_type2(), failed to decode NTLM message 2 from authenticator", "no NTLM message 3", true},
      {"no message 3", Fault::kNtlmBadChallenge, 2, 7, "Failed to generate message 3\n", "no NTLM message 3", true},
      {"no result", Fault::kNtlmNoResult, 2, 7,
       "failed to receive NTLM auth result after message 3 from authenticator", "closed after NTLM message 3", true},
      {"user not proven", Fault::kNone, 2, 9, "NTLM auth failed", "not proven", true},
      {"result other than 2", Fault::kNone, 1, 7, nullptr, nullptr, false},
  };
  agent.support.sessionUsers[9] = {"CORP", "mallory"};
  agent.support.sessionUsers[10] = {"CORP", "carol"};
  impersonation.refuseThreadTokenFor = "CORP\\carol";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto options = Options(row.fault);
    options.eventResult = row.eventResult;
    CLabFixture lab(options);
    agent.servers.clear();
    agent.AddServer("127.0.0.1", lab.Port());
    const size_t before = agent.support.Lines().size();
    const uint32_t keyBefore = relay.LastKey();
    EXPECT_TRUE(agent.Deliver(row.session));
    const auto r = lab.WaitReports(1)[0];
    EXPECT_EQ(row.labEnd != nullptr, r.ntlmStarted);
    if (row.labEnd) {
      EXPECT_EQ(row.labEnd, r.ntlmEnd);
    }
    const auto lines = agent.support.Lines();
    size_t relayLines = 0;
    for (size_t i = before; i < lines.size(); ++i)
      for (const char* t : {"Failed to get token", "Failed to impersonate", "ReceiveServerReply(), failed to receive NTLM",
                            "msg_decode_NTLM", "Failed to generate", "failed to receive NTLM auth",
                            "NTLM auth"})
        relayLines += lines[i].text.rfind(t, 0) == 0;
    EXPECT_EQ(row.text ? 1u : 0u, relayLines);
    if (row.text) {
      EXPECT_EQ(1u, agent.support.CountLines(row.text));
    }
    // A key is taken only once the user's token is in hand.
    EXPECT_EQ(std::make_tuple(keyBefore + (row.keyTaken ? 1 : 0), 0u, 0u),
              std::make_tuple(relay.LastKey(), ntlm.ExchangeCount(),
                              package.LiveCredentials() + package.LiveContexts() + package.LiveBuffers()));
  }
  ExpectNoSecretLogged();
}

}  // namespace
}  // namespace lindqvar::testing
