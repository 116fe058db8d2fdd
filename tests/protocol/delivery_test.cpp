// The compiled-in certificate material, the AES routine and decrypt_blob,
// loading the identity and CA bundle into a context, the pass-phrase
// callback and the FIPS compliance test; then delivery passes against the
// lab authenticator on 127.0.0.1 and ::1, with the agent's real TLS and the
// compiled-in client identity.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <regex>
#include <tuple>

#include "protocol/transport/certificate_region.h"
#include "protocol/transport/tls_client.h"
#include "protocol/transport/vlx_crypt.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

using lab::ConnectionReport;
using lab::DigestCheck;
using lab::Fault;

using UniqueCtx = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using UniqueCert = std::unique_ptr<X509, decltype(&X509_free)>;

UniqueCtx NewClientContext() { return UniqueCtx(VlxTlsCtxNew(TLS_client_method()), SSL_CTX_free); }

std::string Decrypted(const CertificateMaterial& m, const CertificateItem& item) {
  CSecureBuffer out;
  if (decrypt_blob(m, item, out) != 0) return "<failed>";
  return std::string(out.Text(), out.Size());
}

// --- AES routine and decrypt_blob ---------------------------------------------

TEST(AesRoutine, MatchesTheAesKnownAnswerWithAZeroIvAndPadsAWholeBlock) {
  // AES-128 known answer: with a zero IV the first CBC block is the plain
  // block cipher; a 16-byte input gains a full block of padding.
  std::array<uint8_t, 16> key;
  for (int i = 0; i < 16; ++i) key[i] = static_cast<uint8_t>(i);
  const uint8_t plain[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                             0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  CSecureBuffer cipher;
  ASSERT_EQ(0, Aes128Cbc(key, plain, sizeof plain, 1, cipher));
  EXPECT_EQ("69c4e0d86a7b0430d8cdb78070b4c55a9e978e6d16b086570ef794ef97984232",
            Hex(cipher.Data(), cipher.Size()));

  CSecureBuffer back;
  ASSERT_EQ(0, Aes128Cbc(key, cipher.Data(), static_cast<uint32_t>(cipher.Size()), 0, back));
  EXPECT_EQ(Hex(plain, sizeof plain), Hex(back.Data(), back.Size()));
}

TEST(DecryptBlob, YieldsNulTerminatedTextWithItsLengthAndRejectsBadInput) {
  CTestMaterial m("-----BEGIN CA-----", "certificate text", "key", "pass", "alternative");
  CSecureBuffer out;
  ASSERT_EQ(0, decrypt_blob(m.Get(), m.Get().clientCertificate, out));
  EXPECT_EQ(std::make_tuple(16u, std::string("certificate text")), std::make_tuple(out.Size(), std::string(out.Text())));

  // A ciphertext that is not whole blocks, a missing one, and one under a
  // different key all fail and leave nothing behind.
  CertificateItem cut = m.Get().clientCertificate;
  cut.length -= 1;
  EXPECT_EQ(-1, decrypt_blob(m.Get(), cut, out));
  EXPECT_TRUE(out.Empty());
  EXPECT_EQ(-1, decrypt_blob(m.Get(), CertificateItem{}, out));
  CertificateMaterial otherKey = m.Get();
  otherKey.key[0] ^= 0x55;
  EXPECT_EQ(-1, decrypt_blob(otherKey, m.Get().caBundle, out));
  EXPECT_TRUE(out.Empty());
  // An empty plain text is a failure too.
  CTestMaterial empty("", "c", "k", "p", "q");
  EXPECT_EQ(-1, decrypt_blob(empty.Get(), empty.Get().caBundle, out));
}

// --- the scrambled region -----------------------------------------------------

TEST(CertificateRegion, ParseRejectsEveryTruncation) {
  // key, then five items of 3, 0, 1, 2 and 16 bytes.
  std::vector<uint8_t> region(16, 0xAB);
  for (uint32_t len : {3u, 0u, 1u, 2u, 16u}) {
    for (int i = 0; i < 4; ++i) region.push_back(static_cast<uint8_t>(len >> (8 * i)));
    region.insert(region.end(), len, 0x5A);
  }
  CertificateMaterial m;
  ASSERT_TRUE(ParseCertificateRegion(region.data(), region.size(), m));
  EXPECT_EQ(std::make_tuple(3u, 0u, 16u, region.data() + region.size() - 16),
            std::make_tuple(m.caBundle.length, m.clientCertificate.length,
                            m.alternativePassPhrase.length, m.alternativePassPhrase.data));
  for (size_t size = 0; size < region.size(); ++size)
    EXPECT_FALSE(ParseCertificateRegion(region.data(), size, m)) << "size " << size;
}

TEST(CertificateRegion, BuiltInMaterialIsScrambledEncryptedAndComplete) {
  // Neither the stored region nor its unscrambled form shows PEM text.
  const std::string stored(reinterpret_cast<const char*>(certificate_region::kScrambled),
                           certificate_region::kSize);
  EXPECT_EQ(std::string::npos, stored.find("-----BEGIN"));
  const CertificateMaterial& m = BuiltInCertificateMaterial();
  ASSERT_NE(nullptr, m.caBundle.data);
  EXPECT_EQ(std::string::npos,
            std::string(reinterpret_cast<const char*>(m.clientKey.data), m.clientKey.length)
                .find("PRIVATE KEY"));
  EXPECT_EQ(std::make_tuple(16u, 32u), std::make_tuple(m.passPhrase.length, m.alternativePassPhrase.length));
#if LINDQVAR_TEST_EMBEDS_DEV_PKI
  // The development PKI, item for item.
  for (const auto& [file, item] :
       {std::pair("ca.pem", &m.caBundle), {"client.pem", &m.clientCertificate}, {"client.key", &m.clientKey},
        {"client.pass", &m.passPhrase}, {"client.pass2", &m.alternativePassPhrase}})
    EXPECT_EQ(ReadFile(PkiFile(file)), Decrypted(m, *item)) << file;
#else
  EXPECT_NE(std::string::npos, Decrypted(m, m.caBundle).find("-----BEGIN CERTIFICATE-----"));
  EXPECT_NE(std::string::npos, Decrypted(m, m.clientKey).find("ENCRYPTED PRIVATE KEY"));
#endif
}

// --- loading into a context -----------------------------------------------------

// The identity that ends up in a context: the mode picks the pass phrase,
// FIPS mode keeps a non-compliant certificate out, and only RSA keys load.
TEST(LoadClientIdentity, WhatEachMaterialAndModeInstalls) {
  const TestIdentity rsa = MakeIdentity("RSA", 2048, nullptr, "SHA256", "second-pass-phrase-24ch");
  const TestIdentity weak = MakeIdentity("RSA", 1024, nullptr, "SHA256", "pass");
  const TestIdentity ec = MakeIdentity("EC", 0, "P-256", "SHA256", "pass");
  CTestMaterial second("ca", rsa.certificatePem, rsa.keyPem, "first-pass", "second-pass-phrase-24ch");
  CTestMaterial short1024("ca", weak.certificatePem, weak.keyPem, "pass", "unused-alternative-pass");
  CTestMaterial nonRsa("ca", ec.certificatePem, ec.keyPem, "pass", "unused-alternative-pass");
  FakeSupport plain;
  FakeSupport fips;
  fips.fips = true;
  const struct {
    const char* name;
    const CertificateMaterial& material;
    int mode;
    FakeSupport& support;
    int result;
    int certificate;  // 1: installed, 0: kept out, -1: not asked
  } rows[] = {
      {"built in", BuiltInCertificateMaterial(), 0, plain, 0, 1},
      {"built in, FIPS", BuiltInCertificateMaterial(), 0, fips, 0, 1},
      {"mode 0 offers the first pass phrase", second.Get(), 0, plain, -1, -1},
      {"mode 1 offers the second", second.Get(), 1, plain, 0, 1},
      {"1024-bit key", short1024.Get(), 0, plain, 0, 1},
      {"1024-bit key, FIPS", short1024.Get(), 0, fips, -1, 0},
      {"EC key", nonRsa.Get(), 0, plain, -1, -1},
  };
  for (const auto& row : rows) {
    UniqueCtx ctx = NewClientContext();
    // Security level 0, so that only the FIPS test can refuse the short key.
    SSL_CTX_set_security_level(ctx.get(), 0);
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.result, load_client_identity(ctx.get(), row.material, row.mode, row.support));
    if (row.certificate >= 0) {
      EXPECT_EQ(row.certificate == 1, SSL_CTX_get0_certificate(ctx.get()) != nullptr);
    }
    if (row.result == 0) {
      EXPECT_EQ(1, SSL_CTX_check_private_key(ctx.get()));
    }
  }
}

