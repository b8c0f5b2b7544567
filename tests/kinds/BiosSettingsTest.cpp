// The BIOS settings change kind (id 63): monitored settings against their nominal values, over
// agent cycles against MOF in CimStore.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"

#include "notifications/inventory/CNotfyBiosSettingsChange.h"

#include <string>
#include <vector>

namespace {

constexpr wchar_t kBiosNamespace[] = L"root\\oxl1v2\\KM_Bios";

// The properties named by the "Property differs." lines since uMark, joined by commas.
std::string DifferingProperties(size_t uMark)
{
    std::string sNames;
    for (const auto& fields : GlobalTraceLog::Get().LinesSince(uMark)) {
        if (fields.size() < 9 || fields[7] != "Property differs.")
            continue;
        const std::string& sText = fields[8];  // "PropName: <name>, hrCmp: 0x<n>"
        const size_t uStart = sText.find(": ") + 2;
        sNames += (sNames.empty() ? "" : ",") + sText.substr(uStart, sText.find(", hrCmp") - uStart);
    }
    return sNames;
}

class BiosSettingsTest : public KindTest {
protected:
    std::vector<CycleEvent> Cycle()
    {
        CycleResult result = RunAgentCycle<CNotfyBiosSettingsChange>();
        EXPECT_EQ(result.hrGet, S_OK);
        EXPECT_EQ(result.hrDelete, S_OK);
        return std::move(result.events);
    }
};

TEST_F(BiosSettingsTest, MonitoredSettingsAreComparedWithTheirNominalValues)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Bios.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\table_classes.mof"));
    constexpr wchar_t kNominal[] = L"BootSequence = \"HardDisk,USB\"; NumLock = true; AsfEnabled = 1;";
    const struct {
        const char* szCase;
        const wchar_t* wszSettings;
        const wchar_t* wszNominal;
        LONG lStatus, lTextId;
        const char* szDiffering;  // the properties traced as differing
    } rows[] = {
        {"equal", kNominal, kNominal, 1, 63001, ""},
        {"case only", L"WakeOnLan = \"ENABLED\";", L"WakeOnLan = \"enabled\";", 1, 63001, ""},
        {"differs", L"AsfEnabled = 0;", L"AsfEnabled = 1;", 3, 63003, "AsfEnabled"},
        {"both null", L"", L"", 1, 63001, ""},
        {"only nominal set", L"", L"WakeOnLan = \"Enabled\";", 3, 63003, "WakeOnLan"},
        {"unmonitored differs", L"BiosVersion = \"A10\";", L"BiosVersion = \"A12\";", 1, 63001, ""},
        {"empty qualifier", L"AssetTag = \"WS-0815\";", L"AssetTag = \"WS-4711\";", 1, 63001, ""},
        {"first differing decides", L"BootSequence = \"USB\"; NumLock = false;", kNominal, 3, 63003, "BootSequence"},
        {"array never equal", L"BootDevices = {\"HDD\"};", L"BootDevices = {\"HDD\"};", 3, 63003, "BootDevices"},
    };
    for (const auto& row : rows) {
        ASSERT_NO_FATAL_FAILURE(LoadMof(std::wstring(L"instance of Test_BiosSettings { ObjId = \"BIOS0\"; ") +
                                            row.wszSettings + L" };\ninstance of Test_BiosSettingsNominal { ObjId = "
                                            L"\"Nominal\"; " + row.wszNominal + L" };\n",
                                        kBiosNamespace))
            << row.szCase;
        const size_t uMark = GlobalTraceLog::Get().Mark();
        const std::vector<CycleEvent> events = Cycle();
        ASSERT_EQ(events.size(), 1u) << row.szCase;
        EXPECT_EQ(events[0].lStatus, row.lStatus) << row.szCase;
        EXPECT_EQ(events[0].lTextId, row.lTextId) << row.szCase;
        EXPECT_EQ(DifferingProperties(uMark), row.szDiffering) << row.szCase;
    }
}

TEST_F(BiosSettingsTest, ADeviationIsReportedOnceAndSoIsTheReturnToNominal)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Bios.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\machine.mof"));
    const struct {
        const wchar_t* wszChange;  // null: the machine stays as it is
        const char* szCycle;
        LONG lType, lStatus, lTextId;
        bool bNoPut;
    } cycles[] = {
        {nullptr, "first", 3, 1, 63001, false},
        {L"kinds\\bios\\deviation.mof", "deviation", 1, 3, 63003, false},
        {nullptr, "unchanged deviation", 3, 3, 63003, true},
        {L"kinds\\bios\\nominal_again.mof", "back to nominal", 3, 1, 63001, false},
    };
    for (const auto& cycle : cycles) {
        if (cycle.wszChange) {
            ASSERT_NO_FATAL_FAILURE(LoadFixture(cycle.wszChange)) << cycle.szCycle;
        }
        const std::vector<CycleEvent> events = Cycle();
        ASSERT_EQ(events.size(), 1u) << cycle.szCycle;
        const CycleEvent& event = events[0];
        EXPECT_EQ(event.lType, cycle.lType) << cycle.szCycle;
        EXPECT_EQ(event.lStatus, cycle.lStatus) << cycle.szCycle;
        EXPECT_EQ(event.lTextId, cycle.lTextId) << cycle.szCycle;
        EXPECT_EQ(event.bNoPut, cycle.bNoPut) << cycle.szCycle;
        EXPECT_EQ(GetText(event.pEvent.Get(), L"Object"), L"COXL_BiosSettings.ObjId=\"BIOS0\"") << cycle.szCycle;
        EXPECT_EQ(GetText(event.pEvent.Get(), L"DeviceId"), L"BIOS0") << cycle.szCycle;
    }
    EXPECT_EQ(StoredTexts("KM_BiosSettingsChange_Static", L"DeviceId"), std::set<std::wstring>{L"BIOS0"});

    // The stored event refers to the settings in their own namespace, so it goes with them.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\removed.mof"));
    EXPECT_TRUE(Cycle().empty());
    EXPECT_TRUE(StoredTexts("KM_BiosSettingsChange_Static", L"DeviceId").empty());
}

TEST_F(BiosSettingsTest, SettingsWithoutMonitoredPropertiesAreAlwaysNominal)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\unmonitored.mof"));
    for (const bool bNoPut : {false, true}) {
        const std::vector<CycleEvent> events = Cycle();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].lStatus, 1);
        EXPECT_EQ(events[0].lTextId, 63001);
        EXPECT_EQ(events[0].lType, 3);
        EXPECT_EQ(events[0].bNoPut, bNoPut);
    }
}

}  // namespace
