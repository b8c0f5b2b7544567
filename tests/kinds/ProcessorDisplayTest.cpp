// The processor (id 58), display (id 60) and physical hard disk (id 65) change kinds over agent
// cycles against MOF machines in CimStore.
#include "KindTestSupport.h"

#include "TempDir.h"
#include "TestRegistryKey.h"

#include "notifications/inventory/CNotfyDisplayChange.h"
#include "notifications/inventory/CNotfyPhysicalHDDChange.h"
#include "notifications/inventory/CNotfyProcessorChange.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr char kDisplaySettings[] =
    "SOFTWARE\\Tessaline Systems\\Larkspan\\Infrastructure\\Notification\\Moradel.dll\\NotificationId\\60";
constexpr wchar_t kStepping10[] = L"Intel64 Family 6 Model 158 Stepping 10";
constexpr wchar_t kStepping13[] = L"Intel64 Family 6 Model 158 Stepping 13";
constexpr wchar_t kDell[] = L"DELL U2419H";
constexpr wchar_t kHp[] = L"HP E243";
// Unescaped, this serial number would turn the removal search into "... = "Z" or SerialNumber <> """.
constexpr wchar_t kHostileSerial[] = L"Z\\\" or SerialNumber <> \"";

struct ExpectedEvent {
    LONG lType, lStatus, lTextId;
    bool bNoPut;
    std::vector<std::wstring> arguments;
};
using Events = std::map<std::wstring, CycleEvent>;

void ExpectCycle(const Events& events, const std::map<std::wstring, ExpectedEvent>& rows, const char* szCycle)
{
    EXPECT_EQ(events.size(), rows.size()) << szCycle;
    for (const auto& [wsKey, row] : rows) {
        const auto it = events.find(wsKey);
        ASSERT_NE(it, events.end()) << szCycle << " " << Narrow(wsKey);
        const CycleEvent& event = it->second;
        EXPECT_EQ(event.lType, row.lType) << szCycle << " " << Narrow(wsKey);
        EXPECT_EQ(event.lStatus, row.lStatus) << szCycle << " " << Narrow(wsKey);
        EXPECT_EQ(event.lTextId, row.lTextId) << szCycle << " " << Narrow(wsKey);
        EXPECT_EQ(event.bNoPut, row.bNoPut) << szCycle << " " << Narrow(wsKey);
        EXPECT_EQ(event.arguments, row.arguments) << szCycle << " " << Narrow(wsKey);
    }
}

class ProcessorDisplayTest : public KindTest {
protected:
    // The events of one agent cycle by their key property (numbers as decimal text).
    template <class Kind>
    Events Cycle(const wchar_t* wszKey)
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, S_OK) << std::hex << result.hrGet;
        EXPECT_EQ(result.hrDelete, S_OK) << std::hex << result.hrDelete;
        Events events;
        for (CycleEvent& event : result.events) {
            VARTYPE vt = VT_EMPTY;
            const LONG lKey = GetI4(event.pEvent.Get(), wszKey, &vt);
            const std::wstring wsKey = vt == VT_I4 ? std::to_wstring(lKey) : GetText(event.pEvent.Get(), wszKey);
            events[wsKey] = std::move(event);
        }
        return events;
    }
};

TEST(ProcessorChangeRules, ProcessorNumberIsTheLeadingDigitsBehindCpu)
{
    const struct {
        const wchar_t* wszDeviceId;
        LONG lNumber;
    } rows[] = {
        {L"CPU0", 0},         {L"CPU3", 3},        {L"CPU12 socket", 12},
        {L"Socket CPU7", 7},  {L"5", 5},           {L"CPU", 0},
        {L"Socket", 0},       {L"cpu4", 0},        {L"CPU1CPU2", 1},
        {L"CPU99999999999999999999", 2147483647},
    };
    for (const auto& row : rows)
        EXPECT_EQ(CNotfyProcessorChange::GetProcessorNumber(row.wszDeviceId), row.lNumber) << Narrow(row.wszDeviceId);
}