TEST(PassPhraseCallback, CopiesTheRequestedPhraseAtMostSizeMinusOneAndAlwaysTerminated) {
  CTestMaterial m("ca", "c", "k", "0123456789", "alternative-0123456789");
  PassPhraseRequest first{&m.Get(), &m.Get().passPhrase};
  PassPhraseRequest second{&m.Get(), &m.Get().alternativePassPhrase};
  char buffer[64];
  EXPECT_EQ(22, PassPhraseCallback(buffer, sizeof buffer, 0, &second));
  EXPECT_STREQ("alternative-0123456789", buffer);
  char small[5];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(4, PassPhraseCallback(small, sizeof small, 0, &first));
  EXPECT_STREQ("0123", small);
  EXPECT_EQ(0, PassPhraseCallback(small, 0, 0, &first));
  EXPECT_EQ(0, PassPhraseCallback(small, sizeof small, 0, nullptr));
}

TEST(LoadCaBundle, AddsEveryCertificateOfTheBundle) {
  const TestIdentity a = MakeIdentity("EC", 0, "P-256", "SHA256");
  const TestIdentity b = MakeIdentity("EC", 0, "P-384", "SHA384");
  CTestMaterial m(a.certificatePem + "junk between entries\n" + b.certificatePem, "c", "k", "p", "q");
  UniqueCtx ctx = NewClientContext();
  ASSERT_EQ(0, load_ca_bundle(ctx.get(), m.Get()));
  EXPECT_EQ(2, sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(ctx.get()))));

  CTestMaterial broken("", "c", "k", "p", "q");
  EXPECT_EQ(-1, load_ca_bundle(ctx.get(), broken.Get()));
}

