// What identifies the machine: which local addresses are reported (resolver
// walk, VPN-first rule, virtual adapters, Hyper-V switches and the list
// comparisons); the client UUID, the management server's serial and tenant
// id, and the host and domain names.
#include <gtest/gtest.h>

#include <cstring>

#include "identity/address_discovery.h"
#include "identity/address_text.h"
#include "identity/identifiers.h"
#include "tests/identity/identity_fakes.h"

namespace lindqvar::testing {
namespace {

ResolvedAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return FakeNetwork::V4(a, b, c, d); }
ResolvedAddress V6(std::initializer_list<uint16_t> g) { return FakeNetwork::V6(g); }

uint32_t Packed(const ResolvedAddress& a) {
  uint32_t v;
  std::memcpy(&v, a.bytes.data(), 4);
  return v;
}
IPv6Address Bytes16(const ResolvedAddress& a) {
  IPv6Address out;
  std::memcpy(out.data(), a.bytes.data(), 16);
  return out;
}

AdapterInfo Info(const std::string& description, std::array<uint8_t, 6> mac,
                 std::vector<std::string> ips, uint32_t type = 6) {
  AdapterInfo info;
  info.adapterName = "{" + description + "}";
  info.description = description;
  info.type = type;
  std::memcpy(info.address.data(), mac.data(), 6);
  info.addressLength = 6;
  info.ipAddresses = std::move(ips);
  return info;
}

class AddressDiscoveryTest : public ::testing::Test {
 protected:
  AddressDiscoveryTest() : log(support), discovery(log, network, adapters, hyperv, "pc7", 0) {
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
  }
  void Lookup() { discovery.GetIPAddress(&ipv4, count4, &ipv6, count6); }
  void VpnAdapter(uint32_t status, std::vector<ResolvedAddress> unicast,
                  std::u16string description = kVpnAdapterDescription) {
    AdapterAddresses a;
    a.description = std::move(description);
    a.operStatus = status;
    a.unicast = std::move(unicast);
    adapters.addresses.push_back(a);
  }

  FakeSupport support;
  CLog log;
  FakeNetwork network;
  FakeAdapters adapters;
  FakeHyperV hyperv;
  CAddressDiscovery discovery;
  IPv4List ipv4{};
  IPv6List ipv6{};
  uint32_t count4 = 9, count6 = 9;
};

TEST_F(AddressDiscoveryTest, ResolverWalkKeepsFourOfEachAndDropsLocalForms) {
  network.names["pc7"] = {
      V4(127, 0, 0, 1),   V4(10, 0, 0, 1),     V4(169, 254, 3, 4), V6({0, 0, 0, 0, 0, 0, 0, 1}),
      V6({0xfe80, 0, 0, 0, 0, 0, 0, 9}),       V6({0xfebf, 1}),    V6({0, 0, 0, 0, 0, 0xffff, 0x0a00, 1}),
      V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}),   V4(10, 0, 0, 2),    V4(192, 168, 1, 3),
      V4(172, 16, 0, 4),  V4(10, 9, 9, 9),     V6({0xfec0, 0, 0, 0, 0, 0, 0, 1}),
      V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 2}),   V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 3}),
      V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 4})};
  ipv4.fill(0xffffffffu);
  Lookup();
  ASSERT_EQ(4u, count4);
  EXPECT_EQ((IPv4List{Packed(V4(10, 0, 0, 1)), Packed(V4(10, 0, 0, 2)), Packed(V4(192, 168, 1, 3)),
                      Packed(V4(172, 16, 0, 4))}),
            ipv4);  // the fifth, 10.9.9.9, is dropped
  ASSERT_EQ(4u, count6);
  // Site-local fec0::1 is not link-local.
  EXPECT_EQ(std::make_tuple(Bytes16(V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1})), Bytes16(V6({0xfec0, 0, 0, 0, 0, 0, 0, 1})),
                            Bytes16(V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 3}))),
            std::make_tuple(ipv6[0], ipv6[1], ipv6[3]));

  EXPECT_TRUE(support.HasLine("CSessionManager::GetAllIPAddress is called\n"));
  EXPECT_TRUE(support.HasLine("CSessionManager::GetAllIPAddress:1356 IPv4 address:192.168.1.3\n"));
  EXPECT_TRUE(support.HasLine("CSessionManager::GetAllIPAddress:1368 IPv6 address:fec0::1\n"));
  size_t v6Lines = 0;
  for (const char* a : {"2001:db8::1", "fec0::1", "2001:db8::2", "2001:db8::3"})
    v6Lines += support.CountLines(std::string("CSessionManager::GetAllIPAddress:1368 IPv6 address:") + a + "\n");
  EXPECT_EQ(4u, v6Lines);
  EXPECT_TRUE(support.HasLine("CSessionManager::GetIPAddress:1227 count:4, count6:4\n"));
  // The manager's first collection: the same addresses, without log lines.
  const size_t lines = support.Lines().size();
  const AddressSet host = discovery.HostAddresses();
  EXPECT_TRUE(host.ipv4 == ipv4 && host.ipv6 == ipv6 && support.Lines().size() == lines);
}

