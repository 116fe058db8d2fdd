// The NTLM client operations over the fake package (the exchange table, the
// token steps with their prints, and what is released when), and the relay
// against the lab authenticator on 127.0.0.1 with a scripted acceptor that
// checks the fake's tokens.
#include <gtest/gtest.h>

#include <set>

#include "protocol/ntlm/ntlm_package.h"
#include "protocol/ntlm/ntlm_relay.h"
#include "protocol/wire/base64.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

// --- the package ----------------------------------------------------------------------

std::string B64(const std::string& s) { return Base64Text(s.data(), static_cast<uint32_t>(s.size())); }

class NtlmPackageTest : public ::testing::Test {
 protected:
  bool Printed(const std::string& text) const { return printed.find(text) != std::string::npos; }
  int Final(uint32_t k1, uint32_t k2, const std::string& challenge, std::string& token) {
    return ntlm.MakeFinalToken(k1, k2, challenge.c_str(), static_cast<uint32_t>(challenge.size()),
                               token);
  }
  void ExpectNothingHeld() {
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u),
              std::make_tuple(package.LiveCredentials(), package.LiveContexts(), package.LiveBuffers()));
  }

  FakeSecurityPackage package;
  std::string printed;
  uint32_t now = 1000;
  CNtlmPackage ntlm{package, [this](const std::string& s) { printed += s; },
                    [this] { return now; }};
  const AuthIdentity alice{u"alice", u"CORP", u"secret"};
};

TEST_F(NtlmPackageTest, AWholeExchangeWithExplicitCredentialsReleasesEverything) {
  ASSERT_EQ(0, ntlm.PreparePackage());
  EXPECT_EQ("Using package: NTLM\n", printed);

  std::string first, final;
  ASSERT_EQ(0, ntlm.MakeFirstToken(3, 100001, first, &alice));
  EXPECT_EQ(B64("NEGOTIATE"), first);
  EXPECT_TRUE(Printed("token buffer generated (9 bytes):\nInitializeSecurityContext result = 0x00090312\n"));
  EXPECT_EQ(0u, package.LiveBuffers());  // the package's token went back at once

  EXPECT_EQ(0, Final(3, 100001, B64("CHALLENGE-1"), final));
  EXPECT_EQ(B64("AUTHENTICATE CORP\\alice CHALLENGE-1"), final);
  EXPECT_TRUE(Printed("token buffer recieved(11 bytes):\n"));
  EXPECT_TRUE(Printed("Package Name: NTLM\nFLags: 800\nInitializeSecurityContext result = 0x00000000\n"));
  EXPECT_FALSE(ntlm.HasExchange(3, 100001));
  ExpectNothingHeld();
}

TEST_F(NtlmPackageTest, WithoutAnIdentityTheThreadsOwnUserIsUsed) {
  std::string first, final;
  ASSERT_EQ(0, ntlm.MakeFirstToken(3, 1, first, nullptr));
  Final(3, 1, B64("C"), final);
  EXPECT_EQ(B64("AUTHENTICATE NOBODY C"), final);
  // An empty user name counts as none.
  const AuthIdentity empty{u"", u"CORP", u"pw"};
  ASSERT_EQ(0, ntlm.MakeFirstToken(3, 2, first, &empty));
  Final(3, 2, B64("C"), final);
  EXPECT_EQ(B64("AUTHENTICATE NOBODY C"), final);
  EXPECT_FALSE(Printed("token buffer"));  // the trace is off until the package is prepared
}

TEST_F(NtlmPackageTest, TableRules) {
  std::string first, second, final;
  ASSERT_EQ(0, ntlm.MakeFirstToken(5, 100001, first, &alice));
  // A key pair already present: refused, the first exchange untouched.
  EXPECT_EQ(-1, ntlm.MakeFirstToken(5, 100001, second, &alice));
  EXPECT_TRUE(Printed("after: AddEntry failed, key1:5 key2:100001\n"));
  EXPECT_TRUE(second.empty());
  EXPECT_EQ(1u, ntlm.ExchangeCount());
  EXPECT_EQ(1u, package.LiveContexts());
  // The same exchange key on another socket is another exchange.
  ASSERT_EQ(0, ntlm.MakeFirstToken(6, 100001, second, &alice));

  // An unknown key pair.
  printed.clear();
  EXPECT_EQ(0, ntlm.DropExchange(9, 100001));
  EXPECT_EQ("failed to delete entry: 9:100001\n", printed);
  EXPECT_EQ(2u, ntlm.ExchangeCount());

  // A challenge that is not base64 ends the exchange without a token.
  printed.clear();
  EXPECT_EQ(0, Final(5, 100001, "%%%%", final));
  EXPECT_TRUE(final.empty());
  EXPECT_FALSE(ntlm.HasExchange(5, 100001));
  EXPECT_FALSE(Printed("InitializeSecurityContext"));

  // The first exchange still finishes normally after all that.
  EXPECT_EQ(0, Final(6, 100001, B64("X"), final));
  EXPECT_EQ(B64("AUTHENTICATE CORP\\alice X"), final);
  ExpectNothingHeld();
}

