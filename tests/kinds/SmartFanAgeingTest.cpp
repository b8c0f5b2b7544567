// Disk SMART (id 1), fan ageing (id 9) and the cover kinds (intrusion switch, id 3; cabinet opening
// with its latch, id 2): classification tables and agent cycles.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "notifications/sensors/CNotfyCoverOpening.h"
#include "notifications/sensors/CNotfyCoverSensor.h"
#include "notifications/sensors/CNotfyFanDeterioration.h"
#include "notifications/sensors/CNotfyHardDisksSMART.h"

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kEvents[] = L"root\\oxl1v2\\KM_Notification";

std::wstring Fan(const wchar_t* wszId, const std::wstring& wsReadings)
{
    return L"instance of COXL_FanTachometer { DeviceID = \"" + std::wstring(wszId) + L"\"; Name = \"" + wszId +
           L" fan\"; SensorId = 1; " + wsReadings + L" };\n";
}
std::wstring Attribute(const wchar_t* wszDisk, int iId, const wchar_t* wszName, const wchar_t* wszValues)
{
    return L"instance of COXL_SmartIdeData { DeviceID = \"" + std::wstring(wszDisk) + L"\"; AttributeId = " +
           std::to_wstring(iId) + L"; AttributeName = \"" + wszName + L"\"; " + wszValues + L" };\n";
}
std::wstring Disk(const wchar_t* wszId, const wchar_t* wszInterface, const wchar_t* wszFlags)
{
    return L"instance of COXL_SmartInformation { DeviceID = \"" + std::wstring(wszId) + L"\"; Name = \"Model " +
           wszId + L"\"; InterfaceType = \"" + wszInterface + L"\"; " + wszFlags + L" };\n";
}

// A disk's event, keyed by its Name, with its findings.
Want Smart(const std::wstring& wsId, LONG lStatus, LONG lType, bool bNoPut, const wchar_t* wszFindings)
{
    return {L"Model " + wsId, lStatus, 1000 + lStatus, lType, bNoPut, {L"Model " + wsId, wsId, wszFindings}};
}

struct SmartFanAgeingTest : KindTest {
    SmartFanAgeingTest() : KindTest({L"..\\..\\schema\\cimv2.mof"}) {}
};

TEST(SmartClassify, AttributesAndScsiSenseData)
{
    const CSmartLimits limits;  // margin 10, defects 50 and 500
    const struct { CSmartAttribute attribute; unsigned long ulStatus; Texts entries; } attributes[] = {
        {{5, L"Reallocated", 36, 36, true}, 3, {L"5 Reallocated 36/36"}},  // at the threshold: critical
        {{5, L"Reallocated", 46, 36, true}, 2, {L"5 Reallocated 46/36"}},  // at threshold + margin: warning
        {{5, L"Reallocated", 47, 36, true}, 1, {}},
        {{194, L"Temperature", 20, 30, false}, 1, {}},  // advisory attributes never count
        {{9, L"Hours", 0, 0, true}, 1, {}},             // threshold 0: cannot fail
        {{1, L"Read errors", 0xFFFFFFFF, 0xFFFFFFF9, true}, 2, {L"1 Read errors 4294967295/4294967289"}},  // 64-bit sum
    };
    for (const auto& c : attributes) {
        CSmartFindings findings;
        CNotfyHardDisksSMART::ClassifyAttribute(c.attribute, limits, &findings);
        EXPECT_EQ(std::make_tuple(findings.ulStatus, findings.entries), std::make_tuple(c.ulStatus, c.entries))
            << Narrow(c.attribute.wsName) << " " << c.attribute.ulValue;
    }
    const struct { CSmartScsiData data; unsigned long ulStatus; Texts entries; } scsi[] = {
        {{true, 0x5D, 0x3, false, 0}, 3, {L"ASC 0x5D/0x03"}}, {{true, 0x5E, 0x3, true, 49}, 1, {}},
        {{false, 0x5D, 0, true, 50}, 2, {L"GrownDefects 50"}},  // no sense code read: only the defects count
        {{true, 0x5D, 0x1A, true, 500}, 3, {L"ASC 0x5D/0x1A", L"GrownDefects 500"}},
    };
    for (const auto& c : scsi) {
        CSmartFindings findings;
        CNotfyHardDisksSMART::ClassifyScsiData(c.data, limits, &findings);
        EXPECT_EQ(std::make_tuple(findings.ulStatus, findings.entries), std::make_tuple(c.ulStatus, c.entries))
            << "row " << (&c - scsi);
    }
}

