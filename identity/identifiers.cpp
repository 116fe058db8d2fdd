#include "identity/identifiers.h"

#include "platform/os.h"

namespace lindqvar {

namespace {
constexpr std::u16string_view kVrx = u"VRX";
}  // namespace

void CIdentifiers::LoadClientUuid() {
  std::u16string guid;
  if (!m_support.cfg_get_velmora_guid(guid)) {
    m_log.Debug("Failed to get UUID");
    return;
  }
  m_strClientUuid = WideToAnsi(guid);
  m_log.Debug("UUID:%s", m_strClientUuid.c_str());
}

void CIdentifiers::LoadVrxTenantId() {
  CScopedSupportKey key(m_support,
                        m_support.reg_openkeyW(SupportHive::kLocalMachine, kEsnacKeyPath));
  if (key) {
    m_strVrxTenantId.clear();
    std::u16string tenant;
    if (m_support.reg_getstringW(key.get(), u"tenantid", tenant, nullptr)) {
      m_strVrxTenantId = WideToAnsi(tenant);
    }
  }
  // A missing key keeps the last value read, and then says nothing.
  if (m_strVrxTenantId.empty()) m_log.Debug("Failed to get VRX tenant ID");
}

std::unique_ptr<IRegistryKey> CIdentifiers::OpenEsnacForRead() {
  CScopedSupportKey parent(m_support,
                           m_support.reg_openkeyW(SupportHive::kLocalMachine, kVelmoraKeyPath));
  if (!parent) return nullptr;
  // Opened below the library's key, in that key's registry view.
  std::unique_ptr<IRegistryKey> key;
  if (m_registry.OpenKey(parent.get(), kEsnacSubKey, reg_access::kRead, key) != kErrorSuccess) {
    return nullptr;
  }
  return key;
}

std::u16string CIdentifiers::PrimarySerialCandidate() {
  // Without a candidate of its own the endpoint client puts its fallback
  // identifier here; that identifier never contains "VRX", so for the
  // choice below it is the same as no candidate.
  std::unique_ptr<IRegistryKey> key = OpenEsnacForRead();
  if (!key) return {};
  std::u16string value;
  if (key->QueryString(u"hvq_sn", value) != kErrorSuccess || value.empty()) return {};

  const size_t split = value.find(u';');
  if (split == std::u16string::npos) return {};
  const std::u16string guid = value.substr(0, split);
  size_t end = value.find(u';', split + 1);
  if (end == std::u16string::npos) end = value.size();
  std::u16string serial = value.substr(split + 1, end - split - 1);

  std::u16string uuid;
  if (!m_support.cfg_get_velmora_guid(uuid) || guid != uuid) return {};
  return serial;
}

std::u16string CIdentifiers::SecondarySerialCandidate() {
  std::unique_ptr<IRegistryKey> key = OpenEsnacForRead();
  if (!key) return {};
  std::u16string pingServer, secondary;
  if (key->QueryString(u"SecondaryPingServer", pingServer) != kErrorSuccess ||
      pingServer.size() <= 1) {
    return {};
  }
  if (key->QueryString(u"secondary_sn", secondary) != kErrorSuccess || secondary.size() <= 1) {
    return {};
  }
  return secondary;
}

void CIdentifiers::LoadVrxSerial() {
  m_strVrxSerial.clear();
  const std::u16string primary = PrimarySerialCandidate();
  const std::u16string secondary = SecondarySerialCandidate();

  const std::u16string* serial = nullptr;
  if (primary.find(kVrx) != std::u16string::npos) {
    serial = &primary;
  } else if (secondary.find(kVrx) != std::u16string::npos) {
    serial = &secondary;
  }
  if (!serial) {
    m_log.Debug("Failed to get VRX SN");
    return;
  }
  m_strVrxSerial = WideToAnsi(*serial);
  m_log.Debug("VRX SN:%s", m_strVrxSerial.c_str());
}

std::string ReadHostName(INetwork& network) {
  std::string hostName = network.HostName();
  if (hostName.size() > 255) hostName.resize(255);
  return hostName;
}

std::string ReadComputerDomain(INetwork& network, CLog& log) {
  std::u16string domain;
  uint32_t error = 0;
  if (!network.PhysicalDnsDomain(domain, error)) {
    log.Error("Failed to get computer domain name\n");
    return {};
  }
  if (domain.empty()) {
    log.Error("Failed to get computer domain name, dwSize = 0\n");
    return {};
  }
  std::string ansi = WideToAnsi(domain);
  if (ansi.size() > 255) ansi.resize(255);
  return ansi;
}

}  // namespace lindqvar
