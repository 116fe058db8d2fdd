// The NTLM client operations over the fake package: the exchange table, the
// token steps with their prints, and what is released when.
#include <gtest/gtest.h>

#include "protocol/ntlm/ntlm_package.h"
#include "protocol/wire/base64.h"
#include "tests/fakes/fake_security_package.h"

namespace lindqvar::testing {
namespace {

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

}  // namespace
}  // namespace lindqvar::testing