TEST_F(AddressDiscoveryTest, NothingFoundAndAbsentLists) {
  ipv4.fill(7);
  Lookup();  // the host name does not resolve; the list is zero-filled before the lookup
  EXPECT_EQ(std::make_tuple(0u, 0u, IPv4List{}), std::make_tuple(count4, count6, ipv4));

  network.names["pc7"] = {V4(10, 0, 0, 1)};
  count4 = count6 = 5;
  discovery.GetIPAddress(nullptr, count4, &ipv6, count6);
  EXPECT_EQ(std::make_tuple(0u, 0u), std::make_tuple(count4, count6));
  EXPECT_FALSE(support.HasLine("CSessionManager::GetAllIPAddress:1356 IPv4 address:10.0.0.1\n"));
}

TEST_F(AddressDiscoveryTest, VpnFirstWhenTheCategoryAsksForIt) {
  network.names["pc7"] = {V4(192, 168, 1, 3), V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1})};
  VpnAdapter(2, {V4(10, 212, 0, 7)});  // down
  VpnAdapter(1, {V4(10, 212, 0, 8)}, u"orvane SSL VPN Virtual Ethernet Adapter");  // case differs
  VpnAdapter(1, {V4(127, 0, 0, 1), V6({0xfe80, 0, 0, 0, 0, 0, 0, 1})});  // up, nothing reportable

  discovery.SetAddressCategory(0);
  Lookup();
  EXPECT_EQ(1u, count4);
  EXPECT_FALSE(support.HasLine("CSessionManager::GetOnlyVLMVirtualAdapterAddress is called\n"));

  discovery.SetAddressCategory(3);
  Lookup();
  EXPECT_TRUE(support.HasLine("VPN is down\n"));
  EXPECT_EQ(Packed(V4(192, 168, 1, 3)), ipv4[0]);
  EXPECT_EQ(1u, count6);

  adapters.addresses.clear();
  VpnAdapter(1, {V4(10, 212, 0, 9), V4(169, 254, 0, 1), V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 0x77})},
             kVpnAdapterDescriptionNdis);
  Lookup();
  EXPECT_TRUE(support.HasLine("VPN is up\n"));
  EXPECT_EQ(std::make_tuple(1u, Packed(V4(10, 212, 0, 9)), 1u, Bytes16(V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 0x77}))),
            std::make_tuple(count4, ipv4[0], count6, ipv6[0]));
  // The VPN's addresses are not logged one by one.
  EXPECT_FALSE(support.HasLine("CSessionManager::GetAllIPAddress:1356 IPv4 address:10.212.0.9\n"));

  adapters.addressesError = 8;
  Lookup();
  EXPECT_EQ(2u, support.CountLines("VPN is down\n"));
}

TEST_F(AddressDiscoveryTest, VirtualAdapterClassification) {
  const std::array<uint8_t, 6> plain = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
  for (const auto& [description, virtualOne] :
       {std::pair("VMware Virtual Ethernet Adapter for VMnet8", 1u), {"VMwareX", 1u}, {"vmware adapter", 0u},
        {"VirtualBox Host-Only Ethernet Adapter", 1u}, {"VirtualBo", 0u}, {"Intel(R) Ethernet", 0u}})
    EXPECT_EQ(virtualOne, discovery.IsVirtualAdapter(Info(description, plain, {}))) << description;
  EXPECT_EQ(1u, discovery.IsVirtualAdapter(Info("Intel(R) Ethernet", {0x44, 0x45, 0x53, 0, 0, 1}, {})));
  // The endpoint client's own VPN adapters are never virtual.
  for (const auto& mac : kOwnVpnAdapterMacs) {
    EXPECT_EQ(0u, discovery.IsVirtualAdapter(Info("VMware look-alike", mac, {})));
  }
  AdapterInfo shortMac = Info("Intel", {0x44, 0x45, 0x53, 0, 0, 0}, {});
  shortMac.addressLength = 3;
  EXPECT_EQ(1u, discovery.IsVirtualAdapter(shortMac));
}

