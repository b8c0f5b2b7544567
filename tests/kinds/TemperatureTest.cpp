// The temperature kind: families, classification and message numbers, and agent cycles against
// probes in root\cimv2.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "access/ComHolders.h"
#include "notifications/sensors/CNotfyTemperature.h"

#include <wrl/client.h>

#include <climits>
#include <map>
#include <set>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";

// What a cycle saw of one event, copied out so that no store object outlives the cycle.
struct Event {
    LONG lStatus;
    LONG lTextId;
    LONG lType;
    bool bNoPut;
    std::wstring wsName;
    std::wstring wsObject;
    std::vector<std::wstring> arguments;  // {L"<none>"} when EventTextArguments is not set
};

class TemperatureTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
    }

    // One agent cycle: GetInstances, PutInstance of every event without NoPut, then
    // DeleteObsoleteInstances, each request on a fresh kind object as the handler does.
    std::map<std::wstring, Event> RunCycle(HRESULT* phrDelete = nullptr)
    {
        std::map<std::wstring, Event> events;
        {
            CNotfyTemperature kind;
            EXPECT_EQ(InitKind(kind), S_OK);
            unsigned long ulCount = 0;
            EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
            std::vector<IWbemClassObject*> pointers(ulCount, nullptr);
            if (ulCount) {
                EXPECT_EQ(kind.GetInstances(pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
            }
            for (IWbemClassObject* pRaw : pointers) {
                ComPtr<IWbemClassObject> pEvent;
                TakeOwnership(pEvent, pRaw);
                const Event event = {GetI4(pEvent.Get(), L"EventStatus"), GetI4(pEvent.Get(), L"EventTextId"),
                                     GetI4(pEvent.Get(), L"EventType"),   HasNoPut(pEvent.Get()),
                                     GetText(pEvent.Get(), L"Name"),      GetText(pEvent.Get(), L"Object"),
                                     GetTexts(pEvent.Get(), L"EventTextArguments")};
                EXPECT_EQ(GetI4(pEvent.Get(), L"EventId"), 7);
                if (!event.bNoPut) {
                    EXPECT_EQ(static_cast<IWbemServices*>(*m_pEvents)
                                  ->PutInstance(pEvent.Get(), WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr),
                              S_OK);
                }
                events[GetText(pEvent.Get(), L"DeviceId")] = event;
            }
        }
        CNotfyTemperature cleaner;
        EXPECT_EQ(InitKind(cleaner), S_OK);
        const HRESULT hrDelete = cleaner.DeleteObsoleteInstances();
        if (phrDelete)
            *phrDelete = hrDelete;
        return events;
    }

    std::set<std::wstring> StoredProbes()
    {
        std::set<std::wstring> ids;
        CCWMIAccess access;
        access = static_cast<IWbemServices*>(*m_pEvents);
        for (HRESULT hr = access.GetClassInstances("KM_Temperature_Static", 0); SUCCEEDED(hr);
             hr = access.GetNextWMIInstanceInEnumerator())
            ids.insert(GetText(access, L"DeviceId"));
        return ids;
    }

    void LoadMachine(bool bHddEnabled = true)
    {
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\probes.mof"));
        if (bHddEnabled) {
            ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\hdd_enabled.mof"));
        }
    }
};

TEST(TemperatureClassify, LaterTestsOverrideEarlierOnesAndLimitsAreInclusive)
{
    constexpr LONG N = LONG_MAX;  // upper limit absent
    constexpr LONG M = LONG_MIN;  // lower limit absent
    const struct {
        ETemperatureFamily family;
        LONG lReading;
        CSensorThresholds limits;  // UNC, UC, UD, LNC, LC, LD
        unsigned long ulStatus;
        LONG lTextId;
    } cases[] = {
        {ETemperatureFamily::SystemProbe, 45, {N, N, N, M, M, M}, 1, 7021},
        {ETemperatureFamily::SystemProbe, 60, {60, 70, 90, 5, 0, -20}, 2, 7013},
        {ETemperatureFamily::SystemProbe, 70, {60, 70, 90, 5, 0, -20}, 3, 7017},  // >= is inclusive
        {ETemperatureFamily::SystemProbe, 95, {60, 70, 90, 5, 0, -20}, 3, 7005},
        {ETemperatureFamily::SystemProbe, 5, {60, 70, 90, 5, 0, -20}, 2, 7025},
        {ETemperatureFamily::SystemProbe, 0, {60, 70, 90, 5, 0, -20}, 3, 7025},
        {ETemperatureFamily::SystemProbe, -20, {60, 70, 90, 5, 0, -20}, 3, 7009},
        {ETemperatureFamily::SystemProbe, 10, {5, N, N, 20, M, M}, 2, 7025},  // the lower tests come last
        {ETemperatureFamily::GraphicCard, 85, {80, 95, N, M, M, M}, 2, 7204},
        {ETemperatureFamily::GraphicCard, 99, {80, 95, 99, M, M, M}, 3, 7202},
        {ETemperatureFamily::GraphicCard, -9, {N, N, N, 5, 0, -5}, 3, 7203},
        {ETemperatureFamily::HardDisk, 61, {55, 60, 65, M, M, M}, 3, 7103},
        {ETemperatureFamily::HardDisk, 65, {55, 60, 65, M, M, M}, 3, 7104},
        {ETemperatureFamily::HardDisk, -30, {N, N, N, 5, 0, -20}, 3, -1},
        {ETemperatureFamily::IndexedProbe, 70, {50, 70, N, 10, M, M}, 3, 7305},
        {ETemperatureFamily::IndexedProbe, 90, {50, 70, 90, 10, M, M}, 3, 7302},
        {ETemperatureFamily::IndexedProbe, 2, {50, N, N, 10, 2, M}, 3, 7307},
        {ETemperatureFamily::IndexedProbe, -40, {50, N, N, 10, 2, -40}, 3, 7303},
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

// Probes written from a table, read back as events: the family's message number and its arguments.
TEST_F(TemperatureTest, EventsCarryTheFamilysNumberAndArguments)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\hdd_enabled.mof"));
    const struct {
        const wchar_t* wszId;
        const wchar_t* wszProperties;  // besides DeviceID, Name, SensorPresent
        LONG lStatus;
        LONG lTextId;
        std::vector<std::wstring> arguments;
    } cases[] = {
        {L"sys", L"SensorId = 1; CurrentReading = 30;", 1, 7021, {L"<none>"}},
        {L"gpu3", L"SensorId = 4099; CurrentReading = 30; UpperThresholdNonCritical = 30;", 2, 7204, {L"2"}},
        {L"idx5", L"SensorId = 261; CurrentReading = 30; LowerThresholdCritical = 30;", 3, 7307, {L"5"}},
        {L"hdd", L"SensorId = 8193; CurrentReading = 70; UpperThresholdCritical = 70; Description = \"1|ST31000|SATA\";",
         3, 7103, {L"1", L"ST31000", L"SATA"}},
        {L"hddlow", L"SensorId = 8194; CurrentReading = 1; LowerThresholdNonCritical = 5; Description = \"2|X\";", 2,
         -1, {L"2", L"X", L""}},
        {L"hddmany", L"SensorId = 8196; CurrentReading = 1; Description = \"a|b|c|d\";", 1, 7101, {L"a", L"b", L"c"}},
    };
    std::wstring wsMof;
    for (const auto& c : cases)
        wsMof += std::wstring(L"instance of COXL_TemperatureProbe { DeviceID = \"") + c.wszId + L"\"; Name = \"" +
                 c.wszId + L" probe\"; SensorPresent = true; " + c.wszProperties + L" };\n";
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsMof, kCimv2));

    const std::map<std::wstring, Event> events = RunCycle();
    EXPECT_EQ(events.size(), std::size(cases));
    for (const auto& c : cases) {
        const auto it = events.find(c.wszId);
        ASSERT_NE(it, events.end()) << Narrow(c.wszId);
        EXPECT_EQ(it->second.lStatus, c.lStatus) << Narrow(c.wszId);
        EXPECT_EQ(it->second.lTextId, c.lTextId) << Narrow(c.wszId);
        EXPECT_EQ(it->second.arguments, c.arguments) << Narrow(c.wszId);
        EXPECT_EQ(it->second.wsName, std::wstring(c.wszId) + L" probe");
        EXPECT_EQ(it->second.wsObject, std::wstring(L"COXL_TemperatureProbe.DeviceID=\"") + c.wszId + L"\"");
        // First report: a non-normal state is a rise, a normal one unchanged.
        EXPECT_EQ(it->second.lType, c.lStatus == 1 ? 3 : 1) << Narrow(c.wszId);
    }
}

