#include "identity/address_discovery.h"

#include <algorithm>
#include <cstring>

#include "identity/address_text.h"
#include "platform/os.h"

namespace lindqvar {

namespace {

constexpr const char* kGetIPAddress = "CSessionManager::GetIPAddress";
constexpr const char* kGetAllIPAddress = "CSessionManager::GetAllIPAddress";
constexpr const char* kGetOnlyVpn = "CSessionManager::GetOnlyVLMVirtualAdapterAddress";
constexpr const char* kIsHyperVExternalSwitch = "CSessionManager::IsHyperVExternalSwitch";

// The description prefixes of virtual adapters, compared byte for byte
// (case included; a description may continue after them).
constexpr std::string_view kVmwarePrefix = "VMware";
constexpr std::string_view kVirtualBoxPrefix = "VirtualBox";
constexpr std::string_view kHyperVPrefix = "Hyper-V Virtual Ethernet Adapter";
constexpr uint8_t kVirtualMacPrefix[3] = {0x44, 0x45, 0x53};  // "DES"

constexpr size_t kPermanentAddressBytes = 16;

bool StartsWith(const std::string& text, std::string_view prefix) {
  return std::strncmp(text.c_str(), prefix.data(), prefix.size()) == 0;
}

bool SameAddress(const ResolvedAddress& a, const ResolvedAddress& b) {
  if (a.family != b.family) return false;
  const size_t n = a.family == kFamilyIPv4 ? 4 : 16;
  return std::memcmp(a.bytes.data(), b.bytes.data(), n) == 0;
}

std::string AnsiForLog(const std::string& ansi) { return WideToUtf8(AnsiToWide(ansi)); }

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;  // upper case assumed, anything else unchecked
}

}  // namespace

CAddressDiscovery::CAddressDiscovery(CLog& log, INetwork& network, IAdapters& adapters,
                                     IHyperV& hyperv, std::string hostName,
                                     uint32_t addressCategory)
    : m_log(log),
      m_network(network),
      m_adapters(adapters),
      m_hyperv(hyperv),
      m_addressCategory(addressCategory),
      m_hostName(std::move(hostName)) {}

void CAddressDiscovery::SetHostName(const std::string& hostName) {
  std::lock_guard<std::mutex> lock(m_lock);
  m_hostName = hostName;
}

void CAddressDiscovery::GetIPAddress(IPv4List* ipv4, uint32_t& count4, IPv6List* ipv6,
                                     uint32_t& count6) {
  count4 = 0;
  count6 = 0;
  if (!ipv4 || !ipv6) return;
  ipv4->fill(0);
  for (IPv6Address& a : *ipv6) a.fill(0);
  Collect(*ipv4, count4, *ipv6, count6, nullptr);
}

AddressExplanation CAddressDiscovery::ExplainIPAddress() {
  AddressExplanation why;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    why.hostName = m_hostName;
  }
  why.addressCategory = m_addressCategory.load();
  AddressSet& set = why.reported;
  Collect(set.ipv4, set.count4, set.ipv6, set.count6, &why);
  if (why.vpnFirst) {
    // The walk never looked at the host name's addresses: say what the
    // rule kept out.
    std::vector<ResolvedAddress> addresses;
    why.resolveError = m_network.Resolve(why.hostName, addresses);
    for (const ResolvedAddress& a : addresses)
      why.decisions.push_back({a, AddressSource::kHostName, AddressVerdict::kVpnFirst, {}});
  }
  return why;
}

void CAddressDiscovery::Collect(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
                                AddressExplanation* why) {
  if (m_addressCategory.load() != 0) {
    VpnAddresses(ipv4, count4, ipv6, count6, why);
    if (count4 == 0 && count6 == 0) {
      m_log.Debug("VPN is down\n");
      AllAddresses(ipv4, count4, ipv6, count6, why);
    } else {
      m_log.Debug("VPN is up\n");
      if (why) why->vpnFirst = true;
    }
  } else {
    AllAddresses(ipv4, count4, ipv6, count6, why);
  }
  m_log.Debug("%s:%d count:%d, count6:%d\n", kGetIPAddress, 1227, static_cast<int>(count4),
              static_cast<int>(count6));
}

