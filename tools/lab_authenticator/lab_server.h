// The lab authenticator: the server side of the agent's dialogue, for labs
// and tests. It accepts TLS connections that present a client certificate
// issued by the configured CA, sends a hello with a random challenge, checks
// the agent's digest against its own preshared key, acknowledges the hello
// and the event with chosen results, decodes every session record and keeps
// a table of who is logged on at which addresses. On request it misbehaves
// in one of several ways so that the agent's handling can be watched.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/socket.h"
#include "protocol/messages/event.h"
#include "protocol/wire/encoder.h"
#include "tools/lab_authenticator/logon_table.h"

namespace lindqvar::lab {

enum class Fault {
  kNone,
  kRejectHello,         // hello acknowledgement with result 0 whatever the digest
  kCloseAfterHelloAck,  // close the connection right after the hello acknowledgement
  kStall,               // TLS comes up, then nothing is ever sent
  kStallTls,            // TCP is accepted, TLS never answered
  kOversizedFrame,      // a frame announcing far more bytes than follow, then close
  kMalformedFrame,      // a hello whose last attribute's length runs past the message
  kShortFrame,          // a frame whose length is smaller than an attribute header
  kLongVersion,         // a hello whose version text is 32 bytes long
  kDribble,             // TLS at full speed, then every message one byte per interval
  kDribbleTls,          // every byte on the wire one per interval, the handshake first
  kNtlmNoChallenge,     // NTLM: close after the agent's message 1
  kNtlmWrongReply,      // NTLM: answer message 1 with a result message instead of message 2
  kNtlmBadChallenge,    // NTLM: message 2 whose token is not base64
  kNtlmNoResult,        // NTLM: close after the agent's message 3
  kRefuseLogoff,        // read an event of logoff records only, then close unacknowledged
};
const char* FaultName(Fault fault);
bool ParseFault(const std::string& text, Fault& out);

// The server side of one NTLM exchange. Tokens are the raw NTLM messages.
// The lab never prints or logs them.
class INtlmAcceptance {
 public:
  virtual ~INtlmAcceptance() = default;
  // NEGOTIATE in, CHALLENGE out. False with a reason when refused.
  virtual bool Challenge(const std::string& negotiate, std::string& challenge,
                         std::string& error) = 0;
  // AUTHENTICATE in: true when the user's response proves the password.
  // `user` and `domain` are those the client named, whether proven or not.
  virtual bool Verify(const std::string& authenticate, std::string& user, std::string& domain,
                      std::string& error) = 0;
};

class INtlmAcceptor {
 public:
  virtual ~INtlmAcceptor() = default;
  // A fresh exchange for one connection; null when none can be started.
  virtual std::unique_ptr<INtlmAcceptance> Begin(std::string& error) = 0;
};

struct LabOptions {
  std::vector<SocketAddress> listen;  // port 0: any free port
  std::string caFile;                 // client certificates must chain to it
  std::string certFile;               // server certificate (chain) PEM
  std::string keyFile;                // server key PEM (no pass phrase)
  std::string presharedKey;
  uint32_t helloFlags = 1;   // bit 0: a digest is required
  int64_t helloId = -1;      // -1: a random value per connection
  int64_t helloResult = -1;  // -1: 1 when the digest checks out, else 0
  uint32_t eventResult = 1;
  uint32_t keepAliveInterval = 0;  // 0: not sent
  Fault fault = Fault::kNone;
  uint32_t faultConnections = 0;  // the fault hits this many connections (refuse-logoff:
                                  // logoffs) first; 0: all
  uint32_t oversizedLength = 64u << 20;
  uint32_t stallMs = 60000;        // longest stall
  uint32_t dribbleMs = 2000;       // dribble faults: pause before each byte
  uint32_t ioTimeoutMs = 10000;    // limit of every read and write
  uint32_t maxMessage = 1u << 20;  // largest message accepted from an agent
  bool keepReports = true;         // keep every connection's report for Reports()
  // Plays the server side of the NTLM relay after an event acknowledgement
  // with result 2; without one the relay's message 1 is read and the
  // exchange ends there.
  std::shared_ptr<INtlmAcceptor> ntlm;
};

enum class DigestCheck { kNotChecked, kCorrect, kWrong, kZero, kNotRequired };
const char* DigestCheckName(DigestCheck check);

// Everything about one connection, reported when it ends.
struct ConnectionReport {
  uint64_t number = 0;
  std::string peer;
  std::string listener;
  Fault fault = Fault::kNone;
  bool tlsUp = false;
  std::string tlsError;
  std::string clientSubject;
  std::string serverName;  // SNI, empty when none was sent
  std::string tlsVersion;
  bool helloSent = false;
  uint32_t helloId = 0;
  uint32_t helloFlags = 0;
  bool helloReplyReceived = false;
  std::string clientVersion;
  std::string clientGuid;
  DigestCheck digest = DigestCheck::kNotChecked;
  bool helloAckSent = false;
  uint32_t helloResult = 0;
  bool eventReceived = false;
  uint8_t eventCode = 0;
  std::vector<SessionRecord> records;  // when the message was an event
  bool eventAckSent = false;
  uint32_t eventResult = 0;
  uint32_t keepAliveInterval = 0;
  // The NTLM relay (after an event acknowledgement with result 2).
  bool ntlmStarted = false;
  uint32_t ntlmKey = 0;
  bool ntlmProven = false;
  std::string ntlmUser;
  std::string ntlmDomain;
  uint32_t ntlmResult = 0;  // what message 141 said, when sent
  bool ntlmResultSent = false;
  std::string ntlmEnd;  // "proven", "not proven", or what ended it early
  // The agent's NTLM messages as received, for tests; never printed.
  std::vector<std::vector<uint8_t>> ntlmFrames;
  std::string end;  // "complete", or what ended the dialogue early
};

// Receives what the server has to tell; called from its threads, one call
// at a time.
class ILabSink {
 public:
  virtual ~ILabSink() = default;
  virtual void OnListening(const SocketAddress& address) = 0;
  virtual void OnConnection(const ConnectionReport& report) = 0;
  virtual void OnTable(const CLogonTable& table) = 0;
};

class CLabAuthenticator {
 public:
  CLabAuthenticator(LabOptions options, ILabSink* sink);
  ~CLabAuthenticator();
  CLabAuthenticator(const CLabAuthenticator&) = delete;
  CLabAuthenticator& operator=(const CLabAuthenticator&) = delete;

