// Delivery of one finished event message to every configured authentication
// server. Each server gets its own short TLS connection carrying a fixed
// dialogue: the server's hello with a challenge, the agent's hello with the
// preshared-key digest, the server's hello acknowledgement, the event, the
// event acknowledgement (which may ask for NTLM authentication of the
// session's user on the same connection). The pass then sets the agent
// state: 2 when any server acknowledged, else 1.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/timings.h"
#include "protocol/certificate_material.h"
#include "protocol/codec.h"
#include "protocol/ip_address.h"
#include "protocol/resolve.h"
#include "protocol/server_entry.h"
#include "protocol/tls.h"
#include "session/event_delivery.h"

namespace lindqvar {

class CLog;
class INetwork;
class ISupportLibrary;

// The digest that proves knowledge of the preshared key: MD5 of the
// challenge XOR the key (both 16 bytes). `challenge` is changed in place
// (it holds the XOR afterwards).
void compute_response(uint8_t challenge[16], const uint8_t key[16], uint8_t digest[16]);

// The 16-byte key block made from a preshared key: its first 16 bytes,
// padded with zero bytes when shorter.
void preshared_key_block(const std::string& presharedKey, uint8_t key[16]);

// Runs the NTLM relay on the connection when an event acknowledgement asks
// for it (result 2). Its outcome does not change the delivery's.
class INtlmRelay {
 public:
  virtual ~INtlmRelay() = default;
  virtual void NtlmAuthenticate(CTlsConnection& connection, uint32_t session) = 0;
};

// Where an exchange with one server ended, for tools that explain it.
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
const char* ExchangeStageName(ExchangeStage stage);

struct ExchangeReport {
  ServerEntry server;
  IpAddress address;
  ExchangeStage stage = ExchangeStage::kResolve;
  // TLS facts, when the session came up.
  std::string tlsVersion;
  std::string cipher;
  // The server's certificate: whether it passes verification (whatever the
  // setting), its fingerprint, and whether it was refused.
  ServerCertificateCheck certificate;
  // Hello.
  uint32_t helloId = 0;
  uint32_t helloFlags = 0;
  std::string serverVersion;
  uint32_t helloResult = 0;
  // Event acknowledgement.
  bool eventAckRecognised = false;
  uint32_t eventResult = 0;
  uint32_t keepAliveInterval = 0;  // 0: not sent
};

// Told about every exchange (optional).
class IExchangeObserver {
 public:
  virtual ~IExchangeObserver() = default;
  // Before the exchange with the current server starts.
  virtual void OnExchangeStart(const ServerEntry& server) {}
  // After it ended (the connection is closed).
  virtual void OnExchange(const ExchangeReport& report) = 0;
};

enum class ExchangeMode {
  kEvent,      // the whole dialogue
  kHelloOnly,  // stop after the hello acknowledgement (no event is sent)
};

class CAuthenticatorClient : public IEventDelivery {
 public:
  // Told the state at the end of every pass: 2 when a server accepted the
  // event, else 1.
  using ReachabilityCallback = std::function<void(uint32_t state)>;

  CAuthenticatorClient(CLog& log, ISupportLibrary& support, INetwork& network,
                       const Timings& timings,
                       const CertificateMaterial& material = BuiltInCertificateMaterial());
  ~CAuthenticatorClient() override = default;
  CAuthenticatorClient(const CAuthenticatorClient&) = delete;
  CAuthenticatorClient& operator=(const CAuthenticatorClient&) = delete;

  // Log lines about sending carry ", TICC:%d" before ", TID:%d" when on (the
  // default); resolution follows the same switch.
  void SetTickLogging(bool on);
  void SetNtlmRelay(INtlmRelay* relay) { m_pNtlmRelay = relay; }
  void SetObserver(IExchangeObserver* observer) { m_pObserver = observer; }
  // Opt-in server verification for the exchanges that start from now on.
  void SetServerVerification(const ServerVerification& verification) {
    m_tls.SetServerVerification(verification);
  }

  // The servers and key for the passes that start from now on; a pass in
  // progress keeps the snapshot it took. Null: no server.
  void SetConfiguration(DeliveryConfigPtr config);
  // The agent's own address for the connection log line: its first IPv4
  // address, or its first IPv6 address when it has no IPv4 one.
  void SetLocalAddress(const IpAddress& address);
  // Set once, before the first pass.
  void SetReachabilityCallback(ReachabilityCallback callback) {
    m_reachability = std::move(callback);
  }
  // The keep-alive interval in seconds: 180 until an event acknowledgement
  // gives another non-zero one.
  uint32_t KeepAliveInterval() const { return m_dwKeepAliveInterval.load(); }

  // Offers the event to every server in list order (no early stop) and
  // tells the reachability callback once. Passes never overlap: a pass
  // waits for the one in progress.
  DeliveryResult Deliver(uint32_t session, const CEncoder& event) override;

  // The exchange with the current server. 1 on success, 0 on failure. With
  // kHelloOnly `event` is not used and success means the hello was
  // accepted.
  uint32_t SendAndReceive(uint32_t session, const CEncoder* event, CDecoder& decoder,
                          ExchangeMode mode = ExchangeMode::kEvent);

  // Readers of the three server messages. The decoder holds the received
  // message, not yet walked.
  uint32_t process_hello(CDecoder& decoder, CEncoder& reply);
  uint32_t process_hello_ack(CDecoder& decoder);
  uint32_t process_event_ack(CDecoder& decoder);

  // Makes `server` the current server (copied in).
  void SetCurrentServer(const ServerEntry& server) { m_currentServer = server; }
  const ServerEntry& CurrentServer() const { return m_currentServer; }

  CServerResolver& Resolver() { return m_resolver; }
  CTlsClient& Tls() { return m_tls; }

 private:
  // Reads one message off the connection into the decoder.
  static uint32_t ReceiveServerReply(CTlsConnection& connection, CDecoder& decoder);
  void Report(ExchangeReport& report, ExchangeStage stage);

  // The snapshot for a new pass or a single exchange.
  DeliveryConfigPtr Configuration() const;

  CLog& m_log;
  ISupportLibrary& m_support;
  std::atomic<uint32_t> m_dwKeepAliveInterval{180};
  ReachabilityCallback m_reachability;
  mutable std::mutex m_configLock;  // guards the two below
  DeliveryConfigPtr m_config;
  IpAddress m_localAddress;
  CServerResolver m_resolver;
  CTlsClient m_tls;
  INtlmRelay* m_pNtlmRelay = nullptr;
  IExchangeObserver* m_pObserver = nullptr;

  uint32_t m_bLogTickCount = 1;
  ServerEntry m_currentServer;
  // Held for a whole pass: the current server and the pass's snapshot
  // belong to one pass at a time.
  std::mutex m_passLock;
  // The snapshot of the pass that is running; null between passes.
  DeliveryConfigPtr m_pass;
  // Filled while an exchange runs, for the observer.
  ExchangeReport* m_pReport = nullptr;
};

}  // namespace lindqvar
