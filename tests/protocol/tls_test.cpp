// The compiled-in certificate material, the AES routine and decrypt_blob,
// loading the identity and CA bundle into a context, the pass-phrase
// callback and the FIPS compliance test.
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstring>
#include <memory>

#include "protocol/transport/certificate_region.h"
#include "protocol/transport/tls_client.h"
#include "protocol/transport/vlx_crypt.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

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
  EXPECT_NE(std::string::npos, Decrypted(m, m.caBundle).find("-----BEGIN CERTIFICATE-----"));
  EXPECT_NE(std::string::npos, Decrypted(m, m.clientKey).find("ENCRYPTED PRIVATE KEY"));
}

#if LINDQVAR_TEST_EMBEDS_DEV_PKI
TEST(CertificateRegion, BuiltInMaterialIsTheDevelopmentPki) {
  const CertificateMaterial& m = BuiltInCertificateMaterial();
  EXPECT_EQ(ReadFile(PkiFile("ca.pem")), Decrypted(m, m.caBundle));
  EXPECT_EQ(ReadFile(PkiFile("client.pem")), Decrypted(m, m.clientCertificate));
  EXPECT_EQ(ReadFile(PkiFile("client.key")), Decrypted(m, m.clientKey));
  EXPECT_EQ(ReadFile(PkiFile("client.pass")), Decrypted(m, m.passPhrase));
  EXPECT_EQ(ReadFile(PkiFile("client.pass2")), Decrypted(m, m.alternativePassPhrase));
}
#endif

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

}  // namespace
}  // namespace lindqvar::testing
