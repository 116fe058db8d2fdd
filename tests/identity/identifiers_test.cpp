// The client UUID, the management server's serial and tenant id, and the
// text converter.
#include <gtest/gtest.h>

#include "identity/identifiers.h"
#include "tests/identity/identity_fakes.h"

namespace lindqvar::testing {
namespace {

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
