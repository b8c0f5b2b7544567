// Disk SMART (id 1) and fan ageing (id 9): their classification tables, and agent cycles over
// disks and tachometers that change between cycles.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "notifications/sensors/CNotfyFanDeterioration.h"
#include "notifications/sensors/CNotfyHardDisksSMART.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kEvents[] = L"root\\oxl1v2\\KM_Notification";

// What one event of a cycle must show; no arguments: EventTextArguments is unset.
struct Expected {
    LONG lStatus, lType;
    bool bNoPut;
    std::vector<std::wstring> arguments = {};
};

class SmartFanAgeingTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
    }

    // One agent cycle; the events by szKey, checked against expected (every event listed, no other).
    template <class Kind>
    std::map<std::wstring, CycleEvent> Cycle(const wchar_t* wszKey, LONG lFirstTextId,
                                             const std::map<std::wstring, Expected>& expected, const char* szCycle)
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, S_OK) << szCycle;
        EXPECT_EQ(result.hrDelete, S_OK) << szCycle;
        std::map<std::wstring, CycleEvent> events;
        for (CycleEvent& event : result.events)
            events[GetText(event.pEvent.Get(), wszKey)] = std::move(event);
        for (const auto& [wsKey, event] : events)
            EXPECT_TRUE(expected.count(wsKey)) << szCycle << " unexpected " << Narrow(wsKey);
        for (const auto& [wsKey, want] : expected) {
            const std::string sRow = std::string(szCycle) + " " + Narrow(wsKey);
            const auto it = events.find(wsKey);
            if (it == events.end()) {
                ADD_FAILURE() << sRow << " missing";
                continue;
            }
            EXPECT_EQ(it->second.lStatus, want.lStatus) << sRow;
            EXPECT_EQ(it->second.lTextId, lFirstTextId + want.lStatus) << sRow;
            EXPECT_EQ(it->second.lType, want.lType) << sRow;
            EXPECT_EQ(it->second.bNoPut, want.bNoPut) << sRow;
            EXPECT_EQ(it->second.arguments, want.arguments.empty() ? std::vector<std::wstring>{L"<none>"} : want.arguments)
                << sRow;
        }
        return events;
    }
};

std::wstring Fan(const wchar_t* wszId, const std::wstring& wsReadings)
{
    return L"instance of COXL_FanTachometer { DeviceID = \"" + std::wstring(wszId) + L"\"; Name = \"" + wszId +
           L" fan\"; SensorId = 1; " + wsReadings + L" };\n";
}

std::wstring Attribute(const wchar_t* wszDisk, int iId, const wchar_t* wszName, const std::wstring& wsValues)
{
    return L"instance of COXL_SmartIdeData { DeviceID = \"" + std::wstring(wszDisk) + L"\"; AttributeId = " +
           std::to_wstring(iId) + L"; AttributeName = \"" + wszName + L"\"; " + wsValues + L" };\n";
}

std::wstring Disk(const wchar_t* wszId, const wchar_t* wszInterface, const std::wstring& wsFlags)
{
    return L"instance of COXL_SmartInformation { DeviceID = \"" + std::wstring(wszId) + L"\"; Name = \"Model " +
           wszId + L"\"; InterfaceType = \"" + wszInterface + L"\"; " + wsFlags + L" };\n";
}

}  // namespace

TEST(SmartClassify, AttributesAndScsiSenseData)
{
    const CSmartLimits limits;  // margin 10, defects 50 and 500
    const struct {
        CSmartAttribute attribute;
        unsigned long ulStatus;
        std::vector<std::wstring> entries;
    } attributes[] = {
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
        EXPECT_EQ(findings.ulStatus, c.ulStatus) << Narrow(c.attribute.wsName) << " " << c.attribute.ulValue;
        EXPECT_EQ(findings.entries, c.entries) << Narrow(c.attribute.wsName) << " " << c.attribute.ulValue;
    }
    const struct {
        CSmartScsiData data;
        unsigned long ulStatus;
        std::vector<std::wstring> entries;
    } scsi[] = {
        {{true, 0x5D, 0x3, false, 0}, 3, {L"ASC 0x5D/0x03"}},
        {{true, 0x5E, 0x3, true, 49}, 1, {}},
        {{false, 0x5D, 0, true, 50}, 2, {L"GrownDefects 50"}},  // no sense code read: only the defects count
        {{true, 0x5D, 0x1A, true, 500}, 3, {L"ASC 0x5D/0x1A", L"GrownDefects 500"}},
    };
    for (size_t i = 0; i < std::size(scsi); ++i) {
        CSmartFindings findings;
        CNotfyHardDisksSMART::ClassifyScsiData(scsi[i].data, limits, &findings);
        EXPECT_EQ(findings.ulStatus, scsi[i].ulStatus) << "row " << i;
        EXPECT_EQ(findings.entries, scsi[i].entries) << "row " << i;
    }
}

