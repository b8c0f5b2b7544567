// The voltage (id 11) and fan monitoring (id 8) kinds: their message tables, and agent cycles
// against probes and tachometers in root\cimv2.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "notifications/sensors/CNotfyFanMonitoring.h"
#include "notifications/sensors/CNotfyVoltage.h"

#include <climits>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr char kContinue[] =
    "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just continue in the loop!";

// What one event of a cycle must show.
struct Row {
    const wchar_t* wszId;
    LONG lStatus, lTextId, lType;
    bool bNoPut;
    std::vector<std::wstring> arguments = {L"<none>"};
};

template <size_t N>
void ExpectEvents(const std::map<std::wstring, CycleEvent>& events, const Row (&rows)[N], const char* szCycle)
{
    EXPECT_EQ(events.size(), N) << szCycle;
    for (const Row& row : rows) {
        const auto it = events.find(row.wszId);
        ASSERT_NE(it, events.end()) << szCycle << " " << Narrow(row.wszId);
        const CycleEvent& event = it->second;
        EXPECT_EQ(event.lStatus, row.lStatus) << szCycle << " " << Narrow(row.wszId);
        EXPECT_EQ(event.lTextId, row.lTextId) << szCycle << " " << Narrow(row.wszId);
        EXPECT_EQ(event.lType, row.lType) << szCycle << " " << Narrow(row.wszId);
        EXPECT_EQ(event.bNoPut, row.bNoPut) << szCycle << " " << Narrow(row.wszId);
        EXPECT_EQ(event.arguments, row.arguments) << szCycle << " " << Narrow(row.wszId);
    }
}

class VoltageFanTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\voltage_fan\\machine.mof"));
    }

    // The events of one agent cycle by DeviceId.
    template <class Kind>
    std::map<std::wstring, CycleEvent> Cycle()
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, S_OK);
        EXPECT_EQ(result.hrDelete, S_OK);
        std::map<std::wstring, CycleEvent> events;
        for (CycleEvent& event : result.events)
            events[GetText(event.pEvent.Get(), L"DeviceId")] = std::move(event);
        return events;
    }
};

TEST(VoltageClassify, OneFamilyWithInclusiveLimits)
{
    constexpr LONG N = LONG_MAX;  // upper limit absent
    constexpr LONG M = LONG_MIN;  // lower limit absent
    const CSensorThresholds rail = {12600, 13200, 14400, 11400, 10800, 10200};  // UNC, UC, UD, LNC, LC, LD
    const struct {
        LONG lReading;
        CSensorThresholds limits;
        unsigned long ulStatus;
        LONG lTextId;
    } cases[] = {
        {12000, {N, N, N, M, M, M}, 1, 11018},
        {12000, rail, 1, 11018},
        {12600, rail, 2, 11012},
        {13200, rail, 3, 11012},  // upper critical shares the non-critical number
        {14400, rail, 3, 11006},
        {11400, rail, 2, 11021},
        {10800, rail, 3, 11024},
        {10200, rail, 3, 11009},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        unsigned long ulStatus = 0xdeadbeef;
        LONG lTextId = 0x5a5a5a5a;
        ClassifyReading(CNotfyVoltage::kMessages, c.lReading, c.limits, &ulStatus, &lTextId);
        EXPECT_EQ(ulStatus, c.ulStatus) << "row " << i << " reading " << c.lReading;
        EXPECT_EQ(lTextId, c.lTextId) << "row " << i << " reading " << c.lReading;
    }
}

TEST(FanKinds, BitFamiliesFirstThenTheTwelveFans)
{
    const struct {
        LONG lSensorId;
        bool bFault;
        bool bKnown;
        unsigned long ulStatus;
        LONG lTextId;
        std::vector<std::wstring> arguments;
    } cases[] = {
        {0x1003, true, true, 3, 8712, {L"2"}},
        {0x1001, false, true, 1, 8711, {L"0"}},
        {0x3005, false, true, 1, 8711, {L"8196"}},  // both bits: the 0x1000 family
        {-1, true, true, 3, 8712, {L"-4098"}},      // negative ids have bit 0x1000 set
        {0x2004, false, true, 1, 8701, {L"4"}},
        {0x2001, true, true, 3, 8702, {L"1"}},
        {1, false, true, 1, 8007, {}},  {1, true, true, 3, 8008, {}},   {2, true, true, 3, 8502, {}},
        {3, false, true, 1, 8005, {}},  {3, true, true, 3, 8006, {}},   {4, false, true, 1, 8511, {}},
        {5, true, true, 3, 8522, {}},   {6, false, true, 1, 8531, {}},  {7, true, true, 3, 8542, {}},
        {8, false, true, 1, 8551, {}},  {9, true, true, 3, 8562, {}},   {10, false, true, 1, 8571, {}},
        {11, true, true, 3, 8582, {}},  {12, false, true, 1, 8591, {}}, {12, true, true, 3, 8592, {}},
        {13, true, false, 0, 0, {}},
        {0, false, false, 0, 0, {}},
        {0x100, false, false, 0, 0, {}},
    };
    for (const auto& c : cases) {
        CFanState state;
        state.ulStatus = 0xdeadbeef;
        EXPECT_EQ(CNotfyFanMonitoring::ClassifyFan(c.lSensorId, c.bFault, &state), c.bKnown) << "SensorId " << c.lSensorId;
        if (!c.bKnown) {
            EXPECT_EQ(state.ulStatus, 0xdeadbeef) << "SensorId " << c.lSensorId;
            continue;
        }
        EXPECT_EQ(state.ulStatus, c.ulStatus) << "SensorId " << c.lSensorId << " fault " << c.bFault;
        EXPECT_EQ(state.lTextId, c.lTextId) << "SensorId " << c.lSensorId << " fault " << c.bFault;
        EXPECT_EQ(state.arguments, c.arguments) << "SensorId " << c.lSensorId;
    }
}

