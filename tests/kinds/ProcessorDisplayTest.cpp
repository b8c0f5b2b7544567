// The processor (id 58), display (id 60), physical hard disk (id 65) and BIOS settings (id 63) change
// kinds; the BIOS settings are compared with their nominal values.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TestRegistryKey.h"
#include "notifications/inventory/CNotfyBiosSettingsChange.h"
#include "notifications/inventory/CNotfyDisplayChange.h"
#include "notifications/inventory/CNotfyPhysicalHDDChange.h"
#include "notifications/inventory/CNotfyProcessorChange.h"

namespace {

constexpr char kDisplaySettings[] =
    "SOFTWARE\\Tessaline Systems\\Larkspan\\Infrastructure\\Notification\\Moradel.dll\\NotificationId\\60";
constexpr wchar_t kStepping10[] = L"Intel64 Family 6 Model 158 Stepping 10";
constexpr wchar_t kStepping13[] = L"Intel64 Family 6 Model 158 Stepping 13";
constexpr wchar_t kDell[] = L"DELL U2419H";
constexpr wchar_t kHp[] = L"HP E243";
// Unescaped, this serial number would turn the removal search into "... = "Z" or SerialNumber <> """.
constexpr wchar_t kHostileSerial[] = L"Z\\\" or SerialNumber <> \"";

using ProcessorDisplayTest = KindTest;

TEST(ProcessorChangeRules, NumberBehindCpuAndIdsThatDifferOnlyWhenBothAreReported)
{
    const struct { const wchar_t* wszDeviceId; LONG lNumber; } numbers[] = {
        {L"CPU0", 0}, {L"CPU3", 3}, {L"CPU12 socket", 12}, {L"Socket CPU7", 7}, {L"5", 5}, {L"CPU", 0},
        {L"Socket", 0}, {L"cpu4", 0}, {L"CPU1CPU2", 1}, {L"CPU99999999999999999999", 2147483647},
    };
    for (const auto& row : numbers)
        EXPECT_EQ(CNotfyProcessorChange::GetProcessorNumber(row.wszDeviceId), row.lNumber) << Narrow(row.wszDeviceId);
    const struct { const wchar_t* wszStored; const wchar_t* wszCurrent; bool bDiffer; } ids[] = {
        {L"BFEBFBFF000906EA", L"BFEBFBFF000906EA", false}, {L"BFEBFBFF000906EA", L"bfebfbff000906ea", false},
        {L"BFEBFBFF000906EA", L"BFEBFBFF000906ED", true},  {L"BFEBFBFF000906EA", L"BFEBFBFF000906EA0", true},
        {L"", L"BFEBFBFF000906EA", false}, {L"BFEBFBFF000906EA", L"", false}, {L"", L"", false},
        {L"\u00c4", L"\u00e4", true},  // only A to Z fold
    };
    for (const auto& row : ids)
        EXPECT_EQ(CNotfyProcessorChange::ProcessorIdsDiffer(row.wszStored, row.wszCurrent), row.bDiffer)
            << Narrow(row.wszStored) << " / " << Narrow(row.wszCurrent);
}

TEST_F(ProcessorDisplayTest, ProcessorFirstUnchangedUpgradedAddedRemoved)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Inventory.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\processor\\processors.mof"));
    Events first = Cycle<CNotfyProcessorChange>(L"DeviceId");
    ExpectEvents(first, {{L"0", 1, 58001, 3, false, {kStepping10, L"3300"}}}, "first");
    IWbemClassObject* pFirst = first.at(L"0").pEvent.Get();
    EXPECT_EQ(GetText(pFirst, L"Object"), L"COXL_PhysicalProcessor.DeviceID=\"CPU0\"");
    EXPECT_EQ(std::make_pair(GetI4(pFirst, L"FamilyId"), GetI4(pFirst, L"MaxSpeed")), std::make_pair(179L, 3300L));
    // A new stepping in socket 0 is one change with the stored name and speed, not an addition and a removal.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\processor\\upgraded.mof"));
    ExpectEvents(Cycle<CNotfyProcessorChange>(L"DeviceId"),
                 {{L"0", 2, 58004, 5, false, {kStepping13, L"3300", kStepping10, L"3300"}},
                  {L"1", 2, 58002, 5, false, {kStepping13, L"3300"}}}, "upgraded");
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\processor\\removed.mof"));
    ExpectEvents(Cycle<CNotfyProcessorChange>(L"DeviceId"),
                 {{L"0", 1, 58001, 3, true, {kStepping13, L"3300"}},
                  {L"1", 3, 58003, 5, false, {kStepping13, L"3300"}}}, "removed");
    EXPECT_EQ(StoredTexts("KM_ProcessorChange_Static", L"ProcessorId"), (std::set<std::wstring>{L"BFEBFBFF000906ED"}));
}