TEST(FanAgeingClassify, LossInWholePercentAgainstTheLimits)
{
    const struct { ULONG ulBaseline, ulCurrent, ulLoss; unsigned long ulStatus; } cases[] = {
        {2000, 2100, 0, 1}, {2000, 1501, 24, 1}, {2000, 1500, 25, 2}, {1100, 551, 49, 2},
        {1000, 500, 50, 3}, {1000, 0, 100, 3},   {0xFFFFFFFF, 1, 99, 3},  // no 32-bit overflow
    };
    for (const auto& c : cases) {
        const ULONG ulLoss = CNotfyFanDeterioration::LossPercentage(c.ulBaseline, c.ulCurrent);
        EXPECT_EQ(ulLoss, c.ulLoss) << c.ulBaseline << " -> " << c.ulCurrent;
        EXPECT_EQ(CNotfyFanDeterioration::ClassifyLoss(ulLoss, CFanLossLimits{}), c.ulStatus) << c.ulLoss;
    }
}

TEST_F(SmartFanAgeingTest, SmartStatesOverCycles)
{
    // Real device ids hold backslashes: they must survive the attribute query and the SCSI path.
    const wchar_t* wszIde = L"\\\\\\\\.\\\\PHYSICALDRIVE0";  // \\.\PHYSICALDRIVE0 in MOF
    const std::wstring wsIde = L"\\\\.\\PHYSICALDRIVE0";
    ASSERT_NO_FATAL_FAILURE(LoadMof(
        Disk(wszIde, L"IDE", L"SmartSupported = true; SmartEnabled = true; PredictFailure = false;") +
            Disk(L"OFF", L"IDE", L"SmartSupported = true; SmartEnabled = false;") +
            Disk(L"SAS\\\\1", L"SCSI", L"SmartSupported = true; SmartEnabled = true;") +
            Disk(L"PRED", L"ide", L"SmartSupported = true; SmartEnabled = true; PredictFailure = true;") +
            Disk(L"BARE", L"SCSI", L"SmartSupported = true; SmartEnabled = true;") +
            Attribute(wszIde, 5, L"Reallocated", L"Value = 40; Threshold = 36; PreFailure = true;") +
            Attribute(wszIde, 194, L"Temperature", L"Value = 20; Threshold = 30; PreFailure = false;") +
            Attribute(wszIde, 7, L"Seek errors", L"Threshold = 30; PreFailure = true;") +  // no Value
            Attribute(L"OTHER", 5, L"Reallocated", L"Value = 1; Threshold = 36; PreFailure = true;") +
            L"instance of COXL_SmartScsiData { DeviceID = \"SAS\\\\1\"; GrownDefects = 60; };",
        kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    Events first = Cycle<CNotfyHardDisksSMART>(L"Name");
    ExpectEvents(first, {Smart(wsIde, 2, 1, false, L"5 Reallocated 40/36"), Smart(L"BARE", 1, 3, false, L"--"),
                         Smart(L"SAS\\1", 2, 1, false, L"GrownDefects 60"),
                         Smart(L"PRED", 3, 1, false, L"PredictFailure")}, "first");
    // The disk without SMART uses no number; the others are numbered in the order reported.
    std::set<LONG> numbers;
    for (const auto& [wsName, event] : first)
        numbers.insert(GetI4(event.pEvent.Get(), L"DeviceId"));
    EXPECT_EQ(numbers, (std::set<LONG>{1, 2, 3, 4}));
    EXPECT_EQ(GetText(first.at(L"Model " + wsIde).pEvent.Get(), L"Object"),
              L"COXL_SmartInformation.DeviceID=\"\\\\\\\\.\\\\PHYSICALDRIVE0\"");
    EXPECT_EQ(GetTexts(first.at(L"Model BARE").pEvent.Get(), L"FailingAttributes"), Texts{});
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because SMART is not supported or not enabled."), "Info");
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because error getting 'Value' property"));
    ExpectEvents(Cycle<CNotfyHardDisksSMART>(L"Name"),
                 {Smart(wsIde, 2, 3, true, L"5 Reallocated 40/36"), Smart(L"BARE", 1, 3, true, L"--"),
                  Smart(L"SAS\\1", 2, 3, true, L"GrownDefects 60"), Smart(L"PRED", 3, 3, true, L"PredictFailure")},
                 "unchanged");
    // The attribute recovers, the defect limits are raised, one disk is removed and the last
    // gets a failure-prediction sense code.
    ASSERT_NO_FATAL_FAILURE(LoadMof(
        Attribute(wszIde, 5, L"Reallocated", L"Value = 100; Threshold = 36; PreFailure = true;") +
            L"#pragma deleteinstance(\"COXL_SmartInformation.DeviceID=\\\"PRED\\\"\", FAIL)\n"
            L"instance of COXL_SmartScsiData { DeviceID = \"BARE\"; AdditionalSenseCode = 93; "
            L"AdditionalSenseCodeQualifier = 255; };",
        kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of KM_Filter { Id = 1; HighWarning = \"100\"; };", kEvents));
    ExpectEvents(Cycle<CNotfyHardDisksSMART>(L"Name"),
                 {Smart(wsIde, 1, 2, false, L"--"), Smart(L"SAS\\1", 1, 2, false, L"--"),
                  Smart(L"BARE", 3, 1, false, L"ASC 0x5D/0xFF")}, "changed");
    EXPECT_EQ(StoredTexts("KM_HardDisksSMART_Static", L"Name"),
              (std::set<std::wstring>{L"Model " + wsIde, L"Model SAS\\1", L"Model BARE"}));
}

TEST_F(SmartFanAgeingTest, FanAgeingOverCycles)
{
    ASSERT_NO_FATAL_FAILURE(LoadMof(Fan(L"NOMINAL", L"NominalReading = 2000; CurrentReading = 1900;") +
                                        Fan(L"OWN", L"CurrentReading = 1000;") + Fan(L"SILENT", L"") +
                                        Fan(L"STOPPED", L"CurrentReading = 0;"),
                                    kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    Events first = Cycle<CNotfyFanDeterioration>(L"DeviceId");
    ExpectEvents(first, {{L"NOMINAL", 1, 9001, 3, false}, {L"OWN", 1, 9001, 3, false}}, "first");
    EXPECT_EQ(GetI4(first.at(L"NOMINAL").pEvent.Get(), L"BaselineReading"), 2000);
    EXPECT_EQ(GetI4(first.at(L"NOMINAL").pEvent.Get(), L"LossPercentage"), 5);
    EXPECT_EQ(GetI4(first.at(L"OWN").pEvent.Get(), L"BaselineReading"), 1000);
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because Could not get the current value!"));
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because the fan has no baseline."), "Info");
    // NOMINAL runs faster than its nominal speed, which stays its baseline.
    const struct { const wchar_t* wszOwn; Want own; LONG lBaseline; } steps[] = {
        {L"1000", {L"OWN", 1, 9001, 3, true}, 1000},                                        // unchanged
        {L"1100", {L"OWN", 1, 9001, 3, false}, 1100},                                       // faster: new baseline
        {L"800", {L"OWN", 2, 9002, 1, false, {L"OWN fan", L"1100", L"800", L"27"}}, 1100},  // warning
        {L"540", {L"OWN", 3, 9003, 1, false, {L"OWN fan", L"1100", L"540", L"50"}}, 1100},  // critical
        {L"0", {L"OWN", 3, 9003, 3, true, {L"OWN fan", L"1100", L"0", L"100"}}, 1100},      // stopped
        {L"900", {L"OWN", 1, 9001, 2, false}, 1100},                                        // recovered
    };
    for (const auto& step : steps) {
        ASSERT_NO_FATAL_FAILURE(LoadMof(Fan(L"NOMINAL", L"NominalReading = 2000; CurrentReading = 2100;") +
                                            Fan(L"OWN", L"CurrentReading = " + std::wstring(step.wszOwn) + L";"),
                                        kCimv2));
        Events events = Cycle<CNotfyFanDeterioration>(L"DeviceId");
        ExpectEvents(events, {{L"NOMINAL", 1, 9001, 3, true}, step.own}, Narrow(step.wszOwn));
        EXPECT_EQ(GetI4(events.at(L"OWN").pEvent.Get(), L"BaselineReading"), step.lBaseline) << Narrow(step.wszOwn);
    }
    // Limits from KM_Filter replace the defaults; a removed fan's reference goes.
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of KM_Filter { Id = 9; HighWarning = \"10\"; HighCritical = \"90\"; };",
                                    kEvents));
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"#pragma deleteinstance(\"COXL_FanTachometer.DeviceID=\\\"NOMINAL\\\"\", FAIL)\n" +
                                        Fan(L"OWN", L"CurrentReading = 900;"),
                                    kCimv2));
    ExpectEvents(Cycle<CNotfyFanDeterioration>(L"DeviceId"),
                 {{L"OWN", 2, 9002, 1, false, {L"OWN fan", L"1100", L"900", L"18"}}}, "limits and removal");
    EXPECT_EQ(StoredTexts("KM_FanDeterioration_Static", L"DeviceId"), std::set<std::wstring>{L"OWN"});
}

constexpr wchar_t kBay[] = L"Bay \"7\" \\ rear";

std::wstring Switch(const std::wstring& wsId, const wchar_t* wszReading)
{
    return L"instance of COXL_IntrusionSwitch { DeviceID = \"" + wsId + L"\"; " +
           (wszReading ? L"CurrentReading = " + std::wstring(wszReading) + L";" : L"") + L" };\n";
}

class CoverTest : public KindTest {
protected:
    // The latch flag as after loading the module.
    CoverTest() : KindTest({L"..\\..\\schema\\cimv2.mof"}) { CNotfyCoverOpening::SetLatchFlag(true); }
    ~CoverTest() override { CNotfyCoverOpening::SetLatchFlag(true); }
};

TEST_F(CoverTest, SensorOutcomeBySwitchReadingAndStoredInstance)
{
    // wszReading null: CurrentReading unset; status 0: not reported.
    const struct { const wchar_t* wszReading; bool bStored; Want want; } rows[] = {
        {L"true", false, {L"ClosedNew", 1, 3001, 3, false}}, {L"true", true, {L"ClosedKnown", 1, 3001, 3, true}},
        {L"false", true, {L"OpenKnown", 3, 3003, 1, false}}, {nullptr, true, {L"UnreadKnown", 3, 3003, 1, false}},
        {L"false", false, {L"OpenNew", 0, 0, 0, false}},      {nullptr, false, {L"UnreadNew", 0, 0, 0, false}},
    };
    std::wstring wsSwitches, wsStored;
    std::vector<Want> wants;
    for (const auto& row : rows) {
        wsSwitches += Switch(row.want.wsKey, row.wszReading);
        if (row.bStored)
            wsStored += L"instance of KM_CoverSensor_Static { DeviceId = \"" + row.want.wsKey +
                        L"\"; Object = \"COXL_IntrusionSwitch.DeviceID=\\\"" + row.want.wsKey +
                        L"\\\"\"; EventStatus = 1; EventTextId = 3001; };\n";
        if (row.want.lStatus)
            wants.push_back(row.want);
    }
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsSwitches, kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsStored, L"root\\oxl1v2\\KM_Notification"));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    ExpectEvents(Cycle<CNotfyCoverSensor>(L"DeviceId"), wants, "sensor");
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because no instance has to be set."), "Info");
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because Cabinet Intrusion Switch NOT plugged. It is optional, so "
                                  "don't do anything."), "Info");
}