AddressVerdict CAddressDiscovery::Judge(const ResolvedAddress& address, uint32_t count4,
                                        uint32_t count6, std::string* adapter) const {
  const auto& b = address.bytes;
  uint32_t count = count4;
  if (address.family == kFamilyIPv4) {
    if (b[0] == 127) return AddressVerdict::kLoopback;
    if (b[0] == 169 && b[1] == 254) return AddressVerdict::kLinkLocal;
  } else if (address.family == kFamilyIPv6) {
    // A first group of 0 drops ::1, :: and IPv4-mapped forms.
    const uint16_t first = FirstGroup(b.data());
    if (first == 0) {
      const bool loopback =
          std::all_of(b.begin(), b.begin() + 15, [](uint8_t x) { return x == 0; }) && b[15] == 1;
      return loopback ? AddressVerdict::kLoopback : AddressVerdict::kUnspecified;
    }
    if ((first & 0xffc0) == 0xfe80) return AddressVerdict::kLinkLocal;
    count = count6;
  } else {
    return AddressVerdict::kUnspecified;  // neither family: never reported
  }
  {
    std::lock_guard<std::mutex> lock(m_lock);
    for (const ExcludedAddress& e : m_excluded) {
      if (!SameAddress(e.address, address)) continue;
      if (adapter) *adapter = e.adapter;
      return e.kind == VirtualAdapterKind::kHyperVInternal ? AddressVerdict::kHyperVInternal
                                                           : AddressVerdict::kVirtualAdapter;
    }
  }
  return count >= 4 ? AddressVerdict::kOverLimit : AddressVerdict::kReported;
}

bool CAddressDiscovery::AddIfReportable(const ResolvedAddress& address, AddressSource source,
                                        IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6,
                                        uint32_t& count6, AddressExplanation* why) const {
  AddressDecision decision{address, source, AddressVerdict::kReported, {}};
  decision.verdict = Judge(address, count4, count6, why ? &decision.adapter : nullptr);
  if (why) why->decisions.push_back(decision);
  if (decision.verdict != AddressVerdict::kReported) return false;
  if (address.family == kFamilyIPv4) {
    std::memcpy(&ipv4[count4], address.bytes.data(), 4);  // stays in network byte order
    ++count4;
  } else {
    std::memcpy(ipv6[count6].data(), address.bytes.data(), 16);
    ++count6;
  }
  return true;
}

void CAddressDiscovery::GetAllIPAddress(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6,
                                        uint32_t& count6) {
  AllAddresses(ipv4, count4, ipv6, count6, nullptr);
}

void CAddressDiscovery::AllAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6,
                                     uint32_t& count6, AddressExplanation* why) {
  m_log.Debug("%s is called\n", kGetAllIPAddress);
  AddHostAddresses(ipv4, count4, ipv6, count6, true, why);
}

AddressSet CAddressDiscovery::HostAddresses() {
  AddressSet set;
  AddHostAddresses(set.ipv4, set.count4, set.ipv6, set.count6, false, nullptr);
  return set;
}

void CAddressDiscovery::AddHostAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6,
                                         uint32_t& count6, bool logged, AddressExplanation* why) {
  std::string hostName;
  {
    std::lock_guard<std::mutex> lock(m_lock);
    hostName = m_hostName;
  }
  std::vector<ResolvedAddress> addresses;
  const int error = m_network.Resolve(hostName, addresses);
  if (why) why->resolveError = error;
  if (error != 0) return;
  for (const ResolvedAddress& a : addresses) {
    if (!AddIfReportable(a, AddressSource::kHostName, ipv4, count4, ipv6, count6, why) || !logged)
      continue;
    if (a.family == kFamilyIPv4) {
      m_log.Debug("%s:%d IPv4 address:%s\n", kGetAllIPAddress, 1356, AddressText(a).c_str());
    } else {
      m_log.Debug("%s:%d IPv6 address:%s\n", kGetAllIPAddress, 1368, AddressText(a).c_str());
    }
  }
}

void CAddressDiscovery::GetOnlyVLMVirtualAdapterAddress(IPv4List& ipv4, uint32_t& count4,
                                                        IPv6List& ipv6, uint32_t& count6) {
  VpnAddresses(ipv4, count4, ipv6, count6, nullptr);
}

void CAddressDiscovery::VpnAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6,
                                     uint32_t& count6, AddressExplanation* why) {
  m_log.Debug("%s is called\n", kGetOnlyVpn);
  std::vector<AdapterAddresses> adapters;
  if (m_adapters.AllocateAdaptersAddresses(adapters) != 0) return;
  const auto vpn = std::find_if(adapters.begin(), adapters.end(), [](const AdapterAddresses& a) {
    return a.operStatus == kIfOperStatusUp &&
           (a.description == kVpnAdapterDescription || a.description == kVpnAdapterDescriptionNdis);
  });
  if (vpn == adapters.end()) return;
  if (why) why->vpnAdapter = vpn->description;
  for (const ResolvedAddress& a : vpn->unicast)
    AddIfReportable(a, AddressSource::kVpnAdapter, ipv4, count4, ipv6, count6, why);
}

void CAddressDiscovery::BuildVirtualAdapterList() {
  {
    std::lock_guard<std::mutex> lock(m_lock);
    m_excluded.clear();
  }
  std::vector<AdapterInfo> adapters;
  if (m_adapters.GetAdaptersInfo(adapters) != 0) return;

  std::vector<ExcludedAddress> excluded;
  for (const AdapterInfo& adapter : adapters) {
    if (adapter.type == kIfTypePpp || adapter.type == kIfTypeSlip) continue;
    const VirtualAdapterKind kind = ClassifyAdapter(adapter);
    if (kind == VirtualAdapterKind::kNone || adapter.addressLength == 0) continue;
    // The adapter's first address, once for every entry of its address list.
    for (size_t i = 0; i < adapter.ipAddresses.size(); ++i) {
      excluded.push_back({ParseIPv4Text(adapter.ipAddresses.front()), kind, adapter.description});
    }
  }
  std::lock_guard<std::mutex> lock(m_lock);
  m_excluded = std::move(excluded);
}