TEST_F(TemperatureTest, AgentCyclesReportChangesMarkTheUnchangedAndDeleteTheRemoved)
{
    ASSERT_NO_FATAL_FAILURE(LoadMachine());
    const size_t uMark = GlobalTraceLog::Get().Mark();

    // First cycle: every present probe of a known family, each stored.
    std::map<std::wstring, Event> events = RunCycle();
    ASSERT_EQ(events.size(), 4u);
    for (const auto& [id, event] : events) {
        EXPECT_FALSE(event.bNoPut) << Narrow(id);
        EXPECT_EQ(event.lStatus, 1) << Narrow(id);
        EXPECT_EQ(event.lType, 3) << Narrow(id);
    }
    EXPECT_EQ(events[L"CPU"].lTextId, 7021);
    EXPECT_EQ(events[L"Disk"].arguments, (std::vector<std::wstring>{L"0", L"WDC WD5000", L"IDE"}));
    EXPECT_EQ(StoredProbes(), (std::set<std::wstring>{L"Bay", L"CPU", L"Disk", L"GPU"}));

    // The bad probes were skipped, each for its own reason, the warnings only for real errors.
    EXPECT_EQ(TraceLevelOf(uMark, "Raising exception because sensor not supported."), "Info");
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because unknown Temperature sensor", "2"));
    EXPECT_TRUE(
        GlobalTraceLog::Get().Contains(uMark, "Raising exception because of unsupported Temperature sensor", "-1"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because Could not get the current value!"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(
        uMark, "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just continue in the loop!",
        "hr: 0x8004103e"));

    // Second cycle, nothing changed: the same events, all marked NoPut.
    events = RunCycle();
    ASSERT_EQ(events.size(), 4u);
    for (const auto& [id, event] : events) {
        EXPECT_TRUE(event.bNoPut) << Narrow(id);
        EXPECT_EQ(event.lType, 3) << Narrow(id);
    }

    // The processor runs hot; the bay probe is renamed in the same state.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\changed.mof"));
    events = RunCycle();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[L"CPU"].lStatus, 3);
    EXPECT_EQ(events[L"CPU"].lTextId, 7017);
    EXPECT_EQ(events[L"CPU"].lType, 1);
    EXPECT_FALSE(events[L"CPU"].bNoPut);
    EXPECT_FALSE(events[L"Bay"].bNoPut) << "a new name is a change";
    EXPECT_EQ(events[L"Bay"].lType, 3);
    EXPECT_EQ(events[L"Bay"].wsName, L"Front bay");
    EXPECT_TRUE(events[L"GPU"].bNoPut);
    EXPECT_TRUE(events[L"Disk"].bNoPut);

    // Cooled down again: a fall.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\probes.mof"));
    events = RunCycle();
    EXPECT_EQ(events[L"CPU"].lStatus, 1);
    EXPECT_EQ(events[L"CPU"].lType, 2);
    EXPECT_FALSE(events[L"CPU"].bNoPut);

    // The graphic card is taken out: no event for it, and its stored one is deleted as obsolete.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\temperature\\removed.mof"));
    HRESULT hrDelete = E_FAIL;
    events = RunCycle(&hrDelete);
    EXPECT_EQ(hrDelete, S_OK);
    EXPECT_EQ(events.size(), 3u);
    EXPECT_EQ(StoredProbes(), (std::set<std::wstring>{L"Bay", L"CPU", L"Disk"}));
}

