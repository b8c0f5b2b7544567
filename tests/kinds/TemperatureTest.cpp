// The temperature, voltage (id 11) and fan monitoring (id 8) kinds: families, classification and
// message numbers, and agent cycles against probes in root\cimv2.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "notifications/sensors/CNotfyFanMonitoring.h"
#include "notifications/sensors/CNotfyTemperature.h"
#include "notifications/sensors/CNotfyVoltage.h"

#include <climits>

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";

TEST(TemperatureClassify, LaterTestsOverrideEarlierOnesAndLimitsAreInclusive)
{
    using F = ETemperatureFamily;
    constexpr LONG N = LONG_MAX;  // upper limit absent
    constexpr CSensorThresholds kSys = {60, 70, 90, 5, 0, -20};
    // limits: UNC, UC, UD, LNC, LC, LD; those left out are absent.
    const struct { F family; LONG lReading; CSensorThresholds limits; ULONG ulStatus; LONG lTextId; } cases[] = {
        {F::SystemProbe, 45, {}, 1, 7021}, {F::SystemProbe, 60, kSys, 2, 7013}, {F::SystemProbe, 70, kSys, 3, 7017},
        {F::SystemProbe, 95, kSys, 3, 7005}, {F::SystemProbe, 5, kSys, 2, 7025}, {F::SystemProbe, 0, kSys, 3, 7025},
        {F::SystemProbe, -20, kSys, 3, 7009}, {F::SystemProbe, 10, {5, N, N, 20}, 2, 7025},  // lower tests come last
        {F::GraphicCard, 85, {80, 95}, 2, 7204}, {F::GraphicCard, 99, {80, 95, 99}, 3, 7202},
        {F::GraphicCard, -9, {N, N, N, 5, 0, -5}, 3, 7203}, {F::HardDisk, 61, {55, 60, 65}, 3, 7103},
        {F::HardDisk, 65, {55, 60, 65}, 3, 7104}, {F::HardDisk, -30, {N, N, N, 5, 0, -20}, 3, -1},
        {F::IndexedProbe, 70, {50, 70, N, 10}, 3, 7305}, {F::IndexedProbe, 90, {50, 70, 90, 10}, 3, 7302},
        {F::IndexedProbe, 2, {50, N, N, 10, 2}, 3, 7307}, {F::IndexedProbe, -40, {50, N, N, 10, 2, -40}, 3, 7303},
    };
    for (const auto& c : cases) {
        const CSensorMessages* pMessages = CNotfyTemperature::GetMessages(c.family);
        ASSERT_NE(pMessages, nullptr) << "row " << (&c - cases);
        std::pair<ULONG, LONG> result(0xdeadbeef, 0x5a5a5a5a);
        ClassifyReading(*pMessages, c.lReading, c.limits, &result.first, &result.second);
        EXPECT_EQ(result, std::make_pair(c.ulStatus, c.lTextId)) << "row " << (&c - cases);
    }
}

struct TemperatureTest : KindTest {
    TemperatureTest() : KindTest({L"..\\..\\schema\\cimv2.mof"}) {}
    Events Cycle() { return KindTest::Cycle<CNotfyTemperature>(L"DeviceId"); }
};

