// The voltage (id 11) and fan monitoring (id 8) kinds: message tables and agent cycles.
#include "KindScenario.h"

#include "GlobalTraceLog.h"
#include "notifications/sensors/CNotfyFanMonitoring.h"
#include "notifications/sensors/CNotfyVoltage.h"

namespace {

constexpr char kContinue[] =
    "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just continue in the loop!";

TEST(VoltageClassify, OneFamilyWithInclusiveLimits)
{
    const CSensorThresholds rail = {12600, 13200, 14400, 11400, 10800, 10200};  // UNC, UC, UD, LNC, LC, LD
    const struct { LONG lReading; CSensorThresholds limits; unsigned long ulStatus; LONG lTextId; } cases[] = {
        {12000, {}, 1, 11018},  // no limits
         {12000, rail, 1, 11018}, {12600, rail, 2, 11012},
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
        {1, false, true, 1, 8007, {}},  {1, true, true, 3, 8008, {}},   {2, true, true, 3, 8502, {}},
        {3, false, true, 1, 8005, {}},  {3, true, true, 3, 8006, {}},   {4, false, true, 1, 8511, {}},
        {5, true, true, 3, 8522, {}},   {6, false, true, 1, 8531, {}},  {7, true, true, 3, 8542, {}},
        {8, false, true, 1, 8551, {}},  {9, true, true, 3, 8562, {}},   {10, false, true, 1, 8571, {}},
        {11, true, true, 3, 8582, {}},  {12, false, true, 1, 8591, {}}, {12, true, true, 3, 8592, {}},
        {13, true, false, 0, 0, {}},    {0, false, false, 0, 0, {}},    {0x100, false, false, 0, 0, {}},
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

struct VoltageFanTest : KindScenario {
    VoltageFanTest() : KindScenario({L"..\\..\\schema\\cimv2.mof", L"kinds\\voltage_fan\\machine.mof"}) {}
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
        {nullptr, "unchanged",
         {{L"VCORE", 1, 11018, 3, true}, {L"V12", 1, 11018, 3, true}, {L"V5SB", 2, 11021, 3, true},
          {L"FAN1", 1, 8007, 3, true}, {L"FAN_SYS2", 1, 8711, 3, true, {L"2"}},
          {L"FAN_PSU", 3, 8702, 3, true, {L"4"}}}},
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
    EXPECT_TRUE(log.Contains(uMark, kContinue, "hr: 0x8004100c"));
    EXPECT_TRUE(log.Contains(uMark, "Unknown fan", "Fan: 13"));
    EXPECT_TRUE(log.Contains(uMark, "Raising exception because error getting 'FanFault' property"));
    EXPECT_TRUE(log.Contains(uMark, kContinue, "hr: 0x8004103e"));
    // The fan kind words a failed DeviceId its own way.
    ASSERT_EQ(CimStoreInjectFault(L"Put", L"DeviceId", 0, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uFault = log.Mark();
    EXPECT_TRUE(Cycle<CNotfyFanMonitoring>(L"DeviceId").empty());
    EXPECT_TRUE(log.Contains(uFault, "Raising exception because SetProperty on 'DeviceId' failed.", "hr 0x80041003"));
}

}  // namespace