TEST_F(AddressDiscoveryTest, HyperVExternalSwitchIsReportedInternalIsNot) {
  hyperv.rows = {
      HyperVPortRow{u"00155D0A0B0C", u"External Switch", u"Port on NIC"},
      HyperVPortRow{u"000000000000", u"Zero", u"Zero port"},
      HyperVPortRow{std::nullopt, u"NoMac", std::nullopt},
  };
  discovery.LoadHyperVExternalPorts();
  const auto ports = discovery.HyperVExternalPorts();
  ASSERT_EQ(3u, ports.size());
  EXPECT_EQ(std::make_tuple(true, std::array<uint8_t, 6>{0x00, 0x15, 0x5d, 0x0a, 0x0b, 0x0c}, u"External Switch"),
            std::make_tuple(ports[0].hasMac, ports[0].mac, ports[0].elementName));
  // The element name is only read after a parsed address.
  EXPECT_EQ(std::make_tuple(false, u"", false), std::make_tuple(ports[1].hasMac, ports[1].elementName, ports[2].hasMac));
  EXPECT_TRUE(support.HasLine("Mac address:00155D0A0B0C\n"));
  EXPECT_TRUE(support.HasLine("ElementName:External Switch\n"));
  EXPECT_TRUE(support.HasLine("Description:Port on NIC\n"));
  EXPECT_FALSE(support.HasLine("Mac address:000000000000\n"));

  adapters.infos = {
      Info("Hyper-V Virtual Ethernet Adapter", {0x00, 0x15, 0x5d, 0x0a, 0x0b, 0x0c}, {"192.168.7.2"}),
      Info("Hyper-V Virtual Ethernet Adapter #2", {0x00, 0x15, 0x5d, 0x99, 0x00, 0x01}, {"172.20.0.1"}),
      Info("hyper-v virtual ethernet adapter #3", {0x00, 0x15, 0x5d, 0x99, 0x00, 0x02}, {"172.21.0.1"}),
      Info("Hyper-V Virtual Ethernet Adapter", {0, 0, 0, 0, 0, 0}, {"172.22.0.1"}),  // zero MAC
  };
  discovery.BuildVirtualAdapterList();
  EXPECT_EQ(1u, discovery.IsAddressAllowed(V4(192, 168, 7, 2)));
  EXPECT_EQ(0u, discovery.IsAddressAllowed(V4(172, 20, 0, 1)));
  EXPECT_EQ(1u, discovery.IsAddressAllowed(V4(172, 21, 0, 1)));  // case defeats the prefix test
  EXPECT_EQ(0u, discovery.IsAddressAllowed(V4(172, 22, 0, 1)));  // never matches a port
  EXPECT_TRUE(support.HasLine(
      "CSessionManager::IsHyperVExternalSwitch:3617 AdapterName:{Hyper-V Virtual Ethernet Adapter}, "
      "Description:Hyper-V Virtual Ethernet Adapter, It's a Hyper-v external switch\n"));
  EXPECT_TRUE(support.HasLine(
      "CSessionManager::IsHyperVExternalSwitch:3617 AdapterName:{Hyper-V Virtual Ethernet Adapter #2}, "
      "Description:Hyper-V Virtual Ethernet Adapter #2, It's a Hyper-v internal/private switch\n"));
}