TEST_F(NtlmPackageTest, EachFailureHasItsPrintAndReleasesOnlyWhatIsHeld) {
  constexpr int32_t kFail = static_cast<int32_t>(0x80090308);
  struct Row {
    const char* name;
    int32_t FakeSecurityPackage::*status;
    bool firstFails;
    const char* text;
  } rows[] = {
      {"acquire", &FakeSecurityPackage::acquireStatus, true, "AcquireCreds failed: 0x80090308\n"},
      {"first step", &FakeSecurityPackage::firstStepStatus, true,
       "InitializeSecurityContext failed: 0x80090308\n"},
      {"final step", &FakeSecurityPackage::finalStepStatus, false,
       "InitializeSecurityContext failed: 0x80090308\n"},
      {"attributes", &FakeSecurityPackage::attributeStatus, false,
       "QueryContextAttributes failed: 0x80090308\n"},
  };
  uint32_t key = 100;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    package.*row.status = kFail;
    printed.clear();
    std::string first, final;
    const int r = ntlm.MakeFirstToken(1, ++key, first, &alice);
    if (row.firstFails) {
      EXPECT_EQ(-1, r);
      EXPECT_TRUE(first.empty());
      EXPECT_TRUE(ntlm.HasExchange(1, key));  // left for the relay to drop
      EXPECT_EQ(0, ntlm.DropExchange(1, key));
    } else {
      ASSERT_EQ(0, r);
      EXPECT_EQ(0, Final(1, key, B64("C"), final));
      EXPECT_TRUE(final.empty());
      EXPECT_FALSE(ntlm.HasExchange(1, key));
    }
    EXPECT_TRUE(Printed(row.text)) << printed;
    EXPECT_FALSE(Printed("failed to delete entry"));
    ExpectNothingHeld();
    package.*row.status = 0;
  }

  // A completion the package asks for, and its failure.
  package.finalStepStatus = sec::kCompleteNeeded;
  package.completeStatus = kFail;
  std::string first, final;
  ASSERT_EQ(0, ntlm.MakeFirstToken(1, 1, first, &alice));
  Final(1, 1, B64("C"), final);
  EXPECT_TRUE(final.empty());
  EXPECT_TRUE(Printed("complete failed: 0x80090308\n"));
  ExpectNothingHeld();

  package.queryStatus = kFail;
  printed.clear();
  CNtlmPackage other(package, [this](const std::string& s) { printed += s; });
  EXPECT_EQ(-1, other.PreparePackage());
  EXPECT_EQ("Couldn't query package info for NTLM, error 0x80090308\n", printed);
}

TEST_F(NtlmPackageTest, PurgeFiltersByThePredecessorsKeyAndByAge) {
  struct Row {
    uint32_t key, age;
    std::vector<std::pair<uint32_t, uint32_t>> left;  // (key1, key2), head first
  } rows[] = {
      // Table head first: (5,3) (7,2) (5,1); created at 1000, 1100, 1200 from the tail.
      {0, 0, {}},
      // Key 5: the head's stand-in has key1 0, so (5,3) stays; (7,2) follows a 5 and
      // goes; then (5,1) follows (5,3) again and goes too.
      {5, 0, {{5, 3}}},
      // Key 7: only the entry after (7,2) goes.
      {7, 0, {{5, 3}, {7, 2}}},
      // At 1300, older than 150 s means created before 1150.
      {0, 150, {{5, 3}}},
      // Both filters: after (5,3) comes (7,2), young enough to stay; (5,1) is old but
      // follows a 7.
      {5, 250, {{5, 3}, {7, 2}, {5, 1}}},
      {7, 150, {{5, 3}, {7, 2}}},
      {0, 600, {{5, 3}, {7, 2}, {5, 1}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.key << "/" << row.age);
    std::string token;
    for (const auto& [k1, k2, at] : {std::tuple(5u, 1u, 1000u), {7u, 2u, 1100u}, {5u, 3u, 1200u}}) {
      now = at;
      ntlm.MakeFirstToken(k1, k2, token, &alice);
    }
    now = 1300;
    printed.clear();
    ntlm.Purge(row.key, row.age);
    EXPECT_EQ(row.age == 600, Printed("purge old NTLM sessions...\n"));
    EXPECT_EQ(row.left.size(), ntlm.ExchangeCount());
    for (auto [k1, k2] : row.left) EXPECT_TRUE(ntlm.HasExchange(k1, k2)) << k1 << ":" << k2;
    EXPECT_EQ(row.left.size(), package.LiveContexts());
    ntlm.Purge(0, 0);
    ExpectNothingHeld();
  }
}

// --- the relay ------------------------------------------------------------------------

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