TEST(FanAgeingClassify, LossInWholePercentAgainstTheLimits)
{
    const struct {
        ULONG ulBaseline, ulCurrent, ulLoss;
        unsigned long ulStatus;
    } cases[] = {
        {2000, 2100, 0, 1},  {2000, 1501, 24, 1}, {2000, 1500, 25, 2},        {1100, 551, 49, 2},
        {1000, 500, 50, 3},  {1000, 0, 100, 3},   {0xFFFFFFFF, 1, 99, 3},  // no 32-bit overflow
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
    const std::wstring wsIde = L"\\\\\\\\.\\\\PHYSICALDRIVE0";  // \\.\PHYSICALDRIVE0 in MOF
    ASSERT_NO_FATAL_FAILURE(LoadMof(
        Disk(wsIde.c_str(), L"IDE", L"SmartSupported = true; SmartEnabled = true; PredictFailure = false;") +
            Disk(L"OFF", L"IDE", L"SmartSupported = true; SmartEnabled = false;") +
            Disk(L"SAS\\\\1", L"SCSI", L"SmartSupported = true; SmartEnabled = true;") +
            Disk(L"PRED", L"ide", L"SmartSupported = true; SmartEnabled = true; PredictFailure = true;") +
            Disk(L"BARE", L"SCSI", L"SmartSupported = true; SmartEnabled = true;") +
            Attribute(wsIde.c_str(), 5, L"Reallocated", L"Value = 40; Threshold = 36; PreFailure = true;") +
            Attribute(wsIde.c_str(), 194, L"Temperature", L"Value = 20; Threshold = 30; PreFailure = false;") +
            Attribute(wsIde.c_str(), 7, L"Seek errors", L"Threshold = 30; PreFailure = true;") +  // no Value
            Attribute(L"OTHER", 5, L"Reallocated", L"Value = 1; Threshold = 36; PreFailure = true;") +
            L"instance of COXL_SmartScsiData { DeviceID = \"SAS\\\\1\"; GrownDefects = 60; };",
        kCimv2));
    const std::wstring wsIdeId = L"\\\\.\\PHYSICALDRIVE0";
    const std::wstring wsIdePath = L"COXL_SmartInformation.DeviceID=\"\\\\\\\\.\\\\PHYSICALDRIVE0\"";
    const size_t uMark = GlobalTraceLog::Get().Mark();
    auto first = Cycle<CNotfyHardDisksSMART>(
        L"Name", 1000,
        {{L"Model " + wsIdeId, {2, 1, false, {L"Model " + wsIdeId, wsIdeId, L"5 Reallocated 40/36"}}},
         {L"Model SAS\\1", {2, 1, false, {L"Model SAS\\1", L"SAS\\1", L"GrownDefects 60"}}},
         {L"Model PRED", {3, 1, false, {L"Model PRED", L"PRED", L"PredictFailure"}}},
         {L"Model BARE", {1, 3, false, {L"Model BARE", L"BARE", L"--"}}}},
        "first");
    // The disk without SMART uses no number; the others are numbered in the order reported.
    std::set<LONG> numbers;
    for (const auto& [wsName, event] : first)
        numbers.insert(GetI4(event.pEvent.Get(), L"DeviceId"));
    EXPECT_EQ(numbers, (std::set<LONG>{1, 2, 3, 4}));
    EXPECT_EQ(GetText(first[L"Model " + wsIdeId].pEvent.Get(), L"Object"), wsIdePath);
    EXPECT_EQ(GetTexts(first[L"Model BARE"].pEvent.Get(), L"FailingAttributes"), std::vector<std::wstring>{});
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because SMART is not supported or not enabled."), "Info");
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because error getting 'Value' property"));

    Cycle<CNotfyHardDisksSMART>(L"Name", 1000,
                                {{L"Model " + wsIdeId, {2, 3, true, {L"Model " + wsIdeId, wsIdeId, L"5 Reallocated 40/36"}}},
                                 {L"Model SAS\\1", {2, 3, true, {L"Model SAS\\1", L"SAS\\1", L"GrownDefects 60"}}},
                                 {L"Model PRED", {3, 3, true, {L"Model PRED", L"PRED", L"PredictFailure"}}},
                                 {L"Model BARE", {1, 3, true, {L"Model BARE", L"BARE", L"--"}}}},
                                "unchanged");

    // The attribute recovers, the defect limits are raised, one disk is removed and the last
    // gets a failure-prediction sense code.
    ASSERT_NO_FATAL_FAILURE(LoadMof(
        Attribute(wsIde.c_str(), 5, L"Reallocated", L"Value = 100; Threshold = 36; PreFailure = true;") +
            L"#pragma deleteinstance(\"COXL_SmartInformation.DeviceID=\\\"PRED\\\"\", FAIL)\n"
            L"instance of COXL_SmartScsiData { DeviceID = \"BARE\"; AdditionalSenseCode = 93; "
            L"AdditionalSenseCodeQualifier = 255; };",
        kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of KM_Filter { Id = 1; HighWarning = \"100\"; };", kEvents));
    Cycle<CNotfyHardDisksSMART>(L"Name", 1000,
                                {{L"Model " + wsIdeId, {1, 2, false, {L"Model " + wsIdeId, wsIdeId, L"--"}}},
                                 {L"Model SAS\\1", {1, 2, false, {L"Model SAS\\1", L"SAS\\1", L"--"}}},
                                 {L"Model BARE", {3, 1, false, {L"Model BARE", L"BARE", L"ASC 0x5D/0xFF"}}}},
                                "changed");
    EXPECT_EQ(StoredTexts("KM_HardDisksSMART_Static", L"Name"),
              (std::set<std::wstring>{L"Model " + wsIdeId, L"Model SAS\\1", L"Model BARE"}));
}

TEST_F(SmartFanAgeingTest, FanAgeingOverCycles)
{
    const std::wstring wsFans = Fan(L"NOMINAL", L"NominalReading = 2000; CurrentReading = 1900;") +
                                Fan(L"OWN", L"CurrentReading = 1000;") + Fan(L"SILENT", L"") +
                                Fan(L"STOPPED", L"CurrentReading = 0;");
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsFans, kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    auto first = Cycle<CNotfyFanDeterioration>(L"DeviceId", 9000, {{L"NOMINAL", {1, 3, false}}, {L"OWN", {1, 3, false}}},
                                               "first");
    EXPECT_EQ(GetI4(first[L"NOMINAL"].pEvent.Get(), L"BaselineReading"), 2000);
    EXPECT_EQ(GetI4(first[L"NOMINAL"].pEvent.Get(), L"LossPercentage"), 5);
    EXPECT_EQ(GetI4(first[L"OWN"].pEvent.Get(), L"BaselineReading"), 1000);
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because Could not get the current value!"));
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because the fan has no baseline."), "Info");

    // Each step: the readings of NOMINAL and OWN, and what OWN must show.
    const struct {
        const wchar_t* wszNominal;
        const wchar_t* wszOwn;
        Expected own;
        LONG lBaseline;
        const char* szStep;
    } steps[] = {
        {L"2100", L"1000", {1, 3, true}, 1000, "unchanged"},
        {L"2100", L"1100", {1, 3, false}, 1100, "faster: a new baseline, stored"},
        {L"2100", L"800", {2, 1, false, {L"OWN fan", L"1100", L"800", L"27"}}, 1100, "warning"},
        {L"2100", L"540", {3, 1, false, {L"OWN fan", L"1100", L"540", L"50"}}, 1100, "critical"},
        {L"2100", L"0", {3, 3, true, {L"OWN fan", L"1100", L"0", L"100"}}, 1100, "stopped"},
        {L"2100", L"900", {1, 2, false}, 1100, "recovered"},
    };
    for (const auto& step : steps) {
        ASSERT_NO_FATAL_FAILURE(LoadMof(Fan(L"NOMINAL", L"NominalReading = 2000; CurrentReading = " +
                                                             std::wstring(step.wszNominal) + L";") +
                                            Fan(L"OWN", L"CurrentReading = " + std::wstring(step.wszOwn) + L";"),
                                        kCimv2));
        // The nominal speed stays the baseline although the fan runs faster.
        auto events = Cycle<CNotfyFanDeterioration>(L"DeviceId", 9000, {{L"NOMINAL", {1, 3, true}}, {L"OWN", step.own}},
                                                    step.szStep);
        EXPECT_EQ(GetI4(events[L"OWN"].pEvent.Get(), L"BaselineReading"), step.lBaseline) << step.szStep;
    }

    // Limits from KM_Filter replace the defaults; a removed fan's reference goes.
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of KM_Filter { Id = 9; HighWarning = \"10\"; HighCritical = \"90\"; };",
                                    kEvents));
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"#pragma deleteinstance(\"COXL_FanTachometer.DeviceID=\\\"NOMINAL\\\"\", FAIL)\n"
                                    L"instance of COXL_FanTachometer { DeviceID = \"OWN\"; Name = \"OWN fan\"; "
                                    L"SensorId = 1; CurrentReading = 900; };",
                                    kCimv2));
    Cycle<CNotfyFanDeterioration>(L"DeviceId", 9000, {{L"OWN", {2, 1, false, {L"OWN fan", L"1100", L"900", L"18"}}}},
                                  "limits and removal");
    EXPECT_EQ(StoredTexts("KM_FanDeterioration_Static", L"DeviceId"), std::set<std::wstring>{L"OWN"});
}
