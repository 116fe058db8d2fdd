// Which local addresses the agent reports: up to four IPv4 and four IPv6
// addresses of this machine, leaving out those of virtual adapters (VMware,
// VirtualBox, Hyper-V adapters not bound to an external switch, hardware
// addresses beginning 44:45:53) and, when the address category asks for it,
// only the endpoint client's own VPN adapter's addresses while it is up.
// The session manager owns one; the event sender asks it for the addresses
// of every report. lindqvar-diag's report asks it for the same collection
// with the reason for every address it leaves out (ExplainIPAddress).
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

// What makes an adapter virtual (its addresses are then never reported).
enum class VirtualAdapterKind {
  kNone,            // not virtual (the endpoint client's own VPN adapters included)
  kVmware,          // description begins "VMware"
  kVirtualBox,      // description begins "VirtualBox"
  kHyperVInternal,  // a Hyper-V adapter not bound to an external switch
  kVirtualMac,      // hardware address begins 44:45:53
};

// Why an address looked at is, or is not, reported. The checks that leave
// an address out are the rules of the agent's own walk; the order they are
// named in here is the order they are asked in, so an address that breaks
// two rules gets the more telling one (a fifth link-local address is
// link-local, not over the limit).
enum class AddressVerdict {
  kReported,
  kLoopback,        // 127.0.0.0/8, ::1
  kUnspecified,     // any other IPv6 address whose first group is 0 (::, IPv4-mapped forms)
  kLinkLocal,       // 169.254.0.0/16, fe80::/10
  kVirtualAdapter,  // the address of a VMware, VirtualBox or 44:45:53 adapter
  kHyperVInternal,  // the address of a Hyper-V adapter on an internal or private switch
  kOverLimit,       // its family's four places were already taken
  kVpnFirst,        // the address category reports the VPN adapter's addresses alone while it is up
};

enum class AddressSource { kHostName, kVpnAdapter };

struct AddressDecision {
  ResolvedAddress address;
  AddressSource source = AddressSource::kHostName;
  AddressVerdict verdict = AddressVerdict::kReported;
  std::string adapter;  // the virtual adapter's description, for the two adapter verdicts
};

// One address collection with the reason for each address looked at: what
// GetIPAddress reports, and why everything else is left out.
struct AddressExplanation {
  std::string hostName;
  int resolveError = 0;  // the resolver's error for the host name, 0 when it answered
  uint32_t addressCategory = 0;
  std::u16string vpnAdapter;  // the VPN adapter that was up, when the category asked for one
  bool vpnFirst = false;      // its addresses were reported instead of the host name's
  AddressSet reported;
  std::vector<AddressDecision> decisions;  // in the order looked at
};

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

  // GetIPAddress with the reason for every address it looks at (and, when
  // the VPN-first rule takes the VPN adapter's addresses, for the host
  // name's addresses it therefore leaves out). Logs what GetIPAddress logs.
  AddressExplanation ExplainIPAddress();

  // Rebuilds the list of addresses that belong to virtual adapters.
  void BuildVirtualAdapterList();
  // 1 when the address is not one of a virtual adapter's, else 0.
  uint32_t IsAddressAllowed(const ResolvedAddress& address) const;
  uint32_t IsVirtualAdapter(const AdapterInfo& adapter);
  // What makes the adapter virtual; IsVirtualAdapter is 1 exactly when this
  // is not kNone (with the same log line for a Hyper-V adapter).
  VirtualAdapterKind ClassifyAdapter(const AdapterInfo& adapter);
  uint32_t IsHyperVExternalSwitch(const AdapterInfo& adapter);
  // Reads Hyper-V's external switch ports (start-up, before the first
  // BuildVirtualAdapterList).
  void LoadHyperVExternalPorts();

  std::vector<ResolvedAddress> ExcludedAddresses() const;
  std::vector<HyperVExternalPort> HyperVExternalPorts() const;

 private:
  // One entry of the excluded list: the address and the adapter it is of.
  struct ExcludedAddress {
    ResolvedAddress address;
    VirtualAdapterKind kind = VirtualAdapterKind::kNone;
    std::string adapter;
  };

  // The per-family rules for one address, given the counts so far.
  AddressVerdict Judge(const ResolvedAddress& address, uint32_t count4, uint32_t count6,
                       std::string* adapter) const;
  // Applies the rules to one address and stores it when it is reported;
  // records the decision in `why` when given. Returns true when stored.
  bool AddIfReportable(const ResolvedAddress& address, AddressSource source, IPv4List& ipv4,
                       uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
                       AddressExplanation* why) const;
  // GetIPAddress after its zero-filling.
  void Collect(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
               AddressExplanation* why);
  void AllAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
                    AddressExplanation* why);
  void VpnAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
                    AddressExplanation* why);
  // Resolves the host name and adds its reportable addresses, with a log
  // line for each when `logged`.
  void AddHostAddresses(IPv4List& ipv4, uint32_t& count4, IPv6List& ipv6, uint32_t& count6,
                        bool logged, AddressExplanation* why);

  CLog& m_log;
  INetwork& m_network;
  IAdapters& m_adapters;
  IHyperV& m_hyperv;
  std::atomic<uint32_t> m_addressCategory;

  // Guards the host name and both lists: the address-change thread rebuilds
  // the excluded list while event threads read it.
  mutable std::mutex m_lock;
  std::string m_hostName;
  std::vector<ExcludedAddress> m_excluded;
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
