// The Windows platform layer against Wine's registry, event log, file system
// and window manager.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "agent/catalogue.h"
#include "agent/settings.h"
#include "agent/state.h"
#include "platform/event.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/win32/registry_values.h"
#include "platform/win32/registry_win32.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/session_window_win32.h"
#include "platform/win32/sessions_win32.h"
#include "platform/win32/support_win32.h"
#include "tests/win32/lib/registry_writer.h"

#include <aclapi.h>
#include <sddl.h>
#include <wtsapi32.h>

namespace lindqvar::win32 {
namespace {

std::string ReadFile(const std::u16string& path) {
  ScopedFileHandle f(::CreateFileW(W(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, OPEN_EXISTING, 0, nullptr));
  if (!f) return {};
  std::string out(1 << 16, '\0');
  DWORD n = 0;
  ::ReadFile(f.get(), out.data(), static_cast<DWORD>(out.size()), &n, nullptr);
  out.resize(n);
  return out;
}

class Win32Platform : public ::testing::Test {
 protected:
  void SetUp() override {
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"software\\Orvane");
    wchar_t dir[MAX_PATH];
    ::GetTempPathW(MAX_PATH, dir);
    m_logDir = U(dir) + u"lindqvar-test";
    ::CreateDirectoryW(W(m_logDir), nullptr);
    m_logFile = m_logDir + u"\\FA_LINDQ.log";
    ::DeleteFileW(W(m_logFile));
    SetValue(kLoggingKey, u"LogDirectory", m_logDir);
  }
  void TearDown() override {
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"software\\Orvane");
    ::DeleteFileW(W(m_logFile));
  }
  std::u16string m_logDir, m_logFile;
  CSupportLibraryWin32 m_support{EventCatalogue()};
  CRegistryWin32 m_registry;
};

TEST_F(Win32Platform, SettingsRecordAndDesiredStatusAreReadFromTheRegistry) {
  SetValue(kAgentKey, u"Servers", u"10.0.0.5:9001;auth.example");
  SetValue(kAgentKey, u"PresharedKey", u"s3cret");
  SetValue(kAgentKey, u"AddressCategory", 1);
  SetValue(kAgentKey, u"PreferAzure", 1);
  SettingsRecordView v = ReadSettingsRecord(m_support);
  // Enabled absent: enabled.
  EXPECT_EQ(std::tie(v.enabled, v.addressCategory, v.preferAzure, v.serverList, v.presharedKey),
            std::make_tuple(1u, 1u, 1u, u"10.0.0.5:9001;auth.example", u"s3cret"));

  // Over-long texts are cut so that the record keeps its terminators.
  SetValue(kAgentKey, u"Servers", std::u16string(300, u'a'));
  SetValue(kAgentKey, u"PresharedKey", std::u16string(100, u'k'));
  SetValue(kAgentKey, u"Enabled", 0);
  v = ReadSettingsRecord(m_support);
  EXPECT_EQ(std::make_tuple(v.enabled, v.serverList.size(), v.presharedKey.size()), std::make_tuple(0u, 255u, 65u));

  ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, W(kAgentKey));
  v = ReadSettingsRecord(m_support);  // no key: the record stays zero
  EXPECT_EQ(std::make_tuple(v.enabled, v.serverList), std::make_tuple(0u, u""));

  // The desired status is read for the agent's component only.
  SetValue(std::u16string(kDesiredStatusKey) + u"\\25", u"7", 3);
  EXPECT_EQ(m_support.get_desired_status(25, u"7"), 3u);
  EXPECT_EQ(m_support.get_desired_status(24, u"7"), 0u);
}

TEST_F(Win32Platform, LogLevelsFilterLinesAndCatalogueEventsAlwaysReachTheFile) {
  SetValue(kLoggingKey, u"LogLevel", 1);
  LogHandle h = m_support.log_initialize(u"FA_LINDQ");
  ASSERT_NE(h, nullptr);
  m_support.log_debug(h, "hidden debug line");
  m_support.log_error(h, "visible error line\n");
  m_support.log_setlevel(h, 2);
  m_support.log_debug(h, "visible debug line");
  m_support.log_setlevel(h, 0);
  m_support.log_error(h, "hidden error line");
  m_support.LogW(kEventStarting, nullptr);
  m_support.log_deinitialize(h);

  const std::string log = ReadFile(m_logFile);
  EXPECT_EQ(log.find("hidden"), std::string::npos) << log;
  EXPECT_NE(log.find("ERROR visible error line\r\n"), std::string::npos) << log;
  EXPECT_NE(log.find("DEBUG visible debug line"), std::string::npos) << log;
  EXPECT_NE(log.find("EVENT 96983 Lindqvar is starting..., version:"), std::string::npos) << log;
}