TEST_F(VoltageFanTest, VoltageCyclesReportChangesButNotARename)
{
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const Row first[] = {{L"VCORE", 1, 11018, 3, false}, {L"V12", 1, 11018, 3, false}, {L"V5SB", 2, 11021, 1, false}};
    ExpectEvents(Cycle<CNotfyVoltage>(), first, "first");
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because of unknown Voltage sensor", "2"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because of unsupported Voltage sensor"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, kContinue, "hr: 0x8004100c"));

    const Row unchanged[] = {{L"VCORE", 1, 11018, 3, true}, {L"V12", 1, 11018, 3, true}, {L"V5SB", 2, 11021, 3, true}};
    ExpectEvents(Cycle<CNotfyVoltage>(), unchanged, "unchanged");

    // A renamed probe in the same state is no change; another message in the same status is.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\voltage_fan\\changed.mof"));
    const Row changed[] = {{L"VCORE", 3, 11024, 1, false}, {L"V12", 1, 11018, 3, true}, {L"V5SB", 2, 11012, 3, false}};
    ExpectEvents(Cycle<CNotfyVoltage>(), changed, "changed");
    EXPECT_EQ(StoredTexts("KM_Voltage_Static", L"Name"), (std::set<std::wstring>{L"CPU core", L"+12 V", L"+5 V standby"}));

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\voltage_fan\\removed.mof"));
    const Row removed[] = {{L"VCORE", 3, 11024, 3, true}, {L"V5SB", 2, 11012, 3, true}};
    ExpectEvents(Cycle<CNotfyVoltage>(), removed, "removed");
    EXPECT_EQ(StoredTexts("KM_Voltage_Static", L"DeviceId"), (std::set<std::wstring>{L"VCORE", L"V5SB"}));
}

TEST_F(VoltageFanTest, FanCyclesReportFaultsAndRecoveries)
{
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const Row first[] = {{L"FAN1", 1, 8007, 3, false},
                         {L"FAN_SYS2", 1, 8711, 3, false, {L"2"}},
                         {L"FAN_PSU", 3, 8702, 1, false, {L"4"}}};
    ExpectEvents(Cycle<CNotfyFanMonitoring>(), first, "first");
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Unknown fan", "Fan: 13"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because error getting 'FanFault' property"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, kContinue, "hr: 0x8004103e"));

    const Row unchanged[] = {{L"FAN1", 1, 8007, 3, true},
                             {L"FAN_SYS2", 1, 8711, 3, true, {L"2"}},
                             {L"FAN_PSU", 3, 8702, 3, true, {L"4"}}};
    ExpectEvents(Cycle<CNotfyFanMonitoring>(), unchanged, "unchanged");

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\voltage_fan\\changed.mof"));
    const Row changed[] = {{L"FAN1", 1, 8007, 3, true},
                           {L"FAN_SYS2", 3, 8712, 1, false, {L"2"}},
                           {L"FAN_PSU", 1, 8701, 2, false, {L"4"}}};
    ExpectEvents(Cycle<CNotfyFanMonitoring>(), changed, "changed");

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\voltage_fan\\removed.mof"));
    const Row removed[] = {{L"FAN_SYS2", 3, 8712, 3, true, {L"2"}}, {L"FAN_PSU", 1, 8701, 3, true, {L"4"}}};
    ExpectEvents(Cycle<CNotfyFanMonitoring>(), removed, "removed");
    EXPECT_EQ(StoredTexts("KM_FanMonitoring_Static", L"DeviceId"), (std::set<std::wstring>{L"FAN_SYS2", L"FAN_PSU"}));
}

TEST_F(VoltageFanTest, FanWordsTheDeviceIdFailureItsOwnWay)
{
    ASSERT_EQ(CimStoreInjectFault(L"Put", L"DeviceId", 0, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_TRUE(Cycle<CNotfyFanMonitoring>().empty());
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because SetProperty on 'DeviceId' failed.",
                                               "hr 0x80041003"));
}

}  // namespace