  // Loads the certificates and starts listening. False with a reason.
  bool Start(std::string& error);
  // Stops accepting, ends open connections and waits for every thread.
  void Stop();

  // The bound addresses (ports filled in), in the order of the options.
  std::vector<SocketAddress> Listening() const;
  // Connections finished so far.
  uint64_t Finished() const;
  // Waits until `count` connections have finished; false on time-out.
  bool WaitFinished(uint64_t count, uint32_t timeoutMs);
  // The keep-alive interval of the acknowledgements from now on (0: none).
  void SetKeepAliveInterval(uint32_t seconds) { m_keepAlive = seconds; }
  // Copies of what was recorded.
  std::vector<ConnectionReport> Reports() const;
  CLogonTable Table() const;

 private:
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };

  void AcceptLoop(size_t listener);
  void Serve(CSocket socket, SocketAddress peer, std::string listener, uint64_t number);
  // The dialogue on a connection whose TLS is up; the text says how it
  // ended ("complete", or what ended it early).
  std::string Dialogue(SSL* ssl, ConnectionReport& report, Fault fault);
  // The server side of the relay, messages 136 to 141; the same for the
  // relay.
  std::string NtlmDialogue(SSL* ssl, ConnectionReport& report, Fault fault);
  // Writes a whole message; with the dribble fault one byte per interval.
  // False when the peer is gone or the server stops.
  bool WriteMessage(SSL* ssl, const CEncoder& message, Fault fault);
  // The TLS handshake with every byte the server writes held back by the
  // dribble interval; the dialogue then runs on the socket as usual.
  bool DribbledAccept(SSL* ssl, CSocket& socket);
  // Sleeps one dribble interval; false when the server stops meanwhile.
  bool DribblePause();
  // Waits until the peer closes, the limit passes or the server stops.
  void Linger(CSocket& socket, uint32_t limitMs);
  void Finish(const ConnectionReport& report);
  void ReapWorkers();

  LabOptions m_options;
  ILabSink* m_sink;
  SSL_CTX* m_ctx = nullptr;
  std::vector<CSocket> m_listeners;
  std::vector<SocketAddress> m_bound;
  std::vector<std::thread> m_acceptThreads;
  std::atomic<bool> m_stopping{false};
  std::atomic<uint32_t> m_keepAlive;
  std::atomic<uint32_t> m_refusedLogoffs{0};

  mutable std::mutex m_mutex;  // guards everything below and the sink
  std::condition_variable m_finishedChanged;
  std::list<Worker> m_workers;
  std::vector<NativeSocket> m_open;  // sockets of live connections
  uint64_t m_accepted = 0;
  uint64_t m_finished = 0;
  std::vector<ConnectionReport> m_reports;
  CLogonTable m_table;
};

}  // namespace lindqvar::lab