TEST_F(ProcessorDisplayTest, DisplaysOverCyclesAndOnDesktopChassisOnly)
{
    const TestRegistryKey settings(kDisplaySettings);  // the kind has never run on this installation
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\enclosure.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\monitors.mof"));
    const auto want = [](const wchar_t* wszModel, const wchar_t* wszSerial, LONG lCase, bool bNoPut) {
        return Want{wszSerial, lCase, 60000 + lCase, lCase == 1 ? 3 : 5, bNoPut, {wszModel, wszSerial}};
    };
    // The first call is a first inventory even for the monitor stored before it. Neither the monitor
    // without a serial number nor the one without a desktop monitor is reported or numbered.
    Events first = Cycle<CNotfyDisplayChange>(L"Serialnumber");
    ExpectEvents(first, {want(kDell, L"CN0ABC", 1, false), want(kDell, L"CN0DEF", 1, false),
                         want(kHp, kHostileSerial, 1, false)}, "first");
    std::set<LONG> deviceIds;
    for (const auto& [wsSerial, event] : first)
        deviceIds.insert(GetI4(event.pEvent.Get(), L"DeviceId"));
    EXPECT_EQ(deviceIds, (std::set<LONG>{1, 2, 3}));
    EXPECT_EQ(GetText(first.at(L"CN0DEF").pEvent.Get(), L"ObjectClass"), L"COXL_MonitorEnclosure");
    DWORD dwType = REG_NONE, dwCalled = 0, cbCalled = sizeof(dwCalled);
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, kDisplaySettings, "AlreadyCalled", RRF_RT_ANY, &dwType, &dwCalled,
                           &cbCalled), ERROR_SUCCESS);
    EXPECT_EQ(std::make_pair(dwType, dwCalled), std::make_pair(DWORD{REG_DWORD}, DWORD{1}));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\changed.mof"));
    ExpectEvents(Cycle<CNotfyDisplayChange>(L"Serialnumber"),
                 {want(kDell, L"CN0ABC", 1, true), want(kDell, L"CN0DEF", 1, true), want(kDell, L"CN0GHI", 2, false),
                  want(kHp, kHostileSerial, 3, false)}, "changed");
    EXPECT_EQ(StoredTexts("KM_DisplayChange_Static", L"Serialnumber"),
              (std::set<std::wstring>{L"CN0ABC", L"CN0DEF", L"CN0GHI"}));
    // Displays are watched on desktop chassis only.
    const struct { const wchar_t* wszTypes; bool bSupported; } chassis[] = {  // null: no enclosure
        {L"{10}", false}, {L"{3}", true}, {L"{3, 9}", false}, {L"NULL", false}, {nullptr, false},
    };
    const std::wstring wsEnclosure =
        L"instance of Win32_SystemEnclosure { Tag = \"System Enclosure 0\"; ChassisTypes = ";
    const wchar_t* wszNone =
        L"#pragma deleteinstance(\"Win32_SystemEnclosure.Tag=\\\"System Enclosure 0\\\"\", NOFAIL)";
    for (const auto& row : chassis) {
        ASSERT_NO_FATAL_FAILURE(LoadMof(row.wszTypes ? wsEnclosure + row.wszTypes + L"; };" : wszNone, L"root\\cimv2"));
        CNotfyDisplayChange kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        EXPECT_EQ(kind.IsSupported(), row.bSupported) << Narrow(row.wszTypes ? row.wszTypes : L"no enclosure");
    }
}

TEST_F(ProcessorDisplayTest, PhysicalDisksAnswerNotSupported)
{
    LoadMof(L"instance of KM_PhysicalHDDChange_Static { Object = \"COXL_PhysicalHardDisk.DeviceID=\\\"Disk0\\\"\"; "
            L"DeviceId = 1; };", L"root\\oxl1v2\\KM_Notification");
    EXPECT_TRUE(Cycle<CNotfyPhysicalHDDChange>(L"DeviceId", static_cast<HRESULT>(WBEM_E_NOT_SUPPORTED)).empty());
    EXPECT_EQ(StoredTexts("KM_PhysicalHDDChange_Static", L"Object"),
              (std::set<std::wstring>{L"COXL_PhysicalHardDisk.DeviceID=\"Disk0\""}));
}

// The properties named by the "Property differs." lines since uMark, joined by commas.
std::string DifferingProperties(size_t uMark)
{
    std::string sNames;
    for (const auto& fields : GlobalTraceLog::Get().LinesSince(uMark))
        if (fields.size() >= 9 && fields[7] == "Property differs.")  // "PropName: <name>, hrCmp: 0x<n>"
            sNames += (sNames.empty() ? "" : ",") + fields[8].substr(10, fields[8].find(", hrCmp") - 10);
    return sNames;
}

struct BiosSettingsTest : KindTest {
    BiosSettingsTest() : KindTest({L"..\\..\\schema\\KM_Bios.mof"}) {}
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
        const CycleEvent event = Cycle<CNotfyBiosSettingsChange>(L"DeviceId").at(L"BIOS0");
        const bool bDeviates = *row.szDiffering != '\0';
        EXPECT_EQ(std::make_pair(event.lStatus, event.lTextId),
                  bDeviates ? std::make_pair(3L, 63003L) : std::make_pair(1L, 63001L));
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
