// The service's Windows side under Wine: the settings key's access, the
// change notification, the agent process in its job, and the clean-up.
#include <gtest/gtest.h>

#include "platform/win32/registry_values.h"
#include "platform/win32/scoped_handle.h"
#include "service/win32/settings_key_win32.h"
#include "service/win32/supervisor_system_win32.h"
#include "tests/win32/lib/registry_writer.h"

namespace lindqvar::service {
namespace {

using win32::ScopedHandle;
using win32::ScopedRegKey;
using win32::SetValue;
using win32::W;

bool KeyExists(const std::u16string& path) {
  ScopedRegKey key;
  return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(path), 0, KEY_READ | KEY_WOW64_64KEY,
                         key.receive()) == ERROR_SUCCESS;
}

// The key's access without the protection flag, which Wine does not keep
// (Windows shows "D:P(...)"): what matters is that no other entry is there.
std::wstring Access() {
  std::wstring a = SettingsKeyAccess();
  if (a.rfind(L"D:P", 0) == 0) a.erase(2, 1);
  return a;
}
constexpr wchar_t kExpectedAccess[] = L"D:(A;OICI;KA;;;SY)(A;OICI;KA;;;BA)";

// The agent program next to this test's build tree.
std::wstring AgentPath() { return ProgramFolder() + L"..\\..\\..\\agent\\lindqvar-agent.exe"; }

class ServiceWin32Test : public ::testing::Test {
 protected:
  void SetUp() override { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"software\\Orvane"); }
  void TearDown() override { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"software\\Orvane"); }
  ScopedHandle stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TEST_F(ServiceWin32Test, SettingsKeyIsCreatedOrRestrictedToSystemAndAdministrators) {
  EXPECT_EQ(SettingsKeyAccess(), L"");
  ASSERT_EQ(ProtectSettingsKey(), 0u);
  EXPECT_EQ(Access(), kExpectedAccess);

  // A key made by someone else keeps its values and loses its inherited access.
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, W(win32::kAgentKey));
  SetValue(win32::kAgentKey, u"Servers", u"a.b:1");
  EXPECT_NE(Access(), kExpectedAccess);
  ASSERT_EQ(ProtectSettingsKey(), 0u);
  EXPECT_EQ(Access(), kExpectedAccess);
  EXPECT_EQ(win32::ReadAgentString(u"Servers", u""), u"a.b:1");
}

TEST_F(ServiceWin32Test, TheWatchFiresOnAChangeAndIsArmedAgainEachTime) {
  CSupervisorSystemWin32 system(AgentPath(), stop.get());
  EXPECT_FALSE(system.WatchSettings());  // no key yet
  EXPECT_FALSE(system.ReadSettings().KeyPresent());

  SetValue(win32::kAgentKey, u"Servers", u"a.b:1");
  ASSERT_TRUE(system.WatchSettings());
  const SettingsSnapshot before = system.ReadSettings();
  EXPECT_EQ(system.Wait(nullptr, 200), Wake::kTimeout);
  for (const wchar_t* servers : {L"c.d:2", L"e.f:3"}) {
    SetValue(win32::kAgentKey, u"Servers", win32::U(servers));
    EXPECT_EQ(system.Wait(nullptr, 5000), Wake::kSettingsChanged) << servers;
    EXPECT_NE(system.ReadSettings(), before);
    ASSERT_TRUE(system.WatchSettings());
  }
  ::SetEvent(stop.get());
  EXPECT_EQ(system.Wait(nullptr, 5000), Wake::kStop);
}

TEST_F(ServiceWin32Test, TheAgentRunsInAJobThatEndsItWithTheService) {
  uint32_t error = 0;
  {
    CSupervisorSystemWin32 missing(ProgramFolder() + L"no-such-agent.exe", stop.get());
    EXPECT_EQ(missing.StartAgent(AgentArguments(), error), nullptr);
    EXPECT_EQ(error, static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
  }

  auto system = std::make_unique<CSupervisorSystemWin32>(AgentPath(), stop.get());
  {
    // A control event another process made first is refused, and not kept.
    ScopedHandle planted(::CreateEventA(nullptr, FALSE, FALSE, "Global\\LindqvarServiceTest_8"));
    ASSERT_TRUE(planted);
    EXPECT_EQ(system->CreateControlEvent("Global\\LindqvarServiceTest_8"),
              static_cast<uint32_t>(ERROR_ALREADY_EXISTS));
  }
  ASSERT_EQ(system->CreateControlEvent("Global\\LindqvarServiceTest_9"), 0u);
  auto agent = system->StartAgent(AgentArguments(), error);
  ASSERT_NE(agent, nullptr) << error;
  EXPECT_NE(agent->Id(), 0u);
  EXPECT_EQ(system->Wait(agent.get(), 300), Wake::kTimeout);  // in its start-up wait
  agent->Terminate();
  EXPECT_EQ(system->Wait(agent.get(), 5000), Wake::kAgentEnded);
  EXPECT_EQ(agent->ExitCode(), 1u);

  // A service that ends without stopping its agent takes the agent along.
  auto orphan = system->StartAgent(AgentArguments(), error);
  ASSERT_NE(orphan, nullptr) << error;
  system.reset();
  CSupervisorSystemWin32 other(AgentPath(), stop.get());
  if (!other.WaitAgent(*orphan, 5000)) {
    orphan->Terminate();  // or it would outlive the test
    ADD_FAILURE() << "the agent outlived its service";
  }
}

TEST_F(ServiceWin32Test, RemovalTakesTheServicesRegistryAndOnlyParentsLeftEmpty) {
  CSupervisorSystemWin32 system(AgentPath(), stop.get());
  ASSERT_EQ(ProtectSettingsKey(), 0u);
  SetValue(win32::kAgentKey, u"PresharedKey", u"k");
  system.WriteNotConfigured();
  EXPECT_EQ(win32::ReadAgentDword(u"LINDQState", 9), 0u);
  ASSERT_EQ(system.SetDesiredStatus("Service", kStatusStop), 0u);
  const std::u16string status = std::u16string(win32::kDesiredStatusKey) + u"\\25";
  EXPECT_EQ(win32::ReadDword(HKEY_LOCAL_MACHINE, status, u"Service", 0), kStatusStop);

  // Another value under the desired status and the logging settings are not ours.
  SetValue(status, u"Other", u"x");
  SetValue(win32::kLoggingKey, u"LogDirectory", u"C:\\logs");
  RemoveServiceRegistry();
  EXPECT_FALSE(KeyExists(win32::kAgentKey));
  EXPECT_EQ(win32::ReadDword(HKEY_LOCAL_MACHINE, status, u"Service", 0), 0u);
  EXPECT_TRUE(KeyExists(status));
  EXPECT_TRUE(KeyExists(win32::kLoggingKey));

  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, W(win32::kLoggingKey));
  ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, W(win32::kLoggingKey), KEY_WOW64_64KEY, 0);
  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, W(status));
  ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, W(status), KEY_WOW64_64KEY, 0);
  RemoveServiceRegistry();
  EXPECT_FALSE(KeyExists(u"software\\Orvane"));
}

}  // namespace
}  // namespace lindqvar::service