TEST_F(AddressDiscoveryTest, ExcludedListTakesEachVirtualAdaptersFirstAddress) {
  const std::array<uint8_t, 6> mac = {0x00, 0x50, 0x56, 0xc0, 0x00, 0x08};
  AdapterInfo noMac = Info("VMware no MAC", mac, {"192.168.60.1"});
  noMac.addressLength = 0;
  adapters.infos = {
      Info("VMware Virtual Ethernet Adapter for VMnet8", mac, {"192.168.50.1", "192.168.51.1"}),
      Info("VMware dial-up", mac, {"192.168.70.1"}, kIfTypePpp),
      Info("VirtualBox slip", mac, {"192.168.71.1"}, kIfTypeSlip),
      noMac,
      Info("Realtek PCIe GbE", {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}, {"192.168.1.3"}),
  };
  discovery.BuildVirtualAdapterList();
  const auto excluded = discovery.ExcludedAddresses();
  ASSERT_EQ(2u, excluded.size());  // the first address, once per entry of the list
  EXPECT_EQ(std::make_tuple(Packed(V4(192, 168, 50, 1)), Packed(V4(192, 168, 50, 1))),
            std::make_tuple(Packed(excluded[0]), Packed(excluded[1])));

  network.names["pc7"] = {V4(192, 168, 50, 1), V4(192, 168, 51, 1), V4(192, 168, 70, 1),
                          V4(192, 168, 60, 1), V4(192, 168, 1, 3)};
  Lookup();
  EXPECT_EQ(std::make_tuple(4u, Packed(V4(192, 168, 51, 1))), std::make_tuple(count4, ipv4[0]));

  // A failed adapter query leaves the list empty, not stale.
  adapters.infoError = 232;
  discovery.BuildVirtualAdapterList();
  EXPECT_TRUE(discovery.ExcludedAddresses().empty());
  EXPECT_EQ(1u, discovery.IsAddressAllowed(V4(192, 168, 50, 1)));
}

// Every reason an address is left out, on one machine: AddressCategory 0
// walks the host name's addresses; 3 with the VPN adapter up takes that
// adapter's addresses and leaves the host name's out. The explanation
// reports exactly what GetIPAddress reports, with the same log lines.
TEST_F(AddressDiscoveryTest, ExplanationNamesTheReasonForEveryAddress) {
  using V = AddressVerdict;
  const AddressSource host = AddressSource::kHostName, vpn = AddressSource::kVpnAdapter;
  const struct Row {
    uint32_t category;
    AddressSource source;
    ResolvedAddress address;
    AddressVerdict verdict;
    const char* adapter;
  } rows[] = {
      {0, host, V4(127, 0, 1, 1), V::kLoopback, ""},
      {0, host, V6({0, 0, 0, 0, 0, 0, 0, 1}), V::kLoopback, ""},
      {0, host, V6({0, 0, 0, 0, 0, 0xffff, 0x0a00, 1}), V::kUnspecified, ""},
      {0, host, V4(169, 254, 3, 4), V::kLinkLocal, ""},
      {0, host, V6({0xfe80, 0, 0, 0, 0, 0, 0, 9}), V::kLinkLocal, ""},
      {0, host, V4(192, 168, 50, 1), V::kVirtualAdapter, "VMware Virtual Ethernet Adapter for VMnet8"},
      {0, host, V4(192, 168, 60, 1), V::kVirtualAdapter, "Intel(R) Ethernet"},  // 44:45:53
      {0, host, V4(172, 20, 0, 1), V::kHyperVInternal, "Hyper-V Virtual Ethernet Adapter #2"},
      {0, host, V4(192, 168, 7, 2), V::kReported, ""},  // Hyper-V on the external switch
      {0, host, V4(10, 0, 0, 1), V::kReported, ""},
      {0, host, V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1}), V::kReported, ""},
      {0, host, V4(10, 0, 0, 2), V::kReported, ""},
      {0, host, V4(10, 0, 0, 3), V::kReported, ""},
      {0, host, V4(10, 9, 9, 9), V::kOverLimit, ""},
      {0, host, V4(169, 254, 9, 9), V::kLinkLocal, ""},  // the more telling reason when both hold
      {3, vpn, V4(10, 212, 0, 9), V::kReported, ""},
      {3, vpn, V6({0xfe80, 0, 0, 0, 0, 0, 0, 1}), V::kLinkLocal, ""},
  };
  hyperv.rows = {HyperVPortRow{u"00155D0A0B0C", u"External Switch", u"Port on NIC"}};
  discovery.LoadHyperVExternalPorts();
  adapters.infos = {
      Info("VMware Virtual Ethernet Adapter for VMnet8", {0x00, 0x50, 0x56, 0xc0, 0, 8}, {"192.168.50.1"}),
      Info("Intel(R) Ethernet", {0x44, 0x45, 0x53, 0, 0, 1}, {"192.168.60.1"}),
      Info("Hyper-V Virtual Ethernet Adapter #2", {0x00, 0x15, 0x5d, 0x99, 0, 1}, {"172.20.0.1"}),
      Info("Hyper-V Virtual Ethernet Adapter", {0x00, 0x15, 0x5d, 0x0a, 0x0b, 0x0c}, {"192.168.7.2"}),
  };
  discovery.BuildVirtualAdapterList();
  std::vector<ResolvedAddress> hostAddresses;
  for (const Row& row : rows)
    if (row.source == host) hostAddresses.push_back(row.address);
  network.names["pc7"] = hostAddresses;
  VpnAdapter(1, {V4(10, 212, 0, 9), V6({0xfe80, 0, 0, 0, 0, 0, 0, 1})});

  for (const uint32_t category : {0u, 3u}) {
    SCOPED_TRACE(category);
    discovery.SetAddressCategory(category);
    size_t lines = support.Lines().size();
    const AddressExplanation why = discovery.ExplainIPAddress();
    const size_t explainLines = support.Lines().size() - lines;
    lines = support.Lines().size();
    Lookup();
    EXPECT_EQ(std::make_tuple(explainLines, count4, count6, ipv4, ipv6, category != 0),
              std::make_tuple(support.Lines().size() - lines, why.reported.count4, why.reported.count6,
                              why.reported.ipv4, why.reported.ipv6, why.vpnFirst));

    std::vector<Row> expected;
    for (const Row& row : rows)
      if (row.category == category) expected.push_back(row);
    if (category != 0) {  // the host name's addresses, each kept out by the rule
      for (const ResolvedAddress& a : hostAddresses) expected.push_back({category, host, a, V::kVpnFirst, ""});
    }
    ASSERT_EQ(expected.size(), why.decisions.size());
    for (size_t i = 0; i < expected.size(); ++i) {
      const AddressDecision& d = why.decisions[i];
      EXPECT_EQ(std::make_tuple(AddressText(expected[i].address), expected[i].source, expected[i].verdict,
                                std::string(expected[i].adapter)),
                std::make_tuple(AddressText(d.address), d.source, d.verdict, d.adapter));
    }
  }
}

