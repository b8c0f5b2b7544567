// The autostart (id 62) and service (id 61) kinds over several agent cycles, and the substring
// rule of the autostart exclude list.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TestRegistryKey.h"
#include "notifications/inventory/CNotfyAutoStartMonitoring.h"
#include "notifications/inventory/CNotfyServiceMonitoring.h"

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr char kAutoStartKey[] =
    "SOFTWARE\\Tessaline Systems\\Larkspan\\Infrastructure\\Notification\\Moradel.dll\\NotificationId\\62";
constexpr wchar_t kAlice[] = L"WS-0815\\alice";
constexpr wchar_t kBob[] = L"WS-0815\\bob";

using Texts = std::vector<std::wstring>;

class AutoStartServiceTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Inventory.mof"));
    }

    // One autostart cycle's events by user.
    std::map<std::wstring, CycleEvent> AutoStartCycle()
    {
        CycleResult cycle = RunAgentCycle<CNotfyAutoStartMonitoring>();
        EXPECT_EQ(cycle.hrGet, S_OK) << std::hex << cycle.hrGet;
        EXPECT_EQ(cycle.hrDelete, S_OK) << std::hex << cycle.hrDelete;
        std::map<std::wstring, CycleEvent> events;
        for (CycleEvent& event : cycle.events) {
            EXPECT_FALSE(event.bNoPut) << "the reference always takes the latest lists";
            events[GetText(event.pEvent.Get(), L"User")] = std::move(event);
        }
        return events;
    }

    // The one event of a service cycle.
    CycleEvent ServiceCycle()
    {
        CycleResult cycle = RunAgentCycle<CNotfyServiceMonitoring>();
        EXPECT_EQ(cycle.hrGet, S_OK) << std::hex << cycle.hrGet;
        EXPECT_EQ(cycle.events.size(), 1u);
        if (cycle.events.empty())
            return CycleEvent{};
        CycleEvent& event = cycle.events.front();
        EXPECT_FALSE(event.bNoPut);
        EXPECT_EQ(GetText(event.pEvent.Get(), L"Object"), L"Win32_Service");
        EXPECT_EQ(GetI4(event.pEvent.Get(), L"DeviceId"), 1);
        return std::move(event);
    }
};

void ExpectEvent(const CycleEvent& event, LONG lType, LONG lStatus, LONG lTextId, const Texts& arguments,
                 const char* szStep)
{
    EXPECT_EQ(event.lType, lType) << szStep;
    EXPECT_EQ(event.lStatus, lStatus) << szStep;
    EXPECT_EQ(event.lTextId, lTextId) << szStep;
    EXPECT_EQ(event.arguments, arguments) << szStep;
}

TEST_F(AutoStartServiceTest, AutoStartReportsAddedAndRemovedEntriesPerUser)
{
    TestRegistryKey key(kAutoStartKey);
    key.SetString("ExcludeList", "Microsoft Teams;OneDrive");
    key.SetDword("DisableXP", 1);  // meaningless from Windows 6.0 on
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\autostart\\startup.mof"));

    // A first report and an unchanged cycle look alike: the user alone, stored again.
    for (const char* szStep : {"first cycle", "unchanged cycle"}) {
        std::map<std::wstring, CycleEvent> events = AutoStartCycle();
        ASSERT_TRUE(events.size() == 2 && events.count(kAlice) && events.count(kBob)) << szStep;
        ExpectEvent(events[kAlice], 3, 1, 62001, {kAlice}, szStep);
        ExpectEvent(events[kBob], 3, 1, 62001, {kBob}, szStep);
        EXPECT_EQ(GetI4(events[kAlice].pEvent.Get(), L"DeviceId"), 1);
        EXPECT_EQ(GetI4(events[kBob].pEvent.Get(), L"DeviceId"), 2);
        EXPECT_EQ(GetTexts(events[kBob].pEvent.Get(), L"AppName"), (Texts{L"OneDrive", L"Greenshot"}));
        EXPECT_EQ(GetTexts(events[kBob].pEvent.Get(), L"Location").back(),
                  L"C:\\Users\\bob\\AppData\\Roaming\\Microsoft\\Windows\\Start Menu\\Programs\\Startup");
    }

    // Skype removed, Slack added; a case-only change and the filtered Teams entry are no change.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\autostart\\changed.mof"));
    std::map<std::wstring, CycleEvent> changed = AutoStartCycle();
    ASSERT_TRUE(changed.size() == 1 && changed.count(kAlice)) << "a user who is gone yields no event";
    ExpectEvent(changed[kAlice], 5, 2, 62010, {kAlice, L"Slack [2]", L"Skype [2]"}, "changed cycle");
    EXPECT_EQ(StoredTexts("KM_AutoStart_Static", L"User"), std::set<std::wstring>{kAlice})
        << "the gone user's reference is obsolete";

    std::map<std::wstring, CycleEvent> after = AutoStartCycle();
    ASSERT_TRUE(after.size() == 1 && after.count(kAlice));
    ExpectEvent(after[kAlice], 3, 1, 62001, {kAlice}, "cycle after the change");

    // Bob is back, and reading Alice's entries fails: she is skipped, he is reported.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\autostart\\startup.mof"));
    ASSERT_EQ(CimStoreInjectFault(L"Get", L"LocationType", 1, WBEM_E_FAILED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    std::map<std::wstring, CycleEvent> faulty = AutoStartCycle();
    ASSERT_TRUE(faulty.size() == 1 && faulty.count(kBob));
    ExpectEvent(faulty[kBob], 3, 1, 62001, {kBob}, "cycle with a failing user");
    EXPECT_EQ(GetI4(faulty[kBob].pEvent.Get(), L"DeviceId"), 1) << "a user that failed uses no number";
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Rasing exception because error getting 'LocationType' property"));
}

TEST_F(AutoStartServiceTest, ExcludeListFiltersByPlainSubstring)
{
    const std::string sHuge = std::string(100000, 'x') + "Tail";
    const struct {
        const char* szCase;
        const char* szList;  // null: no value
        DWORD dwType;
        const char* szApp;
        bool bFiltered;
    } cases[] = {
        {"no value", nullptr, REG_SZ, "Skype", false},
        {"no value, empty name", nullptr, REG_SZ, "", true},
        {"empty list, empty name", "", REG_SZ, "", true},
        {"empty list", "", REG_SZ, "Skype", false},
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
    const Texts captions = {L"Windows Audio", L"DHCP Client", L"Print Spooler", L"Windows Defender Antivirus Service"};
    for (const char* szStep : {"first cycle", "unchanged cycle"}) {
        const CycleEvent event = ServiceCycle();
        ExpectEvent(event, 3, 1, 61001, {L"<none>"}, szStep);
        if (event.pEvent) {
            EXPECT_EQ(GetTexts(event.pEvent.Get(), L"ServiceName"), captions) << szStep;
        }
    }

    // A new service and a renamed one; the DHCP caption changed case only.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\services\\changed.mof"));
    ExpectEvent(ServiceCycle(), 5, 2, 61010,
                {L"Remote Desktop Services, Microsoft Defender Antivirus Service", L"Windows Defender Antivirus Service"},
                "changed cycle");
    ExpectEvent(ServiceCycle(), 3, 1, 61001, {L"<none>"}, "cycle after the change");

    ASSERT_NO_FATAL_FAILURE(LoadMof(L"#pragma deleteinstance(\"Win32_Service.Name=\\\"Spooler\\\"\", NOFAIL)\n",
                                    L"root\\cimv2"));
    ExpectEvent(ServiceCycle(), 5, 2, 61010, {L"--", L"Print Spooler"}, "removal cycle");
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