// --- FIPS compliance ----------------------------------------------------------------

TEST(VlxX509IsFipsCompliant, JudgesKeyAndSignatureDigest) {
  struct Case {
    const char* type;
    int bits;
    const char* curve;
    const char* digest;
    int expected;
  } cases[] = {
      {"RSA", 2048, nullptr, "SHA256", 1}, {"RSA", 3072, nullptr, "SHA384", 1},
      {"RSA", 1024, nullptr, "SHA256", 0}, {"RSA", 2048, nullptr, "SHA1", 0},
      {"RSA", 2048, nullptr, "MD5", 0},    {"EC", 0, "P-256", "SHA256", 1},
      {"EC", 0, "P-521", "SHA512", 1},     {"EC", 0, "secp256k1", "SHA256", 0},
      {"EC", 0, "P-384", "SHA1", 0},
  };
  for (const Case& c : cases) {
    UniqueCert cert(ParseCertificate(MakeIdentity(c.type, c.bits, c.curve, c.digest).certificatePem),
                    X509_free);
    SCOPED_TRACE(std::string(c.type) + " " + (c.curve ? c.curve : std::to_string(c.bits)) + " " + c.digest);
    ASSERT_NE(nullptr, cert);
    EXPECT_EQ(c.expected, VlxX509IsFipsCompliant(cert.get()));
  }
  EXPECT_EQ(0, VlxX509IsFipsCompliant(nullptr));
}

// --- delivery passes -----------------------------------------------------------------

constexpr char kKey[] = "lab-preshared-16";

class DeliveryTest : public ::testing::Test {
 protected:
  CDeliveryHarness agent{kKey};
};