TEST(PermanentAddressTest, ParsesHexPairsWithoutValidation) {
  for (const char* text : {"00155DABCDEF", "00155dabcdef"})
    EXPECT_EQ((std::array<uint8_t, 6>{0x00, 0x15, 0x5d, 0xab, 0xcd, 0xef}), ParsePermanentAddress(text)) << text;
  // Anything else counts as an upper-case letter would.
  EXPECT_EQ(static_cast<uint8_t>(('G' - 'A' + 10) * 16 + 1), ParsePermanentAddress("G10000000000")[0]);
  // Short text reads the zero-filled buffer beyond it.
  EXPECT_EQ(static_cast<uint8_t>(0x12), ParsePermanentAddress("12")[0]);
}

TEST(AddressListsTest, ComparisonsAreOrderFreeAndOneSided) {
  const IPv4List a = {1, 2, 3, 0};
  const IPv4List reordered = {3, 1, 2, 0};
  const IPv4List other = {1, 2, 4, 3};
  EXPECT_EQ(0u, IPv4ListsDiffer(3, a, reordered));
  EXPECT_EQ(1u, IPv4ListsDiffer(3, a, other));  // 3 is only beyond the count
  EXPECT_EQ(0u, IPv4ListsDiffer(4, a, IPv4List{0, 3, 2, 1}));
  EXPECT_EQ(0u, IPv4ListsDiffer(0, a, IPv4List{}));
  EXPECT_EQ(0u, IPv4ListsDiffer(2, IPv4List{1, 1, 0, 0}, IPv4List{1, 9, 0, 0}));  // one-sided

  IPv6List x{}, y{};
  x[0][0] = 0x20;
  x[1][15] = 7;
  y[0][15] = 7;
  y[1][0] = 0x20;
  EXPECT_EQ(0u, IPv6ListsDiffer(2, x, y));
  y[1][1] = 1;
  EXPECT_EQ(1u, IPv6ListsDiffer(2, x, y));

  EXPECT_EQ(1u, AddressListsDiffer(3, a, reordered, 2, x, y));
  EXPECT_EQ(1u, AddressListsDiffer(3, a, other, 0, x, y));
  EXPECT_EQ(0u, AddressListsDiffer(3, a, reordered, 0, x, y));
}

