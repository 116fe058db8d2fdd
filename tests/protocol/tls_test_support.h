// Helpers for the TLS and delivery tests: certificates made on the spot,
// certificate material encrypted with a test key, an in-process lab
// authenticator on a loopback address, and an agent-side delivery harness
// built on the platform fakes.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <atomic>
#include <set>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/log.h"
#include "protocol/delivery/authenticator_client.h"
#include "protocol/transport/certificate_material.h"
#include "tests/fakes/fake_platform.h"
#include "tools/lab_authenticator/lab_server.h"

namespace lindqvar::testing {

std::string ReadFile(const std::string& path);
// Lower-case hex of `n` bytes.
std::string Hex(const uint8_t* p, size_t n);
// The development PKI of this build.
std::string PkiFile(const std::string& name);

// A key and a self-signed certificate, as PEM texts.
struct TestIdentity {
  std::string certificatePem;
  std::string keyPem;  // encrypted with the pass phrase when one was given
};
// keyType "RSA" (bits) or "EC" (curve name in `curve`); `digest` e.g. "SHA256".
TestIdentity MakeIdentity(const char* keyType, int bits, const char* curve, const char* digest,
                          const std::string& passPhrase = "");
// The certificate of a PEM text (owned by the caller: X509_free).
X509* ParseCertificate(const std::string& pem);
// SHA-256 of the DER form of the first certificate in a PEM file, as
// Sha256Text writes it.
std::string CertificateFingerprint(const std::string& pemFile);

// Certificate material encrypted under a test key, the way the build step
// encrypts it; the encrypted items live in this object.
class CTestMaterial {
 public:
  CTestMaterial(const std::string& ca, const std::string& certificate, const std::string& key,
                const std::string& passPhrase, const std::string& alternativePassPhrase);
  const CertificateMaterial& Get() const { return m_material; }

 private:
  CertificateItem Encrypt(const std::string& plain, std::vector<uint8_t>& into);
  CertificateMaterial m_material;
  std::vector<uint8_t> m_items[5];
};

// The lab's acceptor for the fake NTLM package's tokens: the final token
// must name an account it knows and carry the challenge it issued.
class ScriptedAcceptor : public lab::INtlmAcceptor {
 public:
  explicit ScriptedAcceptor(std::set<std::string> accounts) : m_accounts(std::move(accounts)) {}
  std::unique_ptr<lab::INtlmAcceptance> Begin(std::string&) override {
    return std::make_unique<Acceptance>(m_accounts, "CHALLENGE-" + std::to_string(++m_serial));
  }

 private:
  struct Acceptance : lab::INtlmAcceptance {
    Acceptance(const std::set<std::string>& a, std::string c) : accounts(a), challenge(std::move(c)) {}
    bool Challenge(const std::string& negotiate, std::string& out, std::string& error) override {
      if (negotiate != "NEGOTIATE") return error = "not a negotiate token", false;
      out = challenge;
      return true;
    }
    bool Verify(const std::string& token, std::string& user, std::string& domain,
                std::string&) override {
      // "AUTHENTICATE DOMAIN\user CHALLENGE"
      const size_t who = token.find(' '), slash = token.find('\\'), answer = token.rfind(' ');
      if (token.rfind("AUTHENTICATE ", 0) != 0 || slash == std::string::npos) return false;
      domain = token.substr(who + 1, slash - who - 1);
      user = token.substr(slash + 1, answer - slash - 1);
      return token.substr(answer + 1) == challenge && accounts.count(domain + "\\" + user);
    }
    const std::set<std::string>& accounts;
    std::string challenge;
  };
  std::set<std::string> m_accounts;
  int m_serial = 0;
};

// A lab authenticator on one loopback address, stopped by the destructor.
class CLabFixture {
 public:
  // `address` "127.0.0.1" or "::1"; the port is chosen by the system.
  explicit CLabFixture(lab::LabOptions options, const std::string& address = "127.0.0.1");
  ~CLabFixture();
  uint16_t Port() const { return m_port; }
  lab::CLabAuthenticator& Server() { return *m_server; }
  // Waits for `count` finished connections and returns the reports.
  std::vector<lab::ConnectionReport> WaitReports(size_t count);

  // Options with the given key and the development PKI, the server using the
  // certificate and key of that name.
  static lab::LabOptions Options(const std::string& presharedKey, const std::string& as = "server");

 private:
  std::unique_ptr<lab::CLabAuthenticator> m_server;
  uint16_t m_port = 0;
};

// A port on 127.0.0.1 where nothing listens (bound, then closed).
uint16_t ClosedPort();

std::unique_ptr<ServerEntry> MakeServer(const std::string& host, uint32_t port);

// The agent side: the platform fakes, a log, the delivery object.
class CDeliveryHarness : public FakePlatform {
 public:
  explicit CDeliveryHarness(const std::string& presharedKey,
                            const CertificateMaterial& material = BuiltInCertificateMaterial());

  // Makes the delivery object again, e.g. after changing the timings.
  void Rebuild();

  void AddServer(const std::string& host, uint32_t port) {
    servers.push_back(MakeServer(host, port));
  }
  // Hands the servers, key and local address as the test last set them to
  // the delivery object, then makes one pass with a one-record logon event
  // for user ALICE of CORP at WS1.CORP.EXAMPLE from 192.0.2.10.
  bool Deliver(uint32_t session = 7);

  ServerList servers;
  std::string presharedKey;
  IpAddress localAddress;
  std::vector<uint32_t> states;  // every state set, in order
  CLog log{support};
  std::unique_ptr<CAuthenticatorClient> client;

 private:
  const CertificateMaterial& m_material;
};

}  // namespace lindqvar::testing