TEST_F(DeliveryTest, OneServerGetsTheEventAndTheStateBecomesReachable) {
  CLabFixture lab(CLabFixture::Options(kKey));
  agent.AddServer("127.0.0.1", lab.Port());
  agent.support.guid = u"{GUID-OF-THIS-CLIENT}";
  agent.localAddress.SetIPv4(0x0302010A);  // 10.1.2.3 in network order

  ASSERT_TRUE(agent.Deliver());
  EXPECT_EQ(std::vector<uint32_t>{2}, agent.states);

  const auto reports = lab.WaitReports(1);
  const ConnectionReport& r = reports[0];
  EXPECT_EQ(std::make_tuple("complete", "/O=Lindqvar Lab/CN=Lindqvar Agent", DigestCheck::kCorrect,
                            "Velmora Extension 1.1", "{GUID-OF-THIS-CLIENT}"),
            std::tie(r.end, r.clientSubject, r.digest, r.clientVersion, r.clientGuid));
  ASSERT_EQ(1u, r.records.size());
  EXPECT_EQ(std::make_tuple("ALICE", "CORP", "WS1.CORP.EXAMPLE", std::vector<std::string>{"192.0.2.10"}),
            std::make_tuple(r.records[0].user, r.records[0].domain, r.records[0].workstation,
                            r.records[0].IPv4Text()));
  ASSERT_NE(nullptr, lab.Server().Table().FindByAddress("192.0.2.10"));

  // An address literal is not sent as the server name.
  EXPECT_EQ("", r.serverName);
  EXPECT_TRUE(agent.support.Logged("To send SNI server name to BRK, we need FQDN of BRK"));
  const auto connectLine = agent.support.LinesStartingWith("SendAndReceive(), Local IP:");
  ASSERT_EQ(1u, connectLine.size());
  EXPECT_TRUE(std::regex_match(
      connectLine[0],
      std::regex("SendAndReceive\\(\\), Local IP:10\\.1\\.2\\.3, BRK IP:127\\.0\\.0\\.1, BRK Port:" +
                 std::to_string(lab.Port()) + ", TICC:\\d+, TID:\\d+")))
      << connectLine[0];
  for (const char* line : {"CSessionManager::SslClientInit is called", "CSessionManager::SslClientInit exit",
                           "CSessionManager::SslClientInit:2496,  check if connection is ready",
                           "SendAndReceive(), succeeded to send event to authenticator, TID:"})
    EXPECT_EQ(1u, agent.support.LinesStartingWith(line).size()) << line;
}

TEST_F(DeliveryTest, FailedPassesAreUnreachableUntilASuccess) {
  const uint16_t closed = ClosedPort();
  agent.AddServer("127.0.0.1", closed);
  agent.AddServer("127.0.0.1", closed);
  for (int pass = 0; pass < 3; ++pass) EXPECT_FALSE(agent.Deliver());
  EXPECT_EQ((std::vector<uint32_t>{1, 1, 1}), agent.states);
  // A closed port fails at the connect.
  EXPECT_EQ(6u, agent.support.LinesStartingWith("SslClientInit(), failed to  connect to authenticator, error:-1").size());
  EXPECT_EQ(6u, agent.support.LinesStartingWith("SslClientInit(), failed to initialize ssl context").size());

  // Only the second of the two accepting is enough.
  CLabFixture lab(CLabFixture::Options(kKey));
  agent.servers[1] = MakeServer("127.0.0.1", lab.Port());
  EXPECT_TRUE(agent.Deliver());
  EXPECT_EQ(2u, agent.states.back());
}