TEST(AddressTextTest, Forms) {
  EXPECT_EQ("10.0.0.255", AddressText(V4(10, 0, 0, 255)));
  EXPECT_EQ("2001:db8::1", AddressText(V6({0x2001, 0xdb8, 0, 0, 0, 0, 0, 1})));
  EXPECT_EQ("::1", AddressText(V6({0, 0, 0, 0, 0, 0, 0, 1})));
  EXPECT_EQ("fe80::", AddressText(V6({0xfe80})));
  EXPECT_EQ("1:0:0:2::3", AddressText(V6({1, 0, 0, 2, 0, 0, 0, 3})));
  EXPECT_EQ("1:0:2:3:4:5:6:7", AddressText(V6({1, 0, 2, 3, 4, 5, 6, 7})));

  EXPECT_EQ(Packed(V4(192, 168, 0, 10)), Packed(ParseIPv4Text("192.168.0.10")));
  for (const char* bad : {"1.2.3", "256.1.1.1", "1.2.3.4.5", "a.b.c.d", "", "1..2.3", "0001.1.1.1"}) {
    const ResolvedAddress r = ParseIPv4Text(bad);
    EXPECT_EQ(kFamilyIPv4, r.family) << bad;
    EXPECT_EQ(0u, Packed(r)) << bad;
  }
}

// --- the identifiers -------------------------------------------------------------

constexpr char16_t kGuid[] = u"6F9619FF-8B86-D011-B42D-00C04FC964FF";

class IdentifiersTest : public ::testing::Test {
 protected:
  IdentifiersTest() : log(support), ids(log, support, registry) {
    support.registry = &registry;
    log.SetHandle(support.log_initialize(u"FA_LINDQ"));
    registry.AddKey(RegistryHive::kLocalMachine, kVelmoraKeyPath);
    registry.AddKey(RegistryHive::kLocalMachine, kEsnacKeyPath);
    support.guid = kGuid;
  }
  void Value(const std::u16string& name, const std::u16string& value) {
    registry.SetString(RegistryHive::kLocalMachine, kEsnacKeyPath, name, value);
  }

  FakeRegistry registry;
  FakeSupport support;
  CLog log;
  CIdentifiers ids;
};

TEST_F(IdentifiersTest, ClientUuid) {
  ids.LoadClientUuid();
  EXPECT_EQ("6F9619FF-8B86-D011-B42D-00C04FC964FF", ids.ClientUuid());
  EXPECT_TRUE(support.HasLine("UUID:6F9619FF-8B86-D011-B42D-00C04FC964FF"));
  support.guid.clear();
  ids.LoadClientUuid();
  EXPECT_TRUE(support.HasLine("Failed to get UUID"));
  EXPECT_EQ("6F9619FF-8B86-D011-B42D-00C04FC964FF", ids.ClientUuid());  // kept
}

// The host and domain names the reports carry: at most 255 characters.
TEST_F(IdentifiersTest, HostAndDomainNamesAreCutTo255Characters) {
  FakeNetwork network;
  for (size_t n : {255u, 256u, 300u}) {
    network.hostName = std::string(n, 'h');
    network.domain = std::u16string(n, u'd');
    EXPECT_EQ(ReadHostName(network), std::string(std::min<size_t>(n, 255), 'h')) << n;
    EXPECT_EQ(ReadComputerDomain(network, log), std::string(std::min<size_t>(n, 255), 'd')) << n;
  }
}