TEST_F(TemperatureTest, SameStatusWithAnotherMessageIsReported)
{
    ASSERT_NO_FATAL_FAILURE(LoadMachine());
    RunCycle();
    // Below the lower limit (a rise), then above the upper one: status 2 again, another message,
    // still reported; the next cycle finds it unchanged.
    const struct {
        const wchar_t* wszReading;
        LONG lTextId;
        LONG lType;
        bool bNoPut;
    } cycles[] = {{L"3", 7025, 1, false}, {L"65", 7013, 3, false}, {L"65", 7013, 3, true}};
    for (const auto& c : cycles) {
        ASSERT_NO_FATAL_FAILURE(LoadMof(std::wstring(L"instance of COXL_TemperatureProbe { DeviceID = \"CPU\"; "
                                                     L"Name = \"Processor\"; SensorPresent = true; SensorId = 1; "
                                                     L"LowerThresholdNonCritical = 5; UpperThresholdNonCritical = 60; "
                                                     L"CurrentReading = ") + c.wszReading + L"; };",
                                        kCimv2));
        std::map<std::wstring, Event> events = RunCycle();
        EXPECT_EQ(events[L"CPU"].lStatus, 2) << Narrow(c.wszReading);
        EXPECT_EQ(events[L"CPU"].lTextId, c.lTextId) << Narrow(c.wszReading);
        EXPECT_EQ(events[L"CPU"].lType, c.lType) << Narrow(c.wszReading);
        EXPECT_EQ(events[L"CPU"].bNoPut, c.bNoPut) << Narrow(c.wszReading);
    }
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
    ASSERT_NO_FATAL_FAILURE(LoadMachine(false));
    for (const auto& c : cases) {
        if (c.wszClass) {
            ASSERT_NO_FATAL_FAILURE(LoadMof(c.wszClass, L"root\\oxl1v2\\KM_Notification"));
        }
        const size_t uMark = GlobalTraceLog::Get().Mark();
        const std::map<std::wstring, Event> events = RunCycle();
        EXPECT_EQ(events.count(L"Disk"), c.bReported ? 1u : 0u) << Narrow(c.wszClass ? c.wszClass : L"no class");
        EXPECT_EQ(events.size(), c.bReported ? 4u : 3u);
        EXPECT_EQ(GlobalTraceLog::Get().Contains(uMark, "HDD sensor deactivated"), !c.bReported);
        if (!c.bReported) {
            EXPECT_EQ(TraceLevelOf(uMark,
                              "Raising exception because SetCommonData returned WBEM_S_SOURCE_NOT_AVAILABLE."),
                      "Info");
        }
    }
}

TEST_F(TemperatureTest, EmptyQuerySucceedsAndAFailedQueryFails)
{
    size_t uMark = GlobalTraceLog::Get().Mark();
    unsigned long ulCount = 0xdeadbeef;
    {
        CNotfyTemperature kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
        EXPECT_EQ(ulCount, 0u);
        EXPECT_EQ(TraceLevelOf(uMark, "Query did not return data. Continue with success."), "Verbose");
    }
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", nullptr, 0, WBEM_E_ACCESS_DENIED), S_OK);
    uMark = GlobalTraceLog::Get().Mark();
    CNotfyTemperature kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), static_cast<HRESULT>(WBEM_E_ACCESS_DENIED));
    EXPECT_EQ(ulCount, 0u);
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Error executing query",
                                               "Query: select * from COXL_TemperatureProbe, hr: 0x80041003"));
}

}  // namespace