TEST_F(CoverTest, SensorCyclesReportClosedOnceAndLoseTheReferenceWhenOpen)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\cover\\switches.mof"));  // Spare reads open, never known closed
    // wszReading null: the switch is removed.
    const struct { const wchar_t* wszReading; bool bStored; const char* szStep; std::vector<Want> wants; } cycles[] = {
        {L"true", true, "first closed", {{L"Case", 1, 3001, 3, false}}},
        {L"false", false, "opened: reported, reference deleted", {{L"Case", 3, 3003, 1, false}}},
        {L"true", true, "closed again: new", {{L"Case", 1, 3001, 3, false}}},
        {nullptr, false, "switch removed", {}},
    };
    for (const auto& c : cycles) {
        const wchar_t* wszRemove = L"#pragma deleteinstance(\"COXL_IntrusionSwitch.DeviceID=\\\"Case\\\"\", NOFAIL)";
        ASSERT_NO_FATAL_FAILURE(LoadMof(c.wszReading ? Switch(L"Case", c.wszReading) : wszRemove, kCimv2));
        const Events events = Cycle<CNotfyCoverSensor>(L"DeviceId");
        ExpectEvents(events, c.wants, c.szStep);
        if (events.count(L"Case")) {
            EXPECT_EQ(GetText(events.at(L"Case").pEvent.Get(), L"Object"), L"COXL_IntrusionSwitch.DeviceID=\"Case\"");
        }
        EXPECT_EQ(StoredTexts("KM_CoverSensor_Static", L"DeviceId").count(L"Case"), c.bStored ? 1u : 0u) << c.szStep;
    }
}