TEST_F(Win32Platform, PlantedLogFilesAreRefusedAndAMissingFolderIsMadeProtected) {
  // A file of the attacker's choosing, hard-linked under the log's name:
  // nothing the agent logs may reach it. (Wine 8 can make no symbolic link:
  // CreateSymbolicLinkW returns TRUE and makes nothing, and a Unix link is
  // followed unseen; the reparse-point refusal is for Windows.)
  const std::u16string victim = m_logDir + u"\\victim.txt";
  {
    std::ofstream(std::string(WideToUtf8(victim)), std::ios::binary) << "victim";
  }
  ::DeleteFileW(W(m_logFile));
  ASSERT_TRUE(::CreateHardLinkW(W(m_logFile), W(victim), nullptr)) << ::GetLastError();
  SetValue(kLoggingKey, u"LogLevel", 2);
  LogHandle planted = m_support.log_initialize(u"FA_LINDQ");
  m_support.log_error(planted, "an error line");
  m_support.LogW(kEventStarting, nullptr);
  m_support.log_deinitialize(planted);
  EXPECT_EQ(ReadFile(victim), "victim");
  ::DeleteFileW(W(m_logFile));
  ::DeleteFileW(W(victim));

  // A LogDirectory that does not exist is made for SYSTEM and Administrators.
  const std::u16string fresh = m_logDir + u"\\fresh";
  ::DeleteFileW(W(fresh + u"\\FA_LINDQ.log"));
  ::RemoveDirectoryW(W(fresh));
  SetValue(kLoggingKey, u"LogDirectory", fresh);
  LogHandle h = m_support.log_initialize(u"FA_LINDQ");
  m_support.log_error(h, "into the new folder");
  m_support.log_deinitialize(h);
  EXPECT_NE(ReadFile(fresh + u"\\FA_LINDQ.log").find("into the new folder"), std::string::npos);
  PSECURITY_DESCRIPTOR sd = nullptr;
  PACL dacl = nullptr;
  ASSERT_EQ(::GetNamedSecurityInfoW(W(fresh), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                    nullptr, &dacl, nullptr, &sd),
            static_cast<DWORD>(ERROR_SUCCESS));
  wchar_t* text = nullptr;
  ASSERT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(
      sd, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
  std::wstring access = text;
  ::LocalFree(text);
  ::LocalFree(sd);
  // Wine keeps a file's access as Unix permissions: the administrators'
  // entry comes back as the owner's, and a folder made without an access
  // has a read entry for everyone (WD). Users of any kind get nothing here.
  EXPECT_NE(access.find(L"(A;OICI;FA;;;SY)"), std::wstring::npos) << access;
  for (const wchar_t* others : {L";WD)", L";BU)", L";AU)", L";IU)"}) {
    EXPECT_EQ(access.find(others), std::wstring::npos) << access;
  }
  ::DeleteFileW(W(fresh + u"\\FA_LINDQ.log"));
  ::RemoveDirectoryW(W(fresh));
}

TEST_F(Win32Platform, StateIsWrittenOnlyIntoAnExistingKey) {
  m_support.LogW(kEventStopping, nullptr);  // creates the log file
  CLog log(m_support);
  log.SetHandle(m_support.log_initialize(u"FA_LINDQ"));
  m_support.log_setlevel(log.Handle(), 2);
  WriteState(m_registry, log, kConfiguredReachable);
  ScopedRegKey k;
  EXPECT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, W(kAgentKey), 0, KEY_READ, k.receive()),
            ERROR_FILE_NOT_FOUND);

  SetValue(kAgentKey, u"Servers", u"a.b");
  WriteState(m_registry, log, kConfiguredReachable);
  EXPECT_EQ(ReadDword(HKEY_LOCAL_MACHINE, kAgentKey, u"LINDQState", 99), 2u);
  m_support.log_deinitialize(log.Handle());
  const std::string text = ReadFile(m_logFile);
  EXPECT_NE(text.find("Failed to open registry key for LINDQState update. Error: 2"),
            std::string::npos);
  EXPECT_NE(text.find("Successfully updated LINDQState in registry. New state: CONFIGURED_REACHABLE"),
            std::string::npos);
}

class RecordingSink : public ISessionNotificationSink {
 public:
  void OnNotification(const SessionNotification& n) override { received.push_back(n); }
  std::vector<SessionNotification> received;
};

// Whether the thread's loop was told to quit (and with exit code 0).
bool QuitPosted() {
  MSG msg;
  return ::PeekMessageW(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE) && msg.wParam == 0;
}

