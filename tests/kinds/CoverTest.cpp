// The cover kinds: the intrusion switch (id 3) and the cabinet opening with its latched intrusion
// (id 2), over agent cycles against sources in root\cimv2.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "notifications/sensors/CNotfyCoverOpening.h"
#include "notifications/sensors/CNotfyCoverSensor.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kBay[] = L"Bay \"7\" \\ rear";

// The events of one cycle by DeviceId, in the kind's order.
std::map<std::wstring, std::vector<CycleEvent>> ByDevice(CycleResult& result)
{
    std::map<std::wstring, std::vector<CycleEvent>> events;
    for (CycleEvent& event : result.events)
        events[GetText(event.pEvent.Get(), L"DeviceId")].push_back(std::move(event));
    return events;
}

class CoverTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        CNotfyCoverOpening::SetLatchFlag(true);  // as after loading the module
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
    }
    void TearDown() override
    {
        CNotfyCoverOpening::SetLatchFlag(true);
        KindTest::TearDown();
    }

    template <class Kind>
    std::map<std::wstring, std::vector<CycleEvent>> Cycle()
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, S_OK);
        EXPECT_EQ(result.hrDelete, S_OK);
        return ByDevice(result);
    }

    void SetSwitch(const wchar_t* wszId, const wchar_t* wszReading)
    {
        ASSERT_NO_FATAL_FAILURE(LoadMof(std::wstring(L"instance of COXL_IntrusionSwitch { DeviceID = \"") + wszId +
                                            L"\"; CurrentReading = " + wszReading + L"; };",
                                        kCimv2));
    }
};

TEST_F(CoverTest, SensorOutcomeBySwitchReadingAndStoredInstance)
{
    const struct {
        const wchar_t* wszId;
        const wchar_t* wszReading;  // null: CurrentReading unset
        bool bStored;
        bool bReported;
        LONG lStatus, lTextId, lType;
        bool bNoPut;
    } rows[] = {
        {L"ClosedNew", L"true", false, true, 1, 3001, 3, false},
        {L"ClosedKnown", L"true", true, true, 1, 3001, 3, true},
        {L"OpenKnown", L"false", true, true, 3, 3003, 1, false},
        {L"UnreadKnown", nullptr, true, true, 3, 3003, 1, false},
        {L"OpenNew", L"false", false, false, 0, 0, 0, false},
        {L"UnreadNew", nullptr, false, false, 0, 0, 0, false},
    };
    std::wstring wsSwitches;
    std::wstring wsStored;
    for (const auto& row : rows) {
        wsSwitches += std::wstring(L"instance of COXL_IntrusionSwitch { DeviceID = \"") + row.wszId + L"\"; " +
                      (row.wszReading ? std::wstring(L"CurrentReading = ") + row.wszReading + L";" : L"") + L" };\n";
        if (row.bStored)
            wsStored += std::wstring(L"instance of KM_CoverSensor_Static { DeviceId = \"") + row.wszId +
                        L"\"; Object = \"COXL_IntrusionSwitch.DeviceID=\\\"" + row.wszId +
                        L"\\\"\"; EventStatus = 1; EventTextId = 3001; };\n";
    }
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsSwitches, kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsStored, L"root\\oxl1v2\\KM_Notification"));
    const size_t uMark = GlobalTraceLog::Get().Mark();

    std::map<std::wstring, std::vector<CycleEvent>> events = Cycle<CNotfyCoverSensor>();
    for (const auto& row : rows) {
        const std::string sRow = Narrow(row.wszId);
        ASSERT_EQ(events[row.wszId].size(), row.bReported ? 1u : 0u) << sRow;
        if (!row.bReported)
            continue;
        const CycleEvent& event = events[row.wszId].front();
        EXPECT_EQ(event.lStatus, row.lStatus) << sRow;
        EXPECT_EQ(event.lTextId, row.lTextId) << sRow;
        EXPECT_EQ(event.lType, row.lType) << sRow;
        EXPECT_EQ(event.bNoPut, row.bNoPut) << sRow;
    }
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because no instance has to be set."), "Info");
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because Cabinet Intrusion Switch NOT plugged. It is optional, so "
                                  "don't do anything."),
              "Info");
}