TEST_F(CoverTest, OpeningReportsTheLatchedIntrusionFirstAndDeletesOnAnUnpluggedSwitch)
{
    // Besides Main and Bay an unsupported sensor and one with an unplugged switch, which give nothing.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\cover\\cabinet.mof"));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const auto opening = [this] { return Cycle<CNotfyCoverOpening>(L"DeviceId"); };
    // First request after loading: the latched intrusion, then the same sensor with its current reading.
    // The id with a quote and a backslash still finds its switch.
    ExpectEvents(opening(), {{L"Main", 3, 2003, 1, false}, {L"Main#2", 1, 2001, 2, false}, {kBay, 1, 2001, 3, false}},
                 "first");
    EXPECT_TRUE(CNotfyCoverOpening::GetLatchFlag());
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because Cabinet Intrusion NOT supported"), "Info");
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because Cabinet Intrusion NOT supported because of missing "
                                  "switch"), "Info");
    EXPECT_EQ(StoredTexts("KM_CoverOpening_Static", L"DeviceId"), (std::set<std::wstring>{L"Main", kBay}));
    // The hardware latch is cleared: unchanged against the stored event but never NoPut; then the cabinet opens.
    const wchar_t* wszMain = L"instance of COXL_CabinetIntrusion { DeviceID = \"Main\"; SensorSupported = true; "
                             L"IntrusionWasDetected = false; CurrentReading = ";
    ASSERT_NO_FATAL_FAILURE(LoadMof(wszMain + std::wstring(L"false; };"), kCimv2));
    ExpectEvents(opening(), {{L"Main", 1, 2001, 3, false}, {kBay, 1, 2001, 3, false}}, "latch cleared");
    ASSERT_NO_FATAL_FAILURE(LoadMof(wszMain + std::wstring(L"true; };"), kCimv2));
    ExpectEvents(opening(), {{L"Main", 3, 2003, 1, false}, {kBay, 1, 2001, 3, false}}, "opened");
    // Both switches unplugged: no events, and each deletion looks at the first stored instance only.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\cover\\unplugged.mof"));
    EXPECT_TRUE(opening().empty());
    EXPECT_EQ(StoredTexts("KM_CoverOpening_Static", L"DeviceId").size(), 1u);
    EXPECT_TRUE(opening().empty());
    EXPECT_TRUE(StoredTexts("KM_CoverOpening_Static", L"DeviceId").empty());
}

TEST(CoverOpening, TakingTheCurrentReadingRejectsAnImpossibleStatus)
{
    const size_t uMark = GlobalTraceLog::Get().Mark();
    CNotfyCoverOpening kind;
    EXPECT_EQ(kind.SetEventType(4, true), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    EXPECT_EQ(TraceLevelOf(uMark, "Critical error, calculcated State not possible... "), "Error");
}

}  // namespace