TEST(Win32SessionWindow, HiddenWindowIsFoundByClassAndDeliversPostedMessages) {
  CSessionWindowWin32 window;
  RecordingSink sink;
  ASSERT_TRUE(window.Create(sink));
  ASSERT_NE(window.Window(), nullptr);
  EXPECT_EQ(::FindWindowW(kDetectorClassName, nullptr), window.Window());
  EXPECT_FALSE(::IsWindowVisible(window.Window()));
  EXPECT_TRUE(window.RegisterNotifications());
  // The pumping thread's wait ends for a message posted from another
  // thread while it waits, for one already queued, and for the stop event
  // (each wait bounded: a wait that does not end fails instead of hanging).
  constexpr uint32_t kBoundMs = 10000;
  CEvent stop(CEvent::ResetPolicy::kManual, CEvent::InitialState::kNotSignaled);
  EXPECT_EQ(window.WaitForStopOrMessage(stop, 0), PumpWait::kTimeout);
  std::thread poster([w = window.Window()] {
    ::Sleep(50);
    ::PostMessageW(w, WM_WTSSESSION_CHANGE, WTS_SESSION_LOGON, 3);
  });
  EXPECT_EQ(window.WaitForStopOrMessage(stop, kBoundMs), PumpWait::kMessage);
  poster.join();
  window.Drain();
  ASSERT_TRUE(::PostMessageW(window.Window(), WM_WTSSESSION_CHANGE, WTS_SESSION_LOCK, 4));
  EXPECT_EQ(window.WaitForStopOrMessage(stop, kBoundMs), PumpWait::kMessage);
  window.Drain();
  EXPECT_EQ(sink.received.size(), 2u);  // what each one becomes: the table below
  stop.Set();
  EXPECT_EQ(window.WaitForStopOrMessage(stop, kBoundMs), PumpWait::kStop);
  window.DestroyAndUnregister();
  EXPECT_TRUE(QuitPosted());  // its WM_DESTROY ends the thread's loop
  EXPECT_EQ(::FindWindowW(kDetectorClassName, nullptr), nullptr);
}

// What the window makes of each message: the notification passed on (none
// when kind is 0), its result, and whether the thread's loop is to quit.
constexpr uint32_t K(NotificationKind kind) { return static_cast<uint32_t>(kind); }
using NK = NotificationKind;
struct TranslationRow {
  const char* name;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
  uint32_t kind;
  uint32_t session;
  LRESULT result;
  bool quit = false;
};

constexpr UINT kChange = WM_WTSSESSION_CHANGE;
const TranslationRow kTranslationRows[] = {
    {"console connect", kChange, WTS_CONSOLE_CONNECT, 7, K(NK::kConsoleConnect), 7, 0},
    {"console disconnect", kChange, WTS_CONSOLE_DISCONNECT, 7, K(NK::kConsoleDisconnect), 7, 0},
    {"remote connect", kChange, WTS_REMOTE_CONNECT, 7, K(NK::kRemoteConnect), 7, 0},
    {"remote disconnect", kChange, WTS_REMOTE_DISCONNECT, 7, K(NK::kRemoteDisconnect), 7, 0},
    {"logon", kChange, WTS_SESSION_LOGON, 7, K(NK::kSessionLogon), 7, 0},
    {"logoff", kChange, WTS_SESSION_LOGOFF, 7, K(NK::kSessionLogoff), 7, 0},
    {"lock", kChange, WTS_SESSION_LOCK, 7, K(NK::kSessionLock), 7, 0},
    {"unlock, 32-bit id", kChange, WTS_SESSION_UNLOCK, 0xFFFFFFFE, K(NK::kSessionUnlock),
     0xFFFFFFFE, 0},
    // Codes outside the eight are ignored, not passed to the system.
    {"session-change code 0", kChange, 0, 7, 0, 0, 0},
    {"session-change code 9", kChange, 9, 7, 0, 0, 0},
    {"resume", WM_POWERBROADCAST, PBT_APMRESUMESUSPEND, 0, K(NK::kResume), 0, 0},
    // Other power messages are swallowed (the default answer to the query
    // is TRUE on Windows; Wine's is 0 as well).
    {"query suspend", WM_POWERBROADCAST, PBT_APMQUERYSUSPEND, 0, 0, 0, 0},
    // Everything else is the system's: the length of "session_detector".
    {"text length", WM_GETTEXTLENGTH, 0, 0, 0, 0, 16},
    // Last: the object no longer receives messages after it.
    {"destroy", WM_DESTROY, 0, 0, 0, 0, 0, true},
};

TEST(Win32SessionWindow, TranslatesTheSystemsMessagesIntoNotifications) {
  CSessionWindowWin32 window;
  RecordingSink sink;
  ASSERT_TRUE(window.Create(sink));
  ASSERT_FALSE(QuitPosted());
  for (const TranslationRow& row : kTranslationRows) {
    SCOPED_TRACE(row.name);
    sink.received.clear();
    EXPECT_EQ(::SendMessageW(window.Window(), row.message, row.wParam, row.lParam), row.result);
    EXPECT_EQ(sink.received.size(), row.kind != 0 ? 1u : 0u);
    if (!sink.received.empty()) {
      EXPECT_EQ(std::make_tuple(K(sink.received[0].kind), sink.received[0].session), std::make_tuple(row.kind, row.session));
    }
    EXPECT_EQ(QuitPosted(), row.quit);
  }
  window.DestroyAndUnregister();
}

}  // namespace
}  // namespace lindqvar::win32