uint32_t CAddressDiscovery::IsAddressAllowed(const ResolvedAddress& address) const {
  std::lock_guard<std::mutex> lock(m_lock);
  for (const ExcludedAddress& e : m_excluded) {
    if (SameAddress(e.address, address)) return 0;
  }
  return 1;
}

uint32_t CAddressDiscovery::IsVirtualAdapter(const AdapterInfo& adapter) {
  return ClassifyAdapter(adapter) == VirtualAdapterKind::kNone ? 0 : 1;
}

VirtualAdapterKind CAddressDiscovery::ClassifyAdapter(const AdapterInfo& adapter) {
  if (adapter.addressLength == 6) {
    for (const auto& mac : kOwnVpnAdapterMacs) {
      if (std::memcmp(adapter.address.data(), mac.data(), 6) == 0) return VirtualAdapterKind::kNone;
    }
  }
  if (StartsWith(adapter.description, kVmwarePrefix)) return VirtualAdapterKind::kVmware;
  if (StartsWith(adapter.description, kVirtualBoxPrefix)) return VirtualAdapterKind::kVirtualBox;
  if (StartsWith(adapter.description, kHyperVPrefix) && !IsHyperVExternalSwitch(adapter))
    return VirtualAdapterKind::kHyperVInternal;
  return std::memcmp(adapter.address.data(), kVirtualMacPrefix, 3) == 0
             ? VirtualAdapterKind::kVirtualMac
             : VirtualAdapterKind::kNone;
}

uint32_t CAddressDiscovery::IsHyperVExternalSwitch(const AdapterInfo& adapter) {
  bool external = false;
  if (adapter.addressLength == 6) {
    std::lock_guard<std::mutex> lock(m_lock);
    for (const HyperVExternalPort& port : m_hyperVPorts) {
      if (port.hasMac && std::memcmp(port.mac.data(), adapter.address.data(), 6) == 0) {
        external = true;
        break;
      }
    }
  }
  m_log.Debug(
      "%s:%d AdapterName:%s, Description:%s, %s\n", kIsHyperVExternalSwitch, 3617,
      AnsiForLog(adapter.adapterName).c_str(), AnsiForLog(adapter.description).c_str(),
      external ? "It's a Hyper-v external switch" : "It's a Hyper-v internal/private switch");
  return external ? 1 : 0;
}

void CAddressDiscovery::LoadHyperVExternalPorts() {
  std::vector<HyperVPortRow> rows;
  m_hyperv.QueryExternalPorts(rows);
  std::vector<HyperVExternalPort> ports;
  for (const HyperVPortRow& row : rows) {
    HyperVExternalPort port;
    if (row.permanentAddress && *row.permanentAddress != u"000000000000") {
      m_log.Debug("Mac address:%s\n", WideToUtf8(*row.permanentAddress).c_str());
      port.mac = ParsePermanentAddress(WideToAnsi(*row.permanentAddress));
      port.hasMac = true;
      if (row.elementName) {
        port.elementName = *row.elementName;
        m_log.Debug("ElementName:%s\n", WideToUtf8(port.elementName).c_str());
      }
      if (row.description) {
        port.description = *row.description;
        m_log.Debug("Description:%s\n", WideToUtf8(port.description).c_str());
      }
    }
    ports.push_back(std::move(port));
  }
  std::lock_guard<std::mutex> lock(m_lock);
  m_hyperVPorts = std::move(ports);
}

std::vector<ResolvedAddress> CAddressDiscovery::ExcludedAddresses() const {
  std::lock_guard<std::mutex> lock(m_lock);
  std::vector<ResolvedAddress> addresses;
  for (const ExcludedAddress& e : m_excluded) addresses.push_back(e.address);
  return addresses;
}

std::vector<HyperVExternalPort> CAddressDiscovery::HyperVExternalPorts() const {
  std::lock_guard<std::mutex> lock(m_lock);
  return m_hyperVPorts;
}

std::array<uint8_t, 6> ParsePermanentAddress(const std::string& text) {
  char buffer[kPermanentAddressBytes] = {};
  std::copy_n(text.begin(), std::min(text.size(), kPermanentAddressBytes), buffer);
  std::array<uint8_t, 6> mac{};
  for (size_t i = 0; i < mac.size(); ++i) {
    mac[i] = static_cast<uint8_t>(HexDigit(buffer[2 * i]) * 16 + HexDigit(buffer[2 * i + 1]));
  }
  return mac;
}

}  // namespace lindqvar
