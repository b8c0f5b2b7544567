// The autostart (id 62) and service (id 61) kinds over agent cycles, their list comparison (which
// entries count as equal, with duplicates and filtered entries on either side) and the exclude list.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TestRegistryKey.h"
#include "notifications/inventory/CNotfyAutoStartMonitoring.h"
#include "notifications/inventory/CNotfyServiceMonitoring.h"
#include "notifications/inventory/ListComparison.h"

#include <cstring>

namespace {

constexpr char kAutoStartKey[] =
    "SOFTWARE\\Tessaline Systems\\Larkspan\\Infrastructure\\Notification\\Moradel.dll\\NotificationId\\62";
constexpr wchar_t kAlice[] = L"WS-0815\\alice";
constexpr wchar_t kBob[] = L"WS-0815\\bob";
constexpr wchar_t kCimv2[] = L"root\\cimv2";

CEntryFilter FilterOf(const std::set<size_t>& filtered)
{
    return [&filtered](size_t u) { return filtered.count(u) != 0; };
}

TEST(ListComparison, EntriesAreEqualIgnoringTheCaseOfAToZOnly)
{
    const struct { const char* szCase; Texts current, old; std::set<size_t> newOut, oldOut;
                   std::vector<size_t> added, removed; } cases[] = {
        {"case-only change", {L"C:\\Apps\\Tool.exe /Start"}, {L"c:\\apps\\TOOL.EXE /start"}, {}, {}, {}, {}},
        {"A and Z are folded too", {L"Azure.exe /A"}, {L"aZURE.EXE /a"}, {}, {}, {}, {}},
        {"other letters keep their case", {L"\u00C4rger.exe"}, {L"\u00E4rger.exe"}, {}, {}, {0}, {0}},
        {"folding is no bit trick", {L"a[1]@"}, {L"A{1}`"}, {}, {}, {0}, {0}},
        {"changed text", {L"a.exe", L"b.exe /x"}, {L"a.exe", L"b.exe"}, {}, {}, {1}, {1}},
        {"duplicates against one", {L"x", L"X"}, {L"x"}, {}, {}, {}, {}},
        {"duplicates each unmatched", {L"n", L"y", L"n"}, {L"y", L"o", L"O"}, {}, {}, {0, 2}, {1, 2}},
        {"filtered on both sides", {L"keep", L"skip-new"}, {L"gone", L"skip-old"}, {1}, {1}, {0}, {0}},
        {"filtered entries still match", {L"a", L"b"}, {L"A", L"B"}, {0}, {1}, {}, {}},
        {"both empty", {}, {}, {}, {}, {}, {}},
        {"nothing before", {L"a", L""}, {}, {}, {}, {0, 1}, {}},
        {"nothing now", {}, {L"a"}, {}, {}, {}, {0}},
        {"empty text equals empty text", {L""}, {L""}, {}, {}, {}, {}},
    };
    for (const auto& c : cases) {
        const CListChanges changes = CompareLists(c.current, c.old, FilterOf(c.newOut), FilterOf(c.oldOut));
        EXPECT_EQ(changes.added, c.added) << c.szCase;
        EXPECT_EQ(changes.removed, c.removed) << c.szCase;
        EXPECT_EQ(changes.Empty(), c.added.empty() && c.removed.empty()) << c.szCase;
    }
    EXPECT_EQ(FormatEntries({}, {L"a"}), L"--");
    const std::vector<long> types = {1, 2, 3};
    EXPECT_EQ(FormatEntries({0, 2}, {L"a", L"b", L"c"}, &types), L"a [1], c [3]");
}

class AutoStartServiceTest : public KindTest {
protected:
    AutoStartServiceTest() : KindTest({L"..\\..\\schema\\KM_Inventory.mof"}) {}
    // The one event of a service cycle: the captions as they stand, or the list changed by these arguments.
    Events Services(const Texts& changes, const char* szStep)
    {
        const bool bChanged = !changes.empty();
        Events events = Cycle<CNotfyServiceMonitoring>(L"DeviceId");
        ExpectEvents(events, {{L"1", bChanged ? 2 : 1, bChanged ? 61010 : 61001, bChanged ? 5 : 3, false,
                               bChanged ? changes : Texts{L"<none>"}}}, szStep);
        return events;
    }
};

TEST_F(AutoStartServiceTest, AutoStartReportsAddedAndRemovedEntriesPerUser)
{
    TestRegistryKey key(kAutoStartKey);
    key.SetString("ExcludeList", "Microsoft Teams;OneDrive");
    key.SetDword("DisableXP", 1);  // meaningless from Windows 6.0 on
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\autostart\\startup.mof"));
    // A first report and an unchanged cycle look alike: the reference always takes the latest lists.
    for (const char* szStep : {"first cycle", "unchanged cycle"}) {
        Events events = Cycle<CNotfyAutoStartMonitoring>(L"User");
        ExpectEvents(events, {{kAlice, 1, 62001, 3, false, {kAlice}}, {kBob, 1, 62001, 3, false, {kBob}}}, szStep);
        IWbemClassObject* pBob = events.at(kBob).pEvent.Get();
        EXPECT_EQ(std::make_pair(GetI4(events.at(kAlice).pEvent.Get(), L"DeviceId"), GetI4(pBob, L"DeviceId")),
                  std::make_pair(1L, 2L));
        EXPECT_EQ(GetTexts(pBob, L"AppName"), (Texts{L"OneDrive", L"Greenshot"}));
        EXPECT_EQ(GetTexts(pBob, L"Location").back(),
                  L"C:\\Users\\bob\\AppData\\Roaming\\Microsoft\\Windows\\Start Menu\\Programs\\Startup");
    }
    // Skype removed, Slack added; a case-only change and the filtered Teams entry are no change. Bob is gone.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\autostart\\changed.mof"));
    ExpectEvents(Cycle<CNotfyAutoStartMonitoring>(L"User"),
                 {{kAlice, 2, 62010, 5, false, {kAlice, L"Slack [2]", L"Skype [2]"}}}, "changed");
    EXPECT_EQ(StoredTexts("KM_AutoStart_Static", L"User"), std::set<std::wstring>{kAlice});
    ExpectEvents(Cycle<CNotfyAutoStartMonitoring>(L"User"), {{kAlice, 1, 62001, 3, false, {kAlice}}}, "after");
    // Bob is back, and reading Alice's entries fails: she is skipped, he is reported.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\autostart\\startup.mof"));
    ASSERT_EQ(CimStoreInjectFault(L"Get", L"LocationType", 1, WBEM_E_FAILED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    Events faulty = Cycle<CNotfyAutoStartMonitoring>(L"User");
    ExpectEvents(faulty, {{kBob, 1, 62001, 3, false, {kBob}}}, "failing user");
    EXPECT_EQ(GetI4(faulty.at(kBob).pEvent.Get(), L"DeviceId"), 1) << "a user that failed uses no number";
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Rasing exception because error getting 'LocationType' "
                                                      "property"));
}

TEST_F(AutoStartServiceTest, ExcludeListFiltersByPlainSubstring)
{
    const std::string sHuge = std::string(100000, 'x') + "Tail";
    // szList null: no value.
    const struct { const char *szCase, *szList; DWORD dwType; const char* szApp; bool bFiltered; } cases[] = {
        {"no value", nullptr, REG_SZ, "Skype", false}, {"no value, empty name", nullptr, REG_SZ, "", true},
        {"empty list, empty name", "", REG_SZ, "", true}, {"empty list", "", REG_SZ, "Skype", false},
        {"whole entry", "Microsoft Teams;OneDrive", REG_SZ, "OneDrive", true},
        {"case of the name", "Microsoft Teams;OneDrive", REG_SZ, "onedrive", true},
        {"case of the list", "microsoft teams", REG_SZ, "TEAMS", true},
        {"part of a longer entry", "Microsoft Teams;OneDrive", REG_SZ, "Drive", true},
        {"across two entries", "Microsoft Teams;OneDrive", REG_SZ, "Teams;One", true},
        {"not in the list", "Microsoft Teams;OneDrive", REG_SZ, "Dropbox", false},
        {"expandable, not expanded", "%ProgramFiles%\\Tool", REG_EXPAND_SZ, "%programfiles%", true},
        {"another value type is no list", "Skype", REG_BINARY, "Skype", false},
        {"huge list", sHuge.c_str(), REG_SZ, "xTAIL", true},
    };
    for (const auto& c : cases) {
        TestRegistryKey key(kAutoStartKey);
        if (c.szList && c.dwType == REG_BINARY)
            key.SetBinary("ExcludeList", c.szList, static_cast<DWORD>(strlen(c.szList) + 1));
        else if (c.szList)
            key.SetString("ExcludeList", c.szList, c.dwType);
        CNotfyAutoStartMonitoring kind;
        ASSERT_EQ(InitKind(kind), S_OK) << c.szCase;
        EXPECT_EQ(kind.IsApplicationFiltered(c.szApp), c.bFiltered) << c.szCase;
    }
}

TEST_F(AutoStartServiceTest, ServicesReportInstalledAndRemovedCaptionsOnce)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\services\\win32_service.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\services\\services.mof"));
    const std::wstring wsZone = L"instance of Win32_Service { Name = \"Zs\"; Caption = \"";
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsZone + L"Zone\"; };", kCimv2));
    EXPECT_EQ(GetTexts(Services({}, "first").at(L"1").pEvent.Get(), L"ServiceName"),
              (Texts{L"Windows Audio", L"DHCP Client", L"Print Spooler", L"Windows Defender Antivirus Service",
                     L"Zone"}));
    // A new service and a renamed one; the DHCP and Zone captions changed case only (Z folds like A to Y).
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\services\\changed.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsZone + L"zone\"; };", kCimv2));
    Services({L"Remote Desktop Services, Microsoft Defender Antivirus Service", L"Windows Defender Antivirus Service"},
             "changed");
    Services({}, "after the change");
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"#pragma deleteinstance(\"Win32_Service.Name=\\\"Spooler\\\"\", NOFAIL)", kCimv2));
    Services({L"--", L"Print Spooler"}, "removal");
    EXPECT_EQ(StoredTexts("KM_ServiceMonitoring_Static", L"Object"), std::set<std::wstring>{L"Win32_Service"});
    // A caption that cannot be read fails the machine's one event, not the request.
    ASSERT_EQ(CimStoreInjectFault(L"Get", L"Caption", 2, WBEM_E_FAILED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const CycleResult failed = RunAgentCycle<CNotfyServiceMonitoring>();
    EXPECT_EQ(failed.hrGet, S_OK) << std::hex << failed.hrGet;
    EXPECT_TRUE(failed.events.empty());
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Error during processing data."));
}

}  // namespace
