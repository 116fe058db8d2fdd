// Delivery of one finished event message to every configured authentication
// server, each in a dialogue of its own (delivery/server_dialogue.h). The
// pass then tells the reachability callback the agent state: 2 when any
// server acknowledged, else 1.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

#include "platform/timings.h"
#include "protocol/delivery/server_dialogue.h"
#include "protocol/transport/server_entry.h"
#include "session/event_delivery.h"

namespace lindqvar {

class CLog;
class INetwork;
class ISupportLibrary;

// Told about every dialogue (optional).
class IExchangeObserver {
 public:
  virtual ~IExchangeObserver() = default;
  // Before the dialogue with a server starts.
  virtual void OnExchangeStart(const ServerEntry& server) {}
  // After it ended (the connection is closed).
  virtual void OnExchange(const ExchangeReport& report) = 0;
};

class CAuthenticatorClient : public IEventDelivery {
 public:
  // Told the state at the end of every pass: 2 when a server accepted the
  // event, else 1.
  using ReachabilityCallback = std::function<void(uint32_t state)>;

  CAuthenticatorClient(CLog& log, ISupportLibrary& support, INetwork& network,
                       const Timings& timings,
                       const CertificateMaterial& material = BuiltInCertificateMaterial());
  CAuthenticatorClient(const CAuthenticatorClient&) = delete;
  CAuthenticatorClient& operator=(const CAuthenticatorClient&) = delete;

  // Log lines about sending carry ", TICC:%d" before ", TID:%d" when on (the
  // default); resolution follows the same switch.
  void SetTickLogging(bool on);
  void SetNtlmRelay(INtlmRelay* relay) { m_ntlmRelay = relay; }
  // Set before the first pass. With an observer the reports describe the
  // server's certificate also with verification off.
  void SetObserver(IExchangeObserver* observer) {
    m_observer = observer;
    m_tls.SetDescribeServerCertificate(observer != nullptr);
  }
  // Opt-in server verification for the dialogues that start from now on.
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
  // A pass of dialogues that end after the hello acknowledgement: no event
  // is sent and the reachability callback is not told.
  void CheckServers();

 private:
  // Every configured server in list order, under the configuration in force
  // at the start (with m_passLock held): true when any dialogue passed.
  bool Pass(uint32_t session, const CEncoder* event);
  // The dialogue with one server under the pass's configuration.
  ExchangeReport Exchange(const ServerEntry& server, const DeliveryConfig& config, uint32_t session,
                          const CEncoder* event);
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
  INtlmRelay* m_ntlmRelay = nullptr;
  IExchangeObserver* m_observer = nullptr;
  uint32_t m_bLogTickCount = 1;
  // Held for a whole pass: passes go out one at a time, in order.
  std::mutex m_passLock;
};

}  // namespace lindqvar
