#include "tests/protocol/tls_test_support.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/socket.h"
#include "protocol/messages/event.h"

namespace lindqvar::testing {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string Hex(const uint8_t* p, size_t n) {
  static const char* digits = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}

std::string PkiFile(const std::string& name) { return std::string(LINDQVAR_TEST_PKI_DIR) + "/" + name; }

namespace {

std::string BioText(BIO* bio) {
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(n));
}

}  // namespace

TestIdentity MakeIdentity(const char* keyType, int bits, const char* curve, const char* digest,
                          const std::string& passPhrase) {
  EVP_PKEY* key = std::strcmp(keyType, "EC") == 0 ? EVP_EC_gen(curve)
                                                  : EVP_RSA_gen(static_cast<unsigned>(bits));
  X509* cert = X509_new();
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 42);
  X509_gmtime_adj(X509_getm_notBefore(cert), -60);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
  X509_set_pubkey(cert, key);
  X509_NAME* name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Lindqvar Test Identity"), -1,
                             -1, 0);
  X509_set_issuer_name(cert, name);
  X509_sign(cert, key, EVP_get_digestbyname(digest));

  TestIdentity out;
  BIO* c = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(c, cert);
  out.certificatePem = BioText(c);
  BIO_free(c);
  BIO* k = BIO_new(BIO_s_mem());
  if (passPhrase.empty())
    PEM_write_bio_PrivateKey(k, key, nullptr, nullptr, 0, nullptr, nullptr);
  else
    PEM_write_bio_PKCS8PrivateKey(k, key, EVP_aes_128_cbc(), passPhrase.c_str(),
                                  static_cast<int>(passPhrase.size()), nullptr, nullptr);
  out.keyPem = BioText(k);
  BIO_free(k);
  X509_free(cert);
  EVP_PKEY_free(key);
  return out;
}

X509* ParseCertificate(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  return cert;
}

std::string CertificateFingerprint(const std::string& pemFile) {
  X509* cert = ParseCertificate(ReadFile(pemFile));
  uint8_t digest[32] = {};
  unsigned int size = 0;
  if (cert) X509_digest(cert, EVP_sha256(), digest, &size);
  X509_free(cert);
  std::string hex = Hex(digest, size);
  for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return hex;
}

CTestMaterial::CTestMaterial(const std::string& ca, const std::string& certificate,
                             const std::string& key, const std::string& passPhrase,
                             const std::string& alternativePassPhrase) {
  for (size_t i = 0; i < m_material.key.size(); ++i)
    m_material.key[i] = static_cast<uint8_t>(0xA0 + i);
  m_material.caBundle = Encrypt(ca, m_items[0]);
  m_material.clientCertificate = Encrypt(certificate, m_items[1]);
  m_material.clientKey = Encrypt(key, m_items[2]);
  m_material.passPhrase = Encrypt(passPhrase, m_items[3]);
  m_material.alternativePassPhrase = Encrypt(alternativePassPhrase, m_items[4]);
}

CertificateItem CTestMaterial::Encrypt(const std::string& plain, std::vector<uint8_t>& into) {
  CSecureBuffer cipher;
  EXPECT_EQ(0, Aes128Cbc(m_material.key, reinterpret_cast<const uint8_t*>(plain.data()),
                         static_cast<uint32_t>(plain.size()), 1, cipher));
  into.assign(cipher.Data(), cipher.Data() + cipher.Size());
  return CertificateItem{into.data(), static_cast<uint32_t>(into.size())};
}

lab::LabOptions CLabFixture::Options(const std::string& presharedKey, const std::string& as) {
  lab::LabOptions o;
  o.caFile = LINDQVAR_TEST_CLIENT_CA;
  o.certFile = PkiFile(as + ".pem");
  o.keyFile = PkiFile(as + ".key");
  o.presharedKey = presharedKey;
  o.ioTimeoutMs = 3000;
  o.stallMs = 3000;
  return o;
}

CLabFixture::CLabFixture(lab::LabOptions options, const std::string& address) {
  SocketAddress at;
  EXPECT_TRUE(SocketAddress::FromLiteral(address, 0, at));
  options.listen = {at};
  m_server = std::make_unique<lab::CLabAuthenticator>(options, nullptr);
  std::string error;
  EXPECT_TRUE(m_server->Start(error)) << error;
  if (!m_server->Listening().empty()) m_port = m_server->Listening()[0].port;
}

CLabFixture::~CLabFixture() { m_server->Stop(); }

std::vector<lab::ConnectionReport> CLabFixture::WaitReports(size_t count) {
  EXPECT_TRUE(m_server->WaitFinished(count, 10000)) << "the lab saw fewer connections than expected";
  return m_server->Reports();
}

uint16_t ClosedPort() {
  CSocket s = CSocket::Open(kFamilyIPv4);
  SocketAddress at;
  SocketAddress::FromLiteral("127.0.0.1", 0, at);
  s.Bind(at);
  SocketAddress bound;
  s.LocalAddress(bound);
  return bound.port;  // closed when `s` goes out of scope: nothing listens there
}

std::unique_ptr<ServerEntry> MakeServer(const std::string& host, uint32_t port) {
  auto e = std::make_unique<ServerEntry>();
  std::strncpy(e->host, host.c_str(), sizeof e->host - 1);
  for (size_t i = 0; i < host.size() && i < std::size(e->hostW) - 1; ++i)
    e->hostW[i] = static_cast<char16_t>(host[i]);
  e->port = port;
  return e;
}

CDeliveryHarness::CDeliveryHarness(const std::string& key, const CertificateMaterial& material)
    : presharedKey(key), m_material(material) {
  log.SetHandle(support.log_initialize(u"FA_LINDQ"));
  Rebuild();
}

void CDeliveryHarness::Rebuild() {
  client = std::make_unique<CAuthenticatorClient>(log, support, network, timings, m_material);
  client->SetReachabilityCallback([this](uint32_t state) { states.push_back(state); });
}

bool CDeliveryHarness::Deliver(uint32_t session) {
  client->SetConfiguration(MakeDeliveryConfig(servers, presharedKey));
  client->SetLocalAddress(localAddress);
  CEncoder event(kEventEncoderCapacity);
  // 192.0.2.10 in network order.
  EventMessage{{{.logon = 1, .domain = "corp", .user = "alice", .workstation = "ws1.corp.example",
                 .ipv4 = {0x0A0200C0}, .time = 1700000000}}}
      .Write(event);
  return client->Deliver(session, event).delivered;
}

}  // namespace lindqvar::testing