// The server judges the digest: a wrong key is rejected at the hello
// acknowledgement, flag bit 0 clear sends sixteen zero bytes that it may
// accept. (The digest's own vectors, a key's first 16 bytes among them, are
// AnswerHello's.)
TEST(DeliveryDigest, TheServerJudgesTheDigestOfTheKeysFirstSixteenBytes) {
  struct Row {
    const char* labKey;
    uint32_t flags;
    const char* agentKey;
    DigestCheck digest;
  } rows[] = {
      {"the-server-key", 1, kKey, DigestCheck::kWrong},
      {"not-the-agent-key", 0x10, kKey, DigestCheck::kZero},
      {"0123456789abcdef", 1, "0123456789abcdefWXYZ", DigestCheck::kCorrect},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.agentKey);
    auto options = CLabFixture::Options(row.labKey);
    options.helloFlags = row.flags;
    CLabFixture lab(options);
    CDeliveryHarness agent(row.agentKey);
    agent.AddServer("127.0.0.1", lab.Port());
    const bool accepted = row.digest != DigestCheck::kWrong;
    EXPECT_EQ(accepted, agent.Deliver());
    EXPECT_EQ(std::vector<uint32_t>{accepted ? 2u : 1u}, agent.states);
    EXPECT_EQ(accepted ? 0u : 1u,
              agent.support.LinesStartingWith("process_hello_ack(), failed to process hello ack message from "
                                      "authenticator, please check your preshared key, TID:")
                  .size());
    const ConnectionReport r = lab.WaitReports(1)[0];
    EXPECT_EQ(row.digest, r.digest);
    EXPECT_EQ(accepted, r.eventReceived);
  }
}

TEST_F(DeliveryTest, SilentAndDribblingServersFailWithinTheLimitsAndThePassGoesOn) {
  // Dribbled bytes come 100 ms apart, well inside the read limit: only a
  // limit on the whole message (or exchange) ends such an exchange. The
  // message limit of 1 s leaves the healthy server's messages time on a
  // loaded machine under the sanitizers (300 ms did not, once).
  struct Case {
    Fault fault;
    uint32_t messageLimitMs;
    uint32_t exchangeLimitMs;
  } cases[] = {
      {Fault::kStall, 1000, 20000},
      {Fault::kStallTls, 1000, 20000},
      {Fault::kDribble, 1000, 20000},     // the hello: 80 bytes, 8 s
      {Fault::kDribbleTls, 1000, 20000},  // the handshake
      {Fault::kDribble, 20000, 2000},    // each message in time, the exchange not
  };
  for (const Case& c : cases) {
    const std::string row = std::string(lab::FaultName(c.fault)) + " " +
                            std::to_string(c.messageLimitMs) + "/" + std::to_string(c.exchangeLimitMs);
    SCOPED_TRACE(row);
    auto options = CLabFixture::Options(kKey);
    options.fault = c.fault;
    options.dribbleMs = 100;
    CLabFixture faulty(options);
    CLabFixture healthy(CLabFixture::Options(kKey));
    CDeliveryHarness agent(kKey);
    agent.timings.socketTimeoutMs = c.messageLimitMs;
    agent.timings.exchangeLimitMs = c.exchangeLimitMs;
    agent.Rebuild();
    agent.AddServer("127.0.0.1", faulty.Port());
    agent.AddServer("127.0.0.1", healthy.Port());

    // The pass must end on its own within the tighter limit and some slack;
    // if it does not, the faulty server is stopped to release it.
    auto pass = std::async(std::launch::async, [&agent] { return agent.Deliver(); });
    const auto bound = std::chrono::milliseconds(
        std::min(c.messageLimitMs, c.exchangeLimitMs) + 3000);
    if (pass.wait_for(bound) != std::future_status::ready) {
      ADD_FAILURE() << "the pass did not end within " << bound.count() << " ms";
      faulty.Server().Stop();
    }
    EXPECT_TRUE(pass.get());
    EXPECT_EQ(std::vector<uint32_t>{2}, agent.states);
    EXPECT_EQ("complete", healthy.WaitReports(1)[0].end);
    EXPECT_EQ(1u, agent.support.LinesStartingWith("ReceiveServerReply(), failed to receive hello message "
                                          "from authenticator, TID:").size());
    EXPECT_EQ(1u, agent.support.LinesStartingWith("SendAndReceive(), failed to send event").size());
  }
}