// The primary serial needs this client's GUID exactly (letter case too) and
// "VRX"; the secondary needs a ping server longer than one character; a
// serial without "VRX" is never reported.
TEST_F(IdentifiersTest, SerialRows) {
  const std::u16string guid = kGuid;
  const struct {
    std::u16string primary;  // hvq_sn
    const char16_t* secondary;
    const char16_t* ping;
    const char* serial;  // "": "Failed to get VRX SN"
  } rows[] = {
      {guid + u";VRX-0042-PRIMARY", u"VRX-0099-SECONDARY", u"mgmt2.example.test", "VRX-0042-PRIMARY"},
      {u"6f9619ff-8b86-d011-b42d-00c04fc964ff;VRX-0042-PRIMARY", u"VRX-0099-SECONDARY",
       u"mgmt2.example.test", "VRX-0099-SECONDARY"},
      {guid + u";SN-0042", u"VRX-0099-SECONDARY", u"mgmt2.example.test", "VRX-0099-SECONDARY"},
      {guid + u";SN-0042", u"VRX-0099", nullptr, ""},
      {guid + u";SN-0042", u"VRX-0099", u"x", ""},
      {guid + u";SN-0042", u"VRX-0099", u"xy", "VRX-0099"},
      {u"VRX-0001", u"SN-0099", u"xy", ""},  // a primary without the GUID is no candidate
  };
  for (const auto& row : rows) {
    registry.RemoveKey(RegistryHive::kLocalMachine, kEsnacKeyPath);
    registry.AddKey(RegistryHive::kLocalMachine, kEsnacKeyPath);
    Value(u"hvq_sn", row.primary);
    Value(u"secondary_sn", row.secondary);
    if (row.ping) Value(u"SecondaryPingServer", row.ping);
    const size_t failures = support.CountLines("Failed to get VRX SN");
    ids.LoadVrxSerial();
    EXPECT_EQ(row.serial, ids.VrxSerial()) << WideToUtf8(row.primary);
    EXPECT_EQ(*row.serial ? 0u : 1u, support.CountLines("Failed to get VRX SN") - failures);
    EXPECT_EQ(*row.serial != 0, support.HasLine(std::string("VRX SN:") + row.serial));
  }
  EXPECT_EQ(0u, registry.OpenSupportKeys());
}

TEST_F(IdentifiersTest, MissingKeyClearsSerialButKeepsTenant) {
  Value(u"hvq_sn", std::u16string(kGuid) + u";VRX-1");
  Value(u"tenantid", u"tenant-77");
  ids.LoadVrxSerial();
  ids.LoadVrxTenantId();
  EXPECT_EQ(std::make_tuple("VRX-1", "tenant-77"), std::make_tuple(ids.VrxSerial(), ids.VrxTenantId()));

  registry.RemoveKey(RegistryHive::kLocalMachine, kEsnacKeyPath);
  ids.LoadVrxSerial();
  ids.LoadVrxTenantId();
  EXPECT_EQ("", ids.VrxSerial());
  EXPECT_TRUE(support.HasLine("Failed to get VRX SN"));
  EXPECT_EQ("tenant-77", ids.VrxTenantId());
  EXPECT_FALSE(support.HasLine("Failed to get VRX tenant ID"));

  // The key back without the value: cleared, and said.
  registry.AddKey(RegistryHive::kLocalMachine, kEsnacKeyPath);
  ids.LoadVrxTenantId();
  EXPECT_EQ("", ids.VrxTenantId());
  EXPECT_EQ(1u, support.CountLines("Failed to get VRX tenant ID"));
  // Missing again with nothing kept: said every time.
  registry.RemoveKey(RegistryHive::kLocalMachine, kEsnacKeyPath);
  ids.LoadVrxTenantId();
  EXPECT_EQ(2u, support.CountLines("Failed to get VRX tenant ID"));
  EXPECT_EQ(0u, registry.OpenSupportKeys());
}

TEST_F(IdentifiersTest, SerialNeedsTheParentKeyOpenedThroughTheLibrary) {
  Value(u"hvq_sn", std::u16string(kGuid) + u";VRX-1");
  registry.RemoveKey(RegistryHive::kLocalMachine, kVelmoraKeyPath);
  ids.LoadVrxSerial();
  EXPECT_EQ("", ids.VrxSerial());
  // The subkey is opened for reading below the library's key, in its view.
  registry.AddKey(RegistryHive::kLocalMachine, kVelmoraKeyPath);
  ids.LoadVrxSerial();
  EXPECT_EQ("VRX-1", ids.VrxSerial());
  for (uint32_t access : registry.AccessMasks()) EXPECT_EQ(reg_access::kRead | reg_access::kWow64_64Key, access);
}

}  // namespace
}  // namespace lindqvar::testing