TEST_F(CoverTest, SensorCyclesReportClosedOnceAndLoseTheReferenceWhenOpen)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\cover\\switches.mof"));
    const struct {
        const wchar_t* wszReading;  // null: the switch is removed
        bool bReported;
        LONG lStatus, lTextId, lType;
        bool bNoPut;
        bool bStoredAfter;
        const char* szStep;
    } cycles[] = {
        {L"true", true, 1, 3001, 3, false, true, "first closed"},
        {L"true", true, 1, 3001, 3, true, true, "unchanged"},
        {L"false", true, 3, 3003, 1, false, false, "opened: reported, reference deleted"},
        {L"true", true, 1, 3001, 3, false, true, "closed again: new"},
        {nullptr, false, 0, 0, 0, false, false, "switch removed"},
    };
    for (const auto& c : cycles) {
        if (!c.wszReading) {
            ASSERT_NO_FATAL_FAILURE(
                LoadMof(L"#pragma deleteinstance(\"COXL_IntrusionSwitch.DeviceID=\\\"Case\\\"\", NOFAIL)", kCimv2));
        } else {
            ASSERT_NO_FATAL_FAILURE(SetSwitch(L"Case", c.wszReading));
        }
        std::map<std::wstring, std::vector<CycleEvent>> events = Cycle<CNotfyCoverSensor>();
        EXPECT_EQ(events.count(L"Spare"), 0u) << c.szStep << ": an open switch never known closed";
        ASSERT_EQ(events[L"Case"].size(), c.bReported ? 1u : 0u) << c.szStep;
        if (c.bReported) {
            const CycleEvent& event = events[L"Case"].front();
            EXPECT_EQ(event.lStatus, c.lStatus) << c.szStep;
            EXPECT_EQ(event.lTextId, c.lTextId) << c.szStep;
            EXPECT_EQ(event.lType, c.lType) << c.szStep;
            EXPECT_EQ(event.bNoPut, c.bNoPut) << c.szStep;
            EXPECT_EQ(GetText(event.pEvent.Get(), L"Object"), L"COXL_IntrusionSwitch.DeviceID=\"Case\"") << c.szStep;
        }
        EXPECT_EQ(StoredTexts("KM_CoverSensor_Static", L"DeviceId").count(L"Case"), c.bStoredAfter ? 1u : 0u)
            << c.szStep;
    }
}

TEST_F(CoverTest, OpeningReportsTheLatchedIntrusionFirstAndDeletesOnAnUnpluggedSwitch)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\cover\\cabinet.mof"));
    const size_t uMark = GlobalTraceLog::Get().Mark();

    // First request after loading: the latched intrusion, then the same sensor with its current reading.
    std::map<std::wstring, std::vector<CycleEvent>> events = Cycle<CNotfyCoverOpening>();
    EXPECT_EQ(events.size(), 2u) << "unsupported and unplugged sensors give nothing";
    ASSERT_EQ(events[L"Main"].size(), 2u);
    EXPECT_EQ(events[L"Main"][0].lStatus, 3);
    EXPECT_EQ(events[L"Main"][0].lTextId, 2003);
    EXPECT_EQ(events[L"Main"][0].lType, 1);
    EXPECT_EQ(events[L"Main"][1].lStatus, 1);
    EXPECT_EQ(events[L"Main"][1].lTextId, 2001);
    EXPECT_EQ(events[L"Main"][1].lType, 2);
    // The id with a quote and a backslash still finds its switch.
    ASSERT_EQ(events[kBay].size(), 1u);
    EXPECT_EQ(events[kBay][0].lStatus, 1);
    EXPECT_EQ(events[kBay][0].lType, 3);
    EXPECT_TRUE(CNotfyCoverOpening::GetLatchFlag());
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because Cabinet Intrusion NOT supported"), "Info");
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because Cabinet Intrusion NOT supported because of missing switch"),
              "Info");
    EXPECT_EQ(StoredTexts("KM_CoverOpening_Static", L"DeviceId"), (std::set<std::wstring>{L"Main", kBay}));

    // The hardware latch is cleared: one event, unchanged against the stored one but never NoPut.
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of COXL_CabinetIntrusion { DeviceID = \"Main\"; SensorSupported = true; "
                                    L"CurrentReading = false; IntrusionWasDetected = false; };",
                                    kCimv2));
    events = Cycle<CNotfyCoverOpening>();
    ASSERT_EQ(events[L"Main"].size(), 1u);
    EXPECT_EQ(events[L"Main"][0].lType, 3);
    EXPECT_FALSE(events[L"Main"][0].bNoPut);

    // The cabinet is opened now: a rise.
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of COXL_CabinetIntrusion { DeviceID = \"Main\"; SensorSupported = true; "
                                    L"CurrentReading = true; IntrusionWasDetected = false; };",
                                    kCimv2));
    events = Cycle<CNotfyCoverOpening>();
    ASSERT_EQ(events[L"Main"].size(), 1u);
    EXPECT_EQ(events[L"Main"][0].lStatus, 3);
    EXPECT_EQ(events[L"Main"][0].lTextId, 2003);
    EXPECT_EQ(events[L"Main"][0].lType, 1);

    // Both switches unplugged: no events, and each deletion looks at the first stored instance only.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\cover\\unplugged.mof"));
    EXPECT_TRUE(Cycle<CNotfyCoverOpening>().empty());
    EXPECT_EQ(StoredTexts("KM_CoverOpening_Static", L"DeviceId").size(), 1u);
    EXPECT_TRUE(Cycle<CNotfyCoverOpening>().empty());
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
