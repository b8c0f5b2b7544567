// Disk SMART (id 1) and fan ageing (id 9): classification tables and agent cycles.
#include "KindScenario.h"

#include "GlobalTraceLog.h"
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

struct SmartFanAgeingTest : KindScenario {
    SmartFanAgeingTest() : KindScenario({L"..\\..\\schema\\cimv2.mof"}) {}
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
        {{true, 0x5D, 0x3, false, 0}, 3, {L"ASC 0x5D/0x03"}},
        {{true, 0x5E, 0x3, true, 49}, 1, {}},
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
    ASSERT_TRUE(first.count(L"Model " + wsIde) && first.count(L"Model BARE"));
    EXPECT_EQ(GetText(first[L"Model " + wsIde].pEvent.Get(), L"Object"),
              L"COXL_SmartInformation.DeviceID=\"\\\\\\\\.\\\\PHYSICALDRIVE0\"");
    EXPECT_EQ(GetTexts(first[L"Model BARE"].pEvent.Get(), L"FailingAttributes"), Texts{});
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
    ASSERT_TRUE(first.count(L"NOMINAL") && first.count(L"OWN"));
    EXPECT_EQ(GetI4(first[L"NOMINAL"].pEvent.Get(), L"BaselineReading"), 2000);
    EXPECT_EQ(GetI4(first[L"NOMINAL"].pEvent.Get(), L"LossPercentage"), 5);
    EXPECT_EQ(GetI4(first[L"OWN"].pEvent.Get(), L"BaselineReading"), 1000);
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
        if (events.count(L"OWN")) {
            EXPECT_EQ(GetI4(events[L"OWN"].pEvent.Get(), L"BaselineReading"), step.lBaseline) << Narrow(step.wszOwn);
        }
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

}  // namespace
