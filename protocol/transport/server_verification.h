// Opt-in authentication of the authentication server. By default the agent
// accepts any server certificate. With verification switched on, every
// connection requires the server's chain to verify against the compiled-in
// CA bundle and the certificate to be issued for the configured host (a DNS
// name of its subjectAltName, or an IP address there when the host is an
// address literal; the subject's CN is never consulted); with a
// pin list, the certificate's SHA-256 fingerprint must also be one of the
// list's.
#pragma once

#include <openssl/ssl.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lindqvar {

using Sha256 = std::array<uint8_t, 32>;

struct ServerVerification {
  bool verify = false;          // off: any server is accepted
  bool pinsConfigured = false;  // a pin list was given (even if no entry of it was valid)
  std::vector<Sha256> pins;     // the list's valid entries
  // What was configured but could not be taken as written, for the log and
  // for lindqvar-diag.
  std::vector<std::string> problems;

  bool operator==(const ServerVerification&) const = default;
};

// Parses one fingerprint: 64 hex digits, either case, optionally grouped by
// ":" (as the openssl command prints it), "-" or blanks.
bool ParseSha256Fingerprint(std::string_view text, Sha256& out);
// 64 upper-case hex digits, without separators.
std::string Sha256Text(const Sha256& fingerprint);
// Splits a configured pin text into entries at ";", ",", white space and
// NUL; adds each valid entry to `out.pins` and a problem for each invalid
// one. `out.pinsConfigured` is set when there was any entry at all.
void AddServerPins(std::string_view text, ServerVerification& out);

// What the server's certificate was found to be during one handshake,
// whatever the setting, so that a tool can say whether it would pass.
struct ServerCertificateCheck {
  ServerVerification settings;  // what the connection is held to

  std::string host;        // the configured host it is checked against
  bool hostUsable = true;  // the configured host could be set as the name to check
  // Whether subject and fingerprint are taken: with verification on (for
  // the pin list and the reason of a refusal) and where a tool reads them;
  // hashing the certificate on every handshake of the agent would serve no
  // one otherwise.
  bool describe = true;
  bool seen = false;      // the server presented a certificate
  std::string subject;    // its subject, one line (when described)
  Sha256 sha256{};        // SHA-256 of its DER encoding (when described)
  long chainResult = -1;  // X509_V_OK when the chain and the host name verify
  bool pinned = false;    // its fingerprint is in the pin list
  bool refused = false;   // the connection was refused because of it

  // Chain and name verify, and the pin list (when there is one) holds it.
  bool Passes() const;
  // Why it does not pass ("" when it does), naming `host`.
  std::string Reason(const std::string& host) const;
};

// The "tls-server-end-point" channel binding of a server certificate: that
// label, ":", and the hash of the certificate's DER encoding, made with the
// hash of its signature algorithm (SHA-256 instead of MD5 or SHA-1, and
// when the algorithm names no single hash). Empty when it cannot be made.
std::vector<uint8_t> TlsServerEndPoint(X509* certificate);

// Prepares a connection before its handshake: the host (or IP literal, IPv6
// brackets allowed) the certificate must name, the verify mode (peer
// verification only when `check.settings.verify`) and the callback that
// records the server's certificate into `check` and applies the pin list.
// `check` must outlive `ssl`; its `describe` is forced on with verification.
void PrepareServerVerification(SSL* ssl, const std::string& host, ServerCertificateCheck& check);
// After the handshake (or its failure): takes the final chain result.
void FinishServerVerification(SSL* ssl, ServerCertificateCheck& check);

}  // namespace lindqvar
