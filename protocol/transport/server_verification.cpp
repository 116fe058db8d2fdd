#include "protocol/transport/server_verification.h"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "protocol/transport/ip_address.h"

namespace lindqvar {

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsPinSeparator(char c) {
  return c == ';' || c == ',' || c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0';
}

// The index under which a connection's check is attached to its SSL.
int CheckIndex() {
  static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

int VerifyCallback(int preverifyOk, X509_STORE_CTX* store) {
  auto* ssl =
      static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* check =
      ssl ? static_cast<ServerCertificateCheck*>(SSL_get_ex_data(ssl, CheckIndex())) : nullptr;
  if (!check) return preverifyOk;
  const ServerVerification& settings = check->settings;

  // The certificate being verified is the server's own, whatever depth the
  // callback is called for; it is taken afresh on every verification. Its
  // subject and fingerprint are taken where a verification can end: at the
  // server's own certificate (depth 0, the last call of a verification that
  // passes, and the call that applies the pin list) and at an error (this
  // callback then returns 0, which ends it). A chain of two certificates is
  // thus hashed once, not once per certificate.
  X509* leaf = X509_STORE_CTX_get0_cert(store);
  if (leaf) check->seen = true;
  if (leaf && check->describe && (!preverifyOk || X509_STORE_CTX_get_error_depth(store) == 0)) {
    char subject[256] = {};
    X509_NAME_oneline(X509_get_subject_name(leaf), subject, sizeof subject);
    check->subject = subject;
    unsigned int size = 0;
    X509_digest(leaf, EVP_sha256(), check->sha256.data(), &size);
    check->pinned =
        std::find(settings.pins.begin(), settings.pins.end(), check->sha256) != settings.pins.end();
  }
  // The pin list decides once the chain itself has passed, at the server's
  // certificate (the last call of a successful verification).
  if (preverifyOk && settings.verify && settings.pinsConfigured && !check->pinned &&
      X509_STORE_CTX_get_error_depth(store) == 0) {
    X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
  }
  // Without verification the handshake goes on whatever this returns.
  return preverifyOk;
}

}  // namespace

bool ParseSha256Fingerprint(std::string_view text, Sha256& out) {
  Sha256 value{};
  size_t digits = 0;
  for (char c : text) {
    if (c == ':' || c == '-' || c == ' ') continue;
    const int v = HexValue(c);
    if (v < 0 || digits == 64) return false;
    value[digits / 2] = static_cast<uint8_t>(value[digits / 2] << 4 | v);
    ++digits;
  }
  if (digits != 64) return false;
  out = value;
  return true;
}

std::string Sha256Text(const Sha256& fingerprint) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (uint8_t b : fingerprint) {
    text += kDigits[b >> 4];
    text += kDigits[b & 15];
  }
  return text;
}

void AddServerPins(std::string_view text, ServerVerification& out) {
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && IsPinSeparator(text[i])) ++i;
    size_t end = i;
    while (end < text.size() && !IsPinSeparator(text[end])) ++end;
    if (end == i) break;
    const std::string_view entry = text.substr(i, end - i);
    out.pinsConfigured = true;
    Sha256 pin;
    if (ParseSha256Fingerprint(entry, pin))
      out.pins.push_back(pin);
    else
      out.problems.push_back("ServerCertificateSha256 entry \"" + std::string(entry.substr(0, 80)) +
                             "\" is not a SHA-256 fingerprint (64 hex digits); it matches no "
                             "certificate");
    i = end;
  }
}

bool ServerCertificateCheck::Passes() const {
  return seen && hostUsable && chainResult == X509_V_OK && (!settings.pinsConfigured || pinned);
}

std::string ServerCertificateCheck::Reason(const std::string& host) const {
  if (!seen) return "the server presented no certificate";
  if (!hostUsable)
    return "the configured host \"" + host + "\" cannot be checked against a certificate";
  if (chainResult == X509_V_ERR_HOSTNAME_MISMATCH || chainResult == X509_V_ERR_IP_ADDRESS_MISMATCH)
    return "the certificate (" + subject + ") is not issued for " + host;
  if (chainResult != X509_V_OK && chainResult != X509_V_ERR_APPLICATION_VERIFICATION)
    return "the certificate (" + subject + ") does not verify against the built-in CA bundle: " +
           X509_verify_cert_error_string(chainResult);
  if (settings.pinsConfigured && !pinned)
    return "the certificate's SHA-256 fingerprint " + Sha256Text(sha256) +
           " is not in ServerCertificateSha256";
  return {};
}

std::vector<uint8_t> TlsServerEndPoint(X509* certificate) {
  static const char kLabel[] = "tls-server-end-point:";
  if (!certificate) return {};
  int digestNid = NID_undef;
  if (X509_get_signature_info(certificate, &digestNid, nullptr, nullptr, nullptr) != 1)
    digestNid = NID_undef;
  const EVP_MD* digest = nullptr;
  if (digestNid != NID_undef && digestNid != NID_md5 && digestNid != NID_sha1)
    digest = EVP_get_digestbynid(digestNid);
  if (!digest) digest = EVP_sha256();
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (X509_digest(certificate, digest, hash, &size) != 1) return {};
  std::vector<uint8_t> out(kLabel, kLabel + sizeof kLabel - 1);
  out.insert(out.end(), hash, hash + size);
  return out;
}

void PrepareServerVerification(SSL* ssl, const std::string& host, ServerCertificateCheck& check) {
  check.host = host;
  // The host name (or address) is checked as part of the chain also when
  // verification is off: the handshake then goes on regardless, and the
  // result only tells what verification would have said.
  // Names are matched against the subjectAltName only: a certificate
  // whose subject CN merely spells the host (and has no DNS name for it)
  // does not name it.
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
  X509_VERIFY_PARAM_set_hostflags(
      param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
  IpAddress literal;
  if (parse_address_literal(host.c_str(), literal)) {
    check.hostUsable = X509_VERIFY_PARAM_set1_ip_asc(param, literal.Text()) == 1;
  } else {
    check.hostUsable =
        !host.empty() && X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size()) == 1;
  }
  if (check.settings.verify) check.describe = true;
  SSL_set_ex_data(ssl, CheckIndex(), &check);
  SSL_set_verify(ssl, check.settings.verify ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, VerifyCallback);
}

void FinishServerVerification(SSL* ssl, ServerCertificateCheck& check) {
  if (check.seen) check.chainResult = SSL_get_verify_result(ssl);
}

}  // namespace lindqvar