TEST_F(DeliveryTest, ServerVerificationRefusesOnlyWhenOnAndThePassGoesOn) {
  // The healthy server on ::1 carries the development CA's other
  // certificate, which the pin row lists.
  const std::string pinOfHealthy = CertificateFingerprint(PkiFile("server-alt.pem"));
  struct Case {
    const char* certificate;  // of the tested server, from the development PKI
    const char* host;         // as configured
    bool pinHealthy;          // pin list: only the healthy server's certificate
    std::string reason;
  } cases[] = {
      {"other-server", "127.0.0.1", false,
       "does not verify against the built-in CA bundle: unable to get local issuer certificate"},
      {"server", "authenticator.lab.test", false, "is not issued for authenticator.lab.test"},
      // The host only in the subject's CN, no subjectAltName: not issued for it.
      {"server-cn-only", "localhost", false, "is not issued for localhost"},
      {"server", "127.0.0.1", true,
       "fingerprint " + CertificateFingerprint(PkiFile("server.pem")) +
           " is not in ServerCertificateSha256"},
  };
  for (const Case& c : cases) {
    for (bool on : {false, true}) {
      SCOPED_TRACE(std::string(c.certificate) + " as " + c.host + (c.pinHealthy ? " pinned" : "") +
                   (on ? ", on" : ", off"));
      CLabFixture tested(CLabFixture::Options(kKey, c.certificate));
      CLabFixture healthy(CLabFixture::Options(kKey, "server-alt"), "::1");
      CDeliveryHarness agent(kKey);
      agent.network.names["authenticator.lab.test"] = {FakeNetwork::V4(127, 0, 0, 1)};
      agent.network.names["localhost"] = {FakeNetwork::V4(127, 0, 0, 1)};
      agent.AddServer(c.host, tested.Port());
      agent.AddServer("[::1]", healthy.Port());
      // Off is the default; the pin row sets its list also with the switch off.
      if (on || c.pinHealthy) {
        ServerVerification v;
        v.verify = on;
        if (c.pinHealthy) AddServerPins(pinOfHealthy, v);
        agent.client->SetServerVerification(v);
      }

      EXPECT_TRUE(agent.Deliver());
      EXPECT_EQ(std::vector<uint32_t>{2}, agent.states);
      EXPECT_EQ("complete", healthy.WaitReports(1)[0].end);
      const ConnectionReport r = tested.WaitReports(1)[0];
      const auto refusals = agent.support.LinesStartingWith(
          "SslClientInit(), server verification failed for authenticator " + std::string(c.host) +
          " port " + std::to_string(tested.Port()) + ": ");
      if (on) {
        // Refused in the handshake: the server never got as far as the hello.
        EXPECT_FALSE(r.tlsUp || r.helloReplyReceived);
        ASSERT_EQ(1u, refusals.size());
        EXPECT_NE(std::string::npos, refusals[0].find(c.reason)) << refusals[0];
      } else {
        EXPECT_EQ("complete", r.end);
        EXPECT_TRUE(refusals.empty());
      }
    }
  }
}

