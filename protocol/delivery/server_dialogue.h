// The dialogue with one authentication server, over a short TLS connection
// of its own: the server's hello with a challenge, the agent's hello with
// the preshared-key digest, the server's hello acknowledgement, the event,
// the event acknowledgement (which may ask for NTLM proof of the session's
// user on the same connection). Each step returns the stage the dialogue
// reached; the first that fails ends it.
#pragma once

#include <cstdint>
#include <string>

#include "protocol/messages/hello.h"
#include "protocol/ntlm/ntlm_relay.h"
#include "protocol/transport/resolve.h"
#include "protocol/transport/server_verification.h"
#include "protocol/transport/tls_client.h"

namespace lindqvar {

class CLog;
class ISupportLibrary;

// Where a dialogue ended: the step that failed, or kDone.
enum class ExchangeStage {
  kResolve,      // no address for the server
  kSocket,       // socket() failed
  kConnect,      // TCP connect or TLS set-up failed
  kVerify,       // server verification is on and the server's certificate failed it
  kHello,        // no hello received (also a failed TLS handshake)
  kHelloParse,   // the first message was not a hello
  kHelloAck,     // no hello acknowledgement received
  kHelloReject,  // the server rejected the hello (preshared key)
  kEventAck,     // no event acknowledgement received
  kDone,         // every step passed
};

// What a dialogue found, for tools that explain it.
struct ExchangeReport {
  ServerEntry server;
  IpAddress address;
  ExchangeStage stage = ExchangeStage::kResolve;
  // TLS facts, when the session came up.
  std::string tlsVersion;
  std::string cipher;
  // The server's certificate: whether it passes verification (whatever the
  // setting), its subject and fingerprint (with verification on or an
  // observer attached), and whether it was refused.
  ServerCertificateCheck certificate;
  // Hello.
  uint32_t helloId = 0;
  uint32_t helloFlags = 0;
  std::string serverVersion;
  uint32_t helloResult = 0;
  // Event acknowledgement.
  bool eventAckRecognised = false;
  uint32_t eventResult = 0;
  uint32_t keepAliveInterval = 0;  // 0: none given
};

// What the agent says it is in its hello.
inline constexpr char kAgentVersionText[] = "Velmora Extension 1.1";

// The agent's answer to a server's hello: the server's id and flags
// returned unchanged, the agent's version text, the digest of the challenge
// under the preshared key when the flags ask for it (16 zero bytes
// otherwise), and the client GUID (UTF-8; empty: none). The answer's GUID
// points into `clientGuid`.
Hello AnswerHello(const Hello& hello, const std::string& presharedKey,
                  const std::string& clientGuid);

// The parts of a delivery that every dialogue uses.
struct DialogueParts {
  CLog& log;
  ISupportLibrary& support;  // the client GUID for the agent's hello
  CServerResolver& resolver;
  CTlsClient& tls;
  INtlmRelay* ntlmRelay;  // null: a request for NTLM proof is only logged
  bool tickLogging;       // the connection line carries ", TICC:%d"
};

// The dialogue with `server` for `session`'s event, with the preshared key
// (read in place) and the agent's address for the log. Without an event it
// ends after the hello acknowledgement (no event is sent, nothing is logged
// about one). The connection is closed when it returns; the report's stage
// kDone means every step passed.
ExchangeReport SendAndReceive(const DialogueParts& parts, const ServerEntry& server,
                              const std::string& presharedKey, const IpAddress& localAddress,
                              uint32_t session, const CEncoder* event);

}  // namespace lindqvar
