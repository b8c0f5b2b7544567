// The BIOS settings change kind (id 63): monitored settings against their nominal values.
#include "KindScenario.h"

#include "GlobalTraceLog.h"
#include "notifications/inventory/CNotfyBiosSettingsChange.h"

namespace {

// The properties named by the "Property differs." lines since uMark, joined by commas.
std::string DifferingProperties(size_t uMark)
{
    std::string sNames;
    for (const auto& fields : GlobalTraceLog::Get().LinesSince(uMark))
        if (fields.size() >= 9 && fields[7] == "Property differs.")  // "PropName: <name>, hrCmp: 0x<n>"
            sNames += (sNames.empty() ? "" : ",") + fields[8].substr(10, fields[8].find(", hrCmp") - 10);
    return sNames;
}

struct BiosSettingsTest : KindScenario {
    BiosSettingsTest() : KindScenario({L"..\\..\\schema\\KM_Bios.mof"}) {}
};

TEST_F(BiosSettingsTest, MonitoredSettingsAreComparedWithTheirNominalValues)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\table_classes.mof"));
    constexpr wchar_t kNominal[] = L"BootSequence = \"HardDisk,USB\"; NumLock = true; AsfEnabled = 1;";
    // szDiffering: the property traced as differing, none when the settings are nominal.
    const struct { const char* szCase; const wchar_t *wszIs, *wszNominal; const char* szDiffering; } rows[] = {
        {"equal", kNominal, kNominal, ""}, {"both null", L"", L"", ""},
        {"case only", L"WakeOnLan = \"ENABLED\";", L"WakeOnLan = \"enabled\";", ""},
        {"differs", L"AsfEnabled = 0;", L"AsfEnabled = 1;", "AsfEnabled"},
        {"only nominal set", L"", L"WakeOnLan = \"Enabled\";", "WakeOnLan"},
        {"unmonitored differs", L"BiosVersion = \"A10\";", L"BiosVersion = \"A12\";", ""},
        {"empty qualifier", L"AssetTag = \"WS-0815\";", L"AssetTag = \"WS-4711\";", ""},
        {"first differing decides", L"BootSequence = \"USB\"; NumLock = false;", kNominal, "BootSequence"},
        {"array never equal", L"BootDevices = {\"HDD\"};", L"BootDevices = {\"HDD\"};", "BootDevices"},
    };
    const std::wstring wsSettings = L"instance of Test_BiosSettings { ObjId = \"BIOS0\"; ";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szCase);
        ASSERT_NO_FATAL_FAILURE(LoadMof(wsSettings + row.wszIs + L" };\ninstance of Test_BiosSettingsNominal { ObjId = "
                                        L"\"Nominal\"; " + row.wszNominal + L" };", L"root\\oxl1v2\\KM_Bios"));
        const size_t uMark = GlobalTraceLog::Get().Mark();
        const Events events = Cycle<CNotfyBiosSettingsChange>(L"DeviceId");
        ASSERT_EQ(events.count(L"BIOS0"), 1u);
        const bool bDeviates = *row.szDiffering != '\0';
        EXPECT_EQ(events.at(L"BIOS0").lStatus, bDeviates ? 3 : 1);
        EXPECT_EQ(events.at(L"BIOS0").lTextId, bDeviates ? 63003 : 63001);
        EXPECT_EQ(DifferingProperties(uMark), row.szDiffering);
    }
}

TEST_F(BiosSettingsTest, ADeviationIsReportedOnceAndSoIsTheReturnToNominal)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\machine.mof"));
    const struct { const wchar_t* wszChange; const char* szCycle; Want want; } cycles[] = {  // null: no change
        {nullptr, "first", {L"BIOS0", 1, 63001, 3, false}},
        {L"kinds\\bios\\deviation.mof", "deviation", {L"BIOS0", 3, 63003, 1, false}},
        {nullptr, "unchanged deviation", {L"BIOS0", 3, 63003, 3, true}},
        {L"kinds\\bios\\nominal_again.mof", "back to nominal", {L"BIOS0", 1, 63001, 3, false}},
    };
    for (const auto& cycle : cycles) {
        if (cycle.wszChange) {
            ASSERT_NO_FATAL_FAILURE(LoadFixture(cycle.wszChange)) << cycle.szCycle;
        }
        ExpectEvents(Cycle<CNotfyBiosSettingsChange>(L"DeviceId"), {cycle.want}, cycle.szCycle);
    }
    EXPECT_EQ(StoredTexts("KM_BiosSettingsChange_Static", L"Object"),
              std::set<std::wstring>{L"COXL_BiosSettings.ObjId=\"BIOS0\""});
    // The stored event refers to the settings in their own namespace, so it goes with them.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\bios\\removed.mof"));
    EXPECT_TRUE(Cycle<CNotfyBiosSettingsChange>(L"DeviceId").empty());
    EXPECT_TRUE(StoredTexts("KM_BiosSettingsChange_Static", L"DeviceId").empty());
}

}  // namespace