TEST(ProcessorChangeRules, ProcessorIdsDifferOnlyWhenBothAreReported)
{
    const struct {
        const wchar_t* wszStored;
        const wchar_t* wszCurrent;
        bool bDiffer;
    } rows[] = {
        {L"BFEBFBFF000906EA", L"BFEBFBFF000906EA", false},
        {L"BFEBFBFF000906EA", L"bfebfbff000906ea", false},
        {L"BFEBFBFF000906EA", L"BFEBFBFF000906ED", true},
        {L"BFEBFBFF000906EA", L"BFEBFBFF000906EA0", true},
        {L"", L"BFEBFBFF000906EA", false},
        {L"BFEBFBFF000906EA", L"", false},
        {L"", L"", false},
        {L"\u00c4", L"\u00e4", true},  // only A to Z fold
    };
    for (const auto& row : rows)
        EXPECT_EQ(CNotfyProcessorChange::ProcessorIdsDiffer(row.wszStored, row.wszCurrent), row.bDiffer)
            << Narrow(row.wszStored) << " / " << Narrow(row.wszCurrent);
}

TEST_F(ProcessorDisplayTest, ProcessorFirstUnchangedUpgradedAddedRemoved)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Inventory.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\processor\\processors.mof"));
    const auto Processors = [this]() { return Cycle<CNotfyProcessorChange>(L"DeviceId"); };

    Events first = Processors();
    ExpectCycle(first, {{L"0", {3, 1, 58001, false, {kStepping10, L"3300"}}}}, "first");
    IWbemClassObject* pCpu0 = first[L"0"].pEvent.Get();
    ASSERT_NE(pCpu0, nullptr);
    EXPECT_EQ(GetText(pCpu0, L"Object"), L"COXL_PhysicalProcessor.DeviceID=\"CPU0\"");
    EXPECT_EQ(GetI4(pCpu0, L"FamilyId"), 179);
    EXPECT_EQ(GetI4(pCpu0, L"MaxSpeed"), 3300);

    ExpectCycle(Processors(), {{L"0", {3, 1, 58001, true, {kStepping10, L"3300"}}}}, "unchanged");

    // A new stepping in socket 0 is one change with the stored name and speed, not an addition and a removal.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\processor\\upgraded.mof"));
    ExpectCycle(Processors(),
                {{L"0", {5, 2, 58004, false, {kStepping13, L"3300", kStepping10, L"3300"}}},
                 {L"1", {5, 2, 58002, false, {kStepping13, L"3300"}}}},
                "upgraded");

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\processor\\removed.mof"));
    ExpectCycle(Processors(),
                {{L"0", {3, 1, 58001, true, {kStepping13, L"3300"}}},
                 {L"1", {5, 3, 58003, false, {kStepping13, L"3300"}}}},
                "removed");
    EXPECT_EQ(StoredTexts("KM_ProcessorChange_Static", L"ProcessorId"),
              (std::set<std::wstring>{L"BFEBFBFF000906ED"}));
}

