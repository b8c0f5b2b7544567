// The temperature kind: families, classification and message numbers, and agent cycles against
// probes in root\cimv2.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "notifications/sensors/CNotfyTemperature.h"

#include <climits>

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";

TEST(TemperatureClassify, LaterTestsOverrideEarlierOnesAndLimitsAreInclusive)
{
    using F = ETemperatureFamily;
    constexpr LONG N = LONG_MAX;  // upper limit absent
    constexpr CSensorThresholds kSys = {60, 70, 90, 5, 0, -20};
    const struct {
        ETemperatureFamily family;
        LONG lReading;
        CSensorThresholds limits;  // UNC, UC, UD, LNC, LC, LD; those left out are absent
        unsigned long ulStatus;
        LONG lTextId;
    } cases[] = {
        {F::SystemProbe, 45, {}, 1, 7021}, {F::SystemProbe, 60, kSys, 2, 7013}, {F::SystemProbe, 70, kSys, 3, 7017},
        {F::SystemProbe, 95, kSys, 3, 7005}, {F::SystemProbe, 5, kSys, 2, 7025}, {F::SystemProbe, 0, kSys, 3, 7025},
        {F::SystemProbe, -20, kSys, 3, 7009},
        {F::SystemProbe, 10, {5, N, N, 20}, 2, 7025},  // the lower tests come last
        {F::GraphicCard, 85, {80, 95}, 2, 7204}, {F::GraphicCard, 99, {80, 95, 99}, 3, 7202},
        {F::GraphicCard, -9, {N, N, N, 5, 0, -5}, 3, 7203},
        {F::HardDisk, 61, {55, 60, 65}, 3, 7103}, {F::HardDisk, 65, {55, 60, 65}, 3, 7104},
        {F::HardDisk, -30, {N, N, N, 5, 0, -20}, 3, -1},
        {F::IndexedProbe, 70, {50, 70, N, 10}, 3, 7305}, {F::IndexedProbe, 90, {50, 70, 90, 10}, 3, 7302},
        {F::IndexedProbe, 2, {50, N, N, 10, 2}, 3, 7307}, {F::IndexedProbe, -40, {50, N, N, 10, 2, -40}, 3, 7303},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        const CSensorMessages* pMessages = CNotfyTemperature::GetMessages(c.family);
        ASSERT_NE(pMessages, nullptr) << "row " << i;
        unsigned long ulStatus = 0xdeadbeef;
        LONG lTextId = 0x5a5a5a5a;
        ClassifyReading(*pMessages, c.lReading, c.limits, &ulStatus, &lTextId);
        EXPECT_EQ(ulStatus, c.ulStatus) << "row " << i << " reading " << c.lReading;
        EXPECT_EQ(lTextId, c.lTextId) << "row " << i << " reading " << c.lReading;
    }
}

class TemperatureTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
    }
    // The events of one agent cycle by probe.
    std::map<std::wstring, CycleEvent> Cycle()
    {
        CycleResult result = RunAgentCycle<CNotfyTemperature>();
        EXPECT_EQ(result.hrGet, S_OK);
        EXPECT_EQ(result.hrDelete, S_OK);
        return EventsBy(std::move(result.events), L"DeviceId");
    }
};