// probes.mof has one probe of each family and four that are skipped (not present, unknown and
// unsupported family, no reading); more are added from the table.
TEST_F(TemperatureTest, AgentCyclesReportChangesMarkTheUnchangedAndDeleteTheRemoved)
{
    // wszProperties null: from the fixture.
    const struct { const wchar_t *wszId, *wszName, *wszProperties; LONG lStatus, lTextId; Texts args; } probes[] = {
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
    std::vector<Want> wants;  // a first non-normal state is a rise
    std::set<std::wstring> ids;
    for (const auto& p : probes) {
        if (p.wszProperties)
            wsMof += std::wstring(L"instance of COXL_TemperatureProbe { DeviceID = \"") + p.wszId + L"\"; Name = \"" +
                     p.wszName + L"\"; SensorPresent = true; " + p.wszProperties + L" };\n";
        wants.push_back({p.wszId, p.lStatus, p.lTextId, p.lStatus == 1 ? 3 : 1, false, p.args});
        ids.insert(p.wszId);
    }
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsMof, kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    Events events = Cycle();
    ExpectEvents(events, wants, "first");
    for (const auto& p : probes) {
        if (!events.count(p.wszId))
            continue;
        EXPECT_EQ(GetText(events[p.wszId].pEvent.Get(), L"Name"), p.wszName);
        EXPECT_EQ(GetText(events[p.wszId].pEvent.Get(), L"Object"),
                  std::wstring(L"COXL_TemperatureProbe.DeviceID=\"") + p.wszId + L"\"");
    }
    EXPECT_EQ(StoredTexts("KM_Temperature_Static", L"DeviceId"), ids);
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
    for (Want& w : wants)
        w.lType = 3, w.bNoPut = true;
    ExpectEvents(Cycle(), wants, "unchanged");
    const auto but = [&](std::vector<Want> changed) {  // every probe unchanged but these
        std::vector<Want> all = wants;
        for (Want& w : all)
            for (const Want& c : changed)
                w = c.wsKey == w.wsKey ? c : w;
        return all;
    };
    // The processor runs hot (a rise); the bay probe is renamed in the same state, still a change.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\changed.mof"));
    events = Cycle();
    ExpectEvents(events, but({{L"CPU", 3, 7017, 1, false}, {L"Bay", 1, 7306, 3, false, {L"5"}}}), "hot");
    EXPECT_EQ(GetText(events[L"Bay"].pEvent.Get(), L"Name"), L"Front bay");
    // Hotter still: the same status with another message is reported.
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of COXL_TemperatureProbe { DeviceID = \"CPU\"; Name = \"Processor\"; "
                                    L"SensorPresent = true; SensorId = 1; CurrentReading = 95; "
                                    L"UpperThresholdCritical = 70; UpperThresholdDefect = 90; };",
                                    kCimv2));
    ExpectEvents(Cycle(), but({{L"CPU", 3, 7005, 3, false}}), "hotter");
    // Cooled down again: a fall. Then the graphic card is taken out: its stored event is deleted as obsolete.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\probes.mof"));
    ExpectEvents(Cycle(), but({{L"CPU", 1, 7021, 2, false}, {L"Bay", 1, 7306, 3, false, {L"5"}}}), "cooled");
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\removed.mof"));
    wants.erase(wants.begin() + 1);
    ExpectEvents(Cycle(), wants, "removed");
    ids.erase(L"GPU");
    EXPECT_EQ(StoredTexts("KM_Temperature_Static", L"DeviceId"), ids);
}

TEST_F(TemperatureTest, HardDiskProbesNeedAnExplicitFalseOnKmTemperature)
{
    const struct { const wchar_t* wszClass; bool bReported; } cases[] = {  // null: no KM_Temperature at all
        {nullptr, false}, {L"class KM_Temperature { };", false},
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
        const Events events = Cycle();
        EXPECT_EQ(events.count(L"Disk"), c.bReported ? 1u : 0u);
        EXPECT_EQ(events.size(), c.bReported ? 4u : 3u);
        EXPECT_EQ(GlobalTraceLog::Get().Contains(uMark, "HDD sensor deactivated"), !c.bReported);
        EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because SetCommonData returned WBEM_S_SOURCE_NOT_AVAILABLE."),
                  c.bReported ? "" : "Info");
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
        EXPECT_TRUE(KindTest::Cycle<CNotfyTemperature>(L"DeviceId", hrFault).empty());
        EXPECT_EQ(TraceLevelOf(uMark, "Query did not return data. Continue with success."),
                  FAILED(hrFault) ? "" : "Verbose");
        EXPECT_EQ(GlobalTraceLog::Get().Contains(uMark, "Error executing query",
                                                 "Query: select * from COXL_TemperatureProbe, hr: 0x80041003"),
                  FAILED(hrFault));
    }
}

TEST(VoltageClassify, OneFamilyWithInclusiveLimits)
{
    const CSensorThresholds rail = {12600, 13200, 14400, 11400, 10800, 10200};  // UNC, UC, UD, LNC, LC, LD
    const struct { LONG lReading; CSensorThresholds limits; unsigned long ulStatus; LONG lTextId; } cases[] = {
        {12000, {}, 1, 11018}, {12000, rail, 1, 11018}, {12600, rail, 2, 11012},
        {13200, rail, 3, 11012},  // upper critical shares the non-critical number
        {14400, rail, 3, 11006}, {11400, rail, 2, 11021}, {10800, rail, 3, 11024}, {10200, rail, 3, 11009},
    };
    for (const auto& c : cases) {
        unsigned long ulStatus = 0xdeadbeef;
        LONG lTextId = 0x5a5a5a5a;
        ClassifyReading(CNotfyVoltage::kMessages, c.lReading, c.limits, &ulStatus, &lTextId);
        EXPECT_EQ(std::make_pair(ulStatus, lTextId), std::make_pair(c.ulStatus, c.lTextId)) << "row " << (&c - cases);
    }
}