TEST_F(DeliveryTest, BrokenFramesFailTheExchangeWithoutHarm) {
  struct Case {
    Fault fault;
    const char* logged;
  } cases[] = {
      {Fault::kOversizedFrame, "ReceiveServerReply(), failed to receive hello message"},
      {Fault::kShortFrame, "ReceiveServerReply(), failed to receive hello message"},
      // The walk stops at the broken attribute: the challenge is missed, the
      // digest is wrong, and the server rejects the hello.
      {Fault::kMalformedFrame, "process_hello_ack(), failed to process hello ack message"},
      // A version text that does not fit is refused like any malformed hello.
      {Fault::kLongVersion, "process_hello(), failed to process hello message from authenticator, TID:"},
      {Fault::kCloseAfterHelloAck,
       "ReceiveServerReply(), failed to receive logon event ack message from authenticator, TID:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lab::FaultName(c.fault));
    auto options = CLabFixture::Options(kKey);
    options.fault = c.fault;
    options.oversizedLength = 1u << 20;
    CLabFixture lab(options);
    CLabFixture next(CLabFixture::Options(kKey), "::1");
    CDeliveryHarness agent(kKey);
    agent.AddServer("127.0.0.1", lab.Port());
    agent.AddServer("[::1]", next.Port());
    // The pass goes on to the next server.
    EXPECT_TRUE(agent.Deliver());
    EXPECT_EQ("complete", next.WaitReports(1)[0].end);
    EXPECT_TRUE(agent.support.Logged(c.logged));
    EXPECT_EQ(1u, agent.support.LinesStartingWith("SendAndReceive(), failed to send event").size());
    EXPECT_FALSE(lab.WaitReports(1)[0].eventReceived);
  }
}

// A name is also sent as the server name; without tick logging the connect
// line has no tick count. (The resolver's own log texts are ResolveTest's.)
TEST_F(DeliveryTest, ANameThatNeverResolvedFailsOneThatStopsResolvingKeepsItsAddress) {
  agent.client->SetTickLogging(false);
  agent.AddServer("nowhere.lab.test", 8001);
  EXPECT_FALSE(agent.Deliver());
  EXPECT_FALSE(agent.support.Logged("SendAndReceive(), Local IP:"));  // no connection
  EXPECT_TRUE(agent.support.Logged("SendAndReceive(), failed to send event to authenticator"));

  CLabFixture lab(CLabFixture::Options(kKey));
  agent.network.names["authenticator.lab.test"] = {FakeNetwork::V4(127, 0, 0, 1)};
  agent.servers.clear();
  agent.AddServer("authenticator.lab.test", lab.Port());
  ASSERT_TRUE(agent.Deliver());
  agent.network.names.clear();
  EXPECT_TRUE(agent.Deliver());  // resolved again, and the last address taken
  EXPECT_TRUE(agent.support.Logged("Failed to resolve address for Brannock:authenticator.lab.test"));
  EXPECT_EQ("authenticator.lab.test", lab.WaitReports(2).at(0).serverName);
  EXPECT_FALSE(agent.support.Logged("To send SNI server name to BRK"));
  const auto lines = agent.support.LinesStartingWith("SendAndReceive(), Local IP:");
  ASSERT_EQ(2u, lines.size());
  EXPECT_TRUE(std::regex_match(lines[0], std::regex("SendAndReceive\\(\\), Local IP:0\\.0\\.0\\.0, BRK IP:127\\.0\\.0\\.1, BRK Port:\\d+, TID:\\d+")))
      << lines[0];
}

class CountingRelay : public INtlmRelay {
 public:
  void NtlmAuthenticate(CTlsConnection& connection, uint32_t session) override {
    ++calls;
    lastSession = session;
    hadTls = connection.Ssl() != nullptr;
  }
  int calls = 0;
  uint32_t lastSession = 0;
  bool hadTls = false;
};

TEST_F(DeliveryTest, AnyEventAckCountsAndResultTwoStartsTheNtlmRelay) {
  CountingRelay relay;
  agent.client->SetNtlmRelay(&relay);
  for (uint32_t result : {0u, 5u, 2u}) {  // only the last starts the relay
    auto options = CLabFixture::Options(kKey);
    options.eventResult = result;
    CLabFixture lab(options);
    agent.servers.clear();
    agent.AddServer("127.0.0.1", lab.Port());
    EXPECT_TRUE(agent.Deliver(42)) << result;
  }
  EXPECT_EQ(1, relay.calls);
  EXPECT_EQ(42u, relay.lastSession);
  EXPECT_TRUE(relay.hadTls);
  EXPECT_TRUE(agent.support.Logged("Start NTLM authentication on session 42, TID:"));
}

TEST(DeliveryFips, ANonCompliantCertificateInFipsModeConnectsWithoutOne) {
  const TestIdentity weak = MakeIdentity("RSA", 1024, nullptr, "SHA256", "pass");
  CTestMaterial material(ReadFile(PkiFile("ca.pem")), weak.certificatePem, weak.keyPem, "pass",
                         "unused-alternative-pass");
  CLabFixture lab(CLabFixture::Options(kKey));
  CDeliveryHarness agent(kKey, material.Get());
  agent.support.fips = true;
  agent.AddServer("127.0.0.1", lab.Port());
  EXPECT_FALSE(agent.Deliver());
  const ConnectionReport r = lab.WaitReports(1)[0];
  EXPECT_FALSE(r.tlsUp);
  EXPECT_NE(std::string::npos, r.tlsError.find("did not return a certificate")) << r.tlsError;
}

}  // namespace
}  // namespace lindqvar::testing