// probes.mof has one probe of each family and four that are skipped (not present, unknown and
// unsupported family, no reading); more are added from the table.
TEST_F(TemperatureTest, AgentCyclesReportChangesMarkTheUnchangedAndDeleteTheRemoved)
{
    const struct {
        const wchar_t* wszId;
        const wchar_t* wszName;
        const wchar_t* wszProperties;  // null: from the fixture
        LONG lStatus;
        LONG lTextId;
        std::vector<std::wstring> arguments;
    } probes[] = {
        {L"CPU", L"Processor", nullptr, 1, 7021, {L"<none>"}},
        {L"GPU", L"Graphics", nullptr, 1, 7206, {L"2"}},
        {L"Bay", L"Drive bay", nullptr, 1, 7306, {L"5"}},
        {L"Disk", L"Disk 0", nullptr, 1, 7101, {L"0", L"WDC WD5000", L"IDE"}},
        {L"gpu3", L"g", L"SensorId = 4099; CurrentReading = 30; UpperThresholdNonCritical = 30;", 2, 7204, {L"2"}},
        {L"idx5", L"i", L"SensorId = 261; CurrentReading = 30; LowerThresholdCritical = 30;", 3, 7307, {L"5"}},
        {L"hdd", L"h", L"SensorId = 8193; CurrentReading = 70; UpperThresholdCritical = 70; Description = \"1|S|IDE\";",
         3, 7103, {L"1", L"S", L"IDE"}},
        {L"hddlow", L"l", L"SensorId = 8194; CurrentReading = 1; LowerThresholdNonCritical = 5; Description = \"2|X\";",
         2, -1, {L"2", L"X", L""}},
        {L"hddmany", L"m", L"SensorId = 8196; CurrentReading = 1; Description = \"a|b|c|d\";", 1, 7101,
         {L"a", L"b", L"c"}},
    };
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\probes.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\hdd_enabled.mof"));
    std::wstring wsMof;
    for (const auto& p : probes)
        if (p.wszProperties)
            wsMof += std::wstring(L"instance of COXL_TemperatureProbe { DeviceID = \"") + p.wszId + L"\"; Name = \"" +
                     p.wszName + L"\"; SensorPresent = true; " + p.wszProperties + L" };\n";
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsMof, kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    std::map<std::wstring, CycleEvent> events = Cycle();
    EXPECT_EQ(events.size(), std::size(probes));
    for (const auto& p : probes) {
        const std::string sId = Narrow(p.wszId);
        const auto it = events.find(p.wszId);
        ASSERT_NE(it, events.end()) << sId;
        EXPECT_EQ(it->second.lStatus, p.lStatus) << sId;
        EXPECT_EQ(it->second.lTextId, p.lTextId) << sId;
        EXPECT_EQ(it->second.arguments, p.arguments) << sId;
        EXPECT_EQ(it->second.lType, p.lStatus == 1 ? 3 : 1) << sId << ": a first non-normal state is a rise";
        EXPECT_FALSE(it->second.bNoPut) << sId;
        EXPECT_EQ(GetText(it->second.pEvent.Get(), L"Name"), p.wszName) << sId;
        EXPECT_EQ(GetText(it->second.pEvent.Get(), L"Object"),
                  std::wstring(L"COXL_TemperatureProbe.DeviceID=\"") + p.wszId + L"\"");
    }
    EXPECT_EQ(StoredTexts("KM_Temperature_Static", L"DeviceId").size(), std::size(probes));
    // Each bad probe skipped for its own reason, the warnings only for real errors.
    const GlobalTraceLog& log = GlobalTraceLog::Get();
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because sensor not supported."), "Info");
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because unknown Temperature sensor", "2"));
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because of unsupported Temperature sensor", "-1"));
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because Could not get the current value!"));
    EXPECT_TRUE(log.Contains(uMark,
                             "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just "
                             "continue in the loop!",
                             "hr: 0x8004103e"));

    events = Cycle();
    EXPECT_EQ(events.size(), std::size(probes));
    for (const auto& [id, event] : events) {
        EXPECT_TRUE(event.bNoPut) << Narrow(id);
        EXPECT_EQ(event.lType, 3) << Narrow(id);
    }

    const auto expect = [&](const wchar_t* wszId, LONG lStatus, LONG lTextId, LONG lType, bool bNoPut) {
        const CycleEvent& event = events[wszId];
        EXPECT_EQ(event.lStatus, lStatus) << Narrow(wszId);
        EXPECT_EQ(event.lTextId, lTextId) << Narrow(wszId);
        EXPECT_EQ(event.lType, lType) << Narrow(wszId);
        EXPECT_EQ(event.bNoPut, bNoPut) << Narrow(wszId);
    };
    // The processor runs hot (a rise); the bay probe is renamed in the same state, still a change.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\changed.mof"));
    events = Cycle();
    expect(L"CPU", 3, 7017, 1, false);
    expect(L"Bay", 1, 7306, 3, false);
    EXPECT_EQ(GetText(events[L"Bay"].pEvent.Get(), L"Name"), L"Front bay");
    expect(L"GPU", 1, 7206, 3, true);
    expect(L"Disk", 1, 7101, 3, true);
    // Hotter still: the same status with another message is reported.
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of COXL_TemperatureProbe { DeviceID = \"CPU\"; Name = \"Processor\"; "
                                    L"SensorPresent = true; SensorId = 1; CurrentReading = 95; "
                                    L"UpperThresholdCritical = 70; UpperThresholdDefect = 90; };",
                                    kCimv2));
    events = Cycle();
    expect(L"CPU", 3, 7005, 3, false);
    // Cooled down again: a fall.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\probes.mof"));
    events = Cycle();
    expect(L"CPU", 1, 7021, 2, false);
    // The graphic card is taken out: no event for it, and its stored one is deleted as obsolete.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\removed.mof"));
    events = Cycle();
    EXPECT_EQ(events.size(), std::size(probes) - 1);
    EXPECT_EQ(events.count(L"GPU"), 0u);
    const std::set<std::wstring> stored = StoredTexts("KM_Temperature_Static", L"DeviceId");
    EXPECT_EQ(stored.size(), std::size(probes) - 1);
    EXPECT_EQ(stored.count(L"GPU"), 0u);
}

