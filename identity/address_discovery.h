// Which local addresses the agent reports: up to four IPv4 and four IPv6
// addresses of this machine, leaving out those of virtual adapters (VMware,
// VirtualBox, Hyper-V adapters not bound to an external switch, hardware
// addresses beginning 44:45:53) and, when the address category asks for it,
// only the endpoint client's own VPN adapter's addresses while it is up.
// The session manager owns one; the event sender asks it for the addresses
// of every report.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "identity/address_lists.h"
#include "platform/adapters.h"
#include "platform/hyperv.h"
#include "platform/log.h"
#include "platform/network.h"

namespace lindqvar {

// One Hyper-V external switch port. `hasMac` is false when the port's
// permanent address was missing, not a string or all zeros: such a port
// matches no adapter.
struct HyperVExternalPort {
  std::u16string description;
  std::u16string elementName;
  std::array<uint8_t, 6> mac{};
  bool hasMac = false;
};

class CAddressDiscovery {
 public:
  CAddressDiscovery(CLog& log, INetwork& network, IAdapters& adapters, IHyperV& hyperv,
                    std::string hostName, uint32_t addressCategory);

  void SetHostName(const std::string& hostName);
  // Any non-zero category reports the VPN adapter's addresses alone while
  // that adapter is up.
  void SetAddressCategory(uint32_t category) { m_addressCategory.store(category); }

  // The entry point. Both counts are set to 0 first; nothing more happens
  // when either list is absent.
  void GetIPAddress(IPv4List* ipv4, uint32_t& count4, IPv6List* ipv6, uint32_t& count6);
  // The host name's addresses, in the resolver's order.
  void GetAllIPAddress(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6);
  // The same addresses without log lines: the manager's first collection.
  AddressSet HostAddresses();
  // The addresses of the first VPN adapter that is up; nothing when none is.
  void GetOnlyVLMVirtualAdapterAddress(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6,
                                       uint32_t& count6);

  // Rebuilds the list of addresses that belong to virtual adapters.
  void BuildVirtualAdapterList();
  // 1 when the address is not one of a virtual adapter's, else 0.
  uint32_t IsAddressAllowed(const ResolvedAddress& address) const;
  uint32_t IsVirtualAdapter(const AdapterInfo& adapter);
  uint32_t IsHyperVExternalSwitch(const AdapterInfo& adapter);
  // Reads Hyper-V's external switch ports (start-up, before the first
  // BuildVirtualAdapterList).
  void LoadHyperVExternalPorts();

  std::vector<ResolvedAddress> ExcludedAddresses() const;
  std::vector<HyperVExternalPort> HyperVExternalPorts() const;

 private:
  // Applies the per-family rules to one address and stores it when it is
  // reported. Returns true when it was stored.
  bool AddIfReportable(const ResolvedAddress& address, IPv4List& ipv4, uint32_t& count4,
                       IPv6List& ipv6, uint32_t& count6) const;
  // Resolves the host name and adds its reportable addresses, with a log
  // line for each when `logged`.
  void AddHostAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
                        bool logged);

  CLog& m_log;
  INetwork& m_network;
  IAdapters& m_adapters;
  IHyperV& m_hyperv;
  std::atomic<uint32_t> m_addressCategory;

  // Guards the host name and both lists: the address-change thread rebuilds
  // the excluded list while event threads read it.
  mutable std::mutex m_lock;
  std::string m_hostName;
  std::vector<ResolvedAddress> m_excluded;
  std::vector<HyperVExternalPort> m_hyperVPorts;
};

// The hardware addresses of the endpoint client's own VPN adapters: never
// treated as virtual.
inline constexpr std::array<std::array<uint8_t, 6>, 2> kOwnVpnAdapterMacs = {{
    {0x02, 0x4C, 0x51, 0x56, 0x00, 0x01},
    {0x02, 0x4C, 0x51, 0x56, 0x00, 0x02},
}};

// The descriptions of the endpoint client's VPN adapters (compared in full,
// case included).
inline constexpr char16_t kVpnAdapterDescription[] = u"Orvane SSL VPN Virtual Ethernet Adapter";
inline constexpr char16_t kVpnAdapterDescriptionNdis[] =
    u"Orvane Virtual Ethernet Adapter (NDIS 6.30)";

// Parses Hyper-V's 12-digit permanent address text (upper-case hexadecimal,
// not validated) from at most its first 16 8-bit characters.
std::array<uint8_t, 6> ParsePermanentAddress(const std::string& text);

}  // namespace lindqvar