TEST(FanKinds, BitFamiliesFirstThenTheTwelveFans)
{
    const struct { LONG lSensorId; bool bFault, bKnown; unsigned long ulStatus; LONG lTextId; Texts args; } cases[] = {
        {0x1003, true, true, 3, 8712, {L"2"}},     {0x1001, false, true, 1, 8711, {L"0"}},
        {0x3005, false, true, 1, 8711, {L"8196"}},  // both bits: the 0x1000 family
        {-1, true, true, 3, 8712, {L"-4098"}},      // negative ids have bit 0x1000 set
        {0x2004, false, true, 1, 8701, {L"4"}},     {0x2001, true, true, 3, 8702, {L"1"}},
        {1, false, true, 1, 8007, {}}, {1, true, true, 3, 8008, {}}, {3, true, true, 3, 8006, {}},
        {7, true, true, 3, 8542, {}}, {12, false, true, 1, 8591, {}}, {12, true, true, 3, 8592, {}},
        {13, true, false, 0, 0, {}}, {0, false, false, 0, 0, {}}, {0x100, false, false, 0, 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("SensorId " + std::to_string(c.lSensorId) + (c.bFault ? " fault" : ""));
        CFanState state;
        state.ulStatus = 0xdeadbeef;  // a fan that is not known leaves it
        EXPECT_EQ(CNotfyFanMonitoring::ClassifyFan(c.lSensorId, c.bFault, &state), c.bKnown);
        EXPECT_EQ(state.ulStatus, c.bKnown ? c.ulStatus : 0xdeadbeef);
        EXPECT_EQ(std::make_tuple(state.lTextId, state.arguments), std::make_tuple(c.lTextId, c.args));
    }
}

struct VoltageFanTest : KindTest {
    VoltageFanTest() : KindTest({L"..\\..\\schema\\cimv2.mof", L"kinds\\voltage_fan\\machine.mof"}) {}
};

// Both kinds over one machine: a probe renamed in the same state is no change, another message in
// the same status is; items of unknown, unsupported or unreadable sensors are skipped.
TEST_F(VoltageFanTest, CyclesReportChangesButNotARename)
{
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const struct { const wchar_t* wszChange; const char* szCycle; std::vector<Want> wants; } cycles[] = {
        {nullptr, "first",
         {{L"VCORE", 1, 11018, 3, false}, {L"V12", 1, 11018, 3, false}, {L"V5SB", 2, 11021, 1, false},
          {L"FAN1", 1, 8007, 3, false}, {L"FAN_SYS2", 1, 8711, 3, false, {L"2"}},
          {L"FAN_PSU", 3, 8702, 1, false, {L"4"}}}},
        {L"kinds\\voltage_fan\\changed.mof", "changed",
         {{L"VCORE", 3, 11024, 1, false}, {L"V12", 1, 11018, 3, true}, {L"V5SB", 2, 11012, 3, false},
          {L"FAN1", 1, 8007, 3, true}, {L"FAN_SYS2", 3, 8712, 1, false, {L"2"}},
          {L"FAN_PSU", 1, 8701, 2, false, {L"4"}}}},
        {L"kinds\\voltage_fan\\removed.mof", "removed",
         {{L"VCORE", 3, 11024, 3, true}, {L"V5SB", 2, 11012, 3, true}, {L"FAN_SYS2", 3, 8712, 3, true, {L"2"}},
          {L"FAN_PSU", 1, 8701, 3, true, {L"4"}}}},
    };
    for (const auto& cycle : cycles) {
        if (cycle.wszChange) {
            ASSERT_NO_FATAL_FAILURE(LoadFixture(cycle.wszChange)) << cycle.szCycle;
        }
        Events events = Cycle<CNotfyVoltage>(L"DeviceId");
        events.merge(Cycle<CNotfyFanMonitoring>(L"DeviceId"));
        ExpectEvents(events, cycle.wants, cycle.szCycle);
    }
    EXPECT_EQ(StoredTexts("KM_Voltage_Static", L"DeviceId"), (std::set<std::wstring>{L"VCORE", L"V5SB"}));
    EXPECT_EQ(StoredTexts("KM_FanMonitoring_Static", L"DeviceId"), (std::set<std::wstring>{L"FAN_PSU", L"FAN_SYS2"}));
    const GlobalTraceLog& log = GlobalTraceLog::Get();
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because of unknown Voltage sensor", "2"));
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because of unsupported Voltage sensor"));
    EXPECT_TRUE(log.Contains(uMark, "Catching an self-thrown HRESULT exception. This usually indicates an error, but I "
                                    "just continue in the loop!", "hr: 0x8004100c"));
    EXPECT_TRUE(log.Contains(uMark, "Unknown fan", "Fan: 13"));
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because error getting 'FanFault' property"));
    // The fan kind words a failed DeviceId its own way.
    ASSERT_EQ(CimStoreInjectFault(L"Put", L"DeviceId", 0, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uFault = log.Mark();
    EXPECT_TRUE(Cycle<CNotfyFanMonitoring>(L"DeviceId").empty());
    EXPECT_TRUE(log.Contains(uFault, "Raising exception because SetProperty on 'DeviceId' failed.", "hr 0x80041003"));
}

}  // namespace
