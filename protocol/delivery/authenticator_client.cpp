#include "protocol/delivery/authenticator_client.h"

namespace lindqvar {

CAuthenticatorClient::CAuthenticatorClient(CLog& log, ISupportLibrary& support, INetwork& network,
                                           const Timings& timings,
                                           const CertificateMaterial& material)
    : m_log(log),
      m_support(support),
      m_resolver(network, log),
      m_tls(log, support, timings, material) {}

void CAuthenticatorClient::SetTickLogging(bool on) {
  m_bLogTickCount = on ? 1 : 0;
  m_resolver.SetTickLogging(on);
}

void CAuthenticatorClient::SetConfiguration(DeliveryConfigPtr config) {
  std::lock_guard<std::mutex> lock(m_configLock);
  m_config = std::move(config);
}

void CAuthenticatorClient::SetLocalAddress(const IpAddress& address) {
  std::lock_guard<std::mutex> lock(m_configLock);
  m_localAddress = address;
}

DeliveryConfigPtr CAuthenticatorClient::Configuration() const {
  std::lock_guard<std::mutex> lock(m_configLock);
  return m_config;
}

DeliveryResult CAuthenticatorClient::Deliver(uint32_t session, const CEncoder& event) {
  std::lock_guard<std::mutex> pass(m_passLock);
  DeliveryResult result;
  result.delivered = Pass(session, &event);
  if (m_reachability) m_reachability(result.delivered ? 2 : 1);
  const IpAddress last = m_resolver.LastAddress();
  if (last.Family() == kFamilyIPv4) result.serverIPv4 = last.IPv4();
  return result;
}

void CAuthenticatorClient::CheckServers() {
  std::lock_guard<std::mutex> pass(m_passLock);
  Pass(0, nullptr);
}

bool CAuthenticatorClient::Pass(uint32_t session, const CEncoder* event) {
  const DeliveryConfigPtr config = Configuration();
  bool anyDone = false;
  if (!config) return false;
  for (const auto& server : config->servers) {
    if (server && Exchange(*server, *config, session, event).stage == ExchangeStage::kDone)
      anyDone = true;
  }
  return anyDone;
}

ExchangeReport CAuthenticatorClient::Exchange(const ServerEntry& server,
                                              const DeliveryConfig& config, uint32_t session,
                                              const CEncoder* event) {
  IpAddress local;
  {
    std::lock_guard<std::mutex> lock(m_configLock);
    local = m_localAddress;
  }
  if (m_observer) m_observer->OnExchangeStart(server);
  const DialogueParts parts{m_log, m_support, m_resolver, m_tls, m_ntlmRelay, m_bLogTickCount != 0};
  ExchangeReport report = SendAndReceive(parts, server, config.presharedKey, local, session, event);
  if (report.keepAliveInterval != 0) m_dwKeepAliveInterval = report.keepAliveInterval;
  if (m_observer) m_observer->OnExchange(report);
  return report;
}

}  // namespace lindqvar
