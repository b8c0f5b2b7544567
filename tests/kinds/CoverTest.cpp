// The cover kinds over agent cycles: intrusion switch (id 3), cabinet opening with its latch (id 2).
#include "KindScenario.h"

#include "GlobalTraceLog.h"
#include "notifications/sensors/CNotfyCoverOpening.h"
#include "notifications/sensors/CNotfyCoverSensor.h"

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kBay[] = L"Bay \"7\" \\ rear";

std::wstring Switch(const std::wstring& wsId, const wchar_t* wszReading)
{
    return L"instance of COXL_IntrusionSwitch { DeviceID = \"" + wsId + L"\"; " +
           (wszReading ? L"CurrentReading = " + std::wstring(wszReading) + L";" : L"") + L" };\n";
}

class CoverTest : public KindScenario {
protected:
    // The latch flag as after loading the module.
    CoverTest() : KindScenario({L"..\\..\\schema\\cimv2.mof"}) { CNotfyCoverOpening::SetLatchFlag(true); }
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
        {L"true", true, "unchanged", {{L"Case", 1, 3001, 3, true}}},
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