TEST_F(TemperatureTest, HardDiskProbesNeedAnExplicitFalseOnKmTemperature)
{
    const struct {
        const wchar_t* wszClass;  // null: no KM_Temperature at all
        bool bReported;
    } cases[] = {
        {nullptr, false},
        {L"class KM_Temperature { };", false},
        {L"[HDDSensorDeactivated(true)] class KM_Temperature { };", false},
        {L"[HDDSensorDeactivated(false)] class KM_Temperature { };", true},
    };
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\probes.mof"));
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.wszClass ? c.wszClass : L"no class"));
        if (c.wszClass) {
            ASSERT_NO_FATAL_FAILURE(LoadMof(c.wszClass, L"root\\oxl1v2\\KM_Notification"));
        }
        const size_t uMark = GlobalTraceLog::Get().Mark();
        const std::map<std::wstring, CycleEvent> events = Cycle();
        EXPECT_EQ(events.count(L"Disk"), c.bReported ? 1u : 0u);
        EXPECT_EQ(events.size(), c.bReported ? 4u : 3u);
        EXPECT_EQ(GlobalTraceLog::Get().Contains(uMark, "HDD sensor deactivated"), !c.bReported);
        if (!c.bReported) {
            EXPECT_EQ(
                TraceLevelOf(uMark, "Raising exception because SetCommonData returned WBEM_S_SOURCE_NOT_AVAILABLE."),
                "Info");
        }
    }
}

// The shared source loop: a query without data succeeds, a failed one fails the request.
TEST_F(TemperatureTest, EmptyQuerySucceedsAndAFailedQueryFails)
{
    for (const HRESULT hrFault : {S_OK, static_cast<HRESULT>(WBEM_E_ACCESS_DENIED)}) {
        if (FAILED(hrFault)) {
            ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", nullptr, 0, hrFault), S_OK);
        }
        const size_t uMark = GlobalTraceLog::Get().Mark();
        CNotfyTemperature kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        unsigned long ulCount = 0xdeadbeef;
        EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), hrFault);
        EXPECT_EQ(ulCount, 0u);
        if (SUCCEEDED(hrFault)) {
            EXPECT_EQ(TraceLevelOf(uMark, "Query did not return data. Continue with success."), "Verbose");
        } else {
            EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Error executing query",
                                                       "Query: select * from COXL_TemperatureProbe, hr: 0x80041003"));
        }
    }
}

}  // namespace