TEST_F(ProcessorDisplayTest, DisplayFirstCallUnchangedAddedRemoved)
{
    const TestRegistryKey settings(kDisplaySettings);  // the kind has never run on this installation
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\enclosure.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\monitors.mof"));
    const auto Displays = [this]() { return Cycle<CNotfyDisplayChange>(L"Serialnumber"); };

    // The first call is a first inventory even for the monitor stored before it. Neither the monitor
    // without a serial number nor the one without a desktop monitor is reported or numbered.
    Events first = Displays();
    ExpectCycle(first,
                {{L"CN0ABC", {3, 1, 60001, false, {kDell, L"CN0ABC"}}},
                 {L"CN0DEF", {3, 1, 60001, false, {kDell, L"CN0DEF"}}},
                 {kHostileSerial, {3, 1, 60001, false, {kHp, kHostileSerial}}}},
                "first");
    std::set<LONG> deviceIds;
    for (const auto& [wsSerial, event] : first)
        deviceIds.insert(GetI4(event.pEvent.Get(), L"DeviceId"));
    EXPECT_EQ(deviceIds, (std::set<LONG>{1, 2, 3}));
    ASSERT_EQ(first.count(L"CN0DEF"), 1u);
    EXPECT_EQ(GetText(first[L"CN0DEF"].pEvent.Get(), L"ObjectClass"), L"COXL_MonitorEnclosure");
    DWORD dwType = REG_NONE;
    DWORD dwCalled = 0;
    DWORD cbCalled = sizeof(dwCalled);
    EXPECT_EQ(RegGetValueA(HKEY_LOCAL_MACHINE, kDisplaySettings, "AlreadyCalled", RRF_RT_ANY, &dwType, &dwCalled,
                           &cbCalled),
              ERROR_SUCCESS);
    EXPECT_EQ(dwType, static_cast<DWORD>(REG_DWORD));
    EXPECT_EQ(dwCalled, 1u);

    ExpectCycle(Displays(),
                {{L"CN0ABC", {3, 1, 60001, true, {kDell, L"CN0ABC"}}},
                 {L"CN0DEF", {3, 1, 60001, true, {kDell, L"CN0DEF"}}},
                 {kHostileSerial, {3, 1, 60001, true, {kHp, kHostileSerial}}}},
                "unchanged");

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\changed.mof"));
    ExpectCycle(Displays(),
                {{L"CN0ABC", {3, 1, 60001, true, {kDell, L"CN0ABC"}}},
                 {L"CN0DEF", {3, 1, 60001, true, {kDell, L"CN0DEF"}}},
                 {L"CN0GHI", {5, 2, 60002, false, {kDell, L"CN0GHI"}}},
                 {kHostileSerial, {5, 3, 60003, false, {kHp, kHostileSerial}}}},
                "changed");
    EXPECT_EQ(StoredTexts("KM_DisplayChange_Static", L"Serialnumber"),
              (std::set<std::wstring>{L"CN0ABC", L"CN0DEF", L"CN0GHI"}));
}

TEST_F(ProcessorDisplayTest, DisplaysAreWatchedOnDesktopChassisOnly)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\display\\enclosure.mof"));
    const struct {
        const wchar_t* wszEnclosure;
        bool bSupported;
        const char* szRow;
    } rows[] = {
        {L"instance of Win32_SystemEnclosure { Tag = \"System Enclosure 0\"; ChassisTypes = {10}; };", false,
         "notebook"},
        {L"instance of Win32_SystemEnclosure { Tag = \"System Enclosure 0\"; ChassisTypes = {3}; };", true, "desktop"},
        {L"instance of Win32_SystemEnclosure { Tag = \"System Enclosure 0\"; ChassisTypes = {3, 9}; };", false,
         "a laptop type among others"},
        {L"instance of Win32_SystemEnclosure { Tag = \"System Enclosure 0\"; ChassisTypes = NULL; };", false,
         "unreadable chassis types"},
        {L"#pragma deleteinstance(\"Win32_SystemEnclosure.Tag=\\\"System Enclosure 0\\\"\", NOFAIL)", false,
         "no enclosure"},
    };
    for (const auto& row : rows) {
        ASSERT_NO_FATAL_FAILURE(LoadMof(row.wszEnclosure, L"root\\cimv2")) << row.szRow;
        CNotfyDisplayChange kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        EXPECT_EQ(kind.IsSupported(), row.bSupported) << row.szRow;
    }
}

TEST_F(ProcessorDisplayTest, PhysicalDisksAnswerNotSupported)
{
    LoadMof(L"instance of KM_PhysicalHDDChange_Static { Object = \"COXL_PhysicalHardDisk.DeviceID=\\\"Disk0\\\"\"; "
            L"DeviceId = 1; };",
            L"root\\oxl1v2\\KM_Notification");
    const CycleResult result = RunAgentCycle<CNotfyPhysicalHDDChange>();
    EXPECT_EQ(result.hrGet, static_cast<HRESULT>(WBEM_E_NOT_SUPPORTED)) << std::hex << result.hrGet;
    EXPECT_TRUE(result.events.empty());
    // The base ignores what the obsolete scan answers and deletes its empty list.
    EXPECT_EQ(result.hrDelete, S_OK) << std::hex << result.hrDelete;
    EXPECT_EQ(StoredTexts("KM_PhysicalHDDChange_Static", L"Object"),
              (std::set<std::wstring>{L"COXL_PhysicalHardDisk.DeviceID=\"Disk0\""}));
}

}  // namespace
