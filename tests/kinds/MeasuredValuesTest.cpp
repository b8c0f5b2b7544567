// The measured-value kinds: free disk space (ids 21 and 56), memory change (22) and lease
// expiration (57), against MOF machines in CimStore.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "notifications/inventory/CNotfyHardDisksFreeSpace.h"
#include "notifications/inventory/CNotfyLeaseExpiration.h"
#include "notifications/inventory/CNotfyMemoryChange.h"

#include <cstring>
#include <ctime>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kEvents[] = L"root\\oxl1v2\\KM_Notification";
constexpr LONG kUnwritten = -12345;  // what GetI4 answers for a property that is not a 32-bit integer
const std::vector<std::wstring> kNoArguments = {L"<none>"};

std::map<std::wstring, CycleEvent> ByName(const CycleResult& cycle)
{
    std::map<std::wstring, CycleEvent> events;
    for (const CycleEvent& event : cycle.events)
        events[GetText(event.pEvent.Get(), L"Name")] = event;
    return events;
}

std::wstring Disk(const std::wstring& wsId, const std::wstring& wsValues, int iDriveType = 3)
{
    return L"instance of Win32_LogicalDisk { DeviceID = \"" + wsId + L"\"; DriveType = " +
           std::to_wstring(iDriveType) + L"; " + wsValues + L" };\n";
}

// Under Wine the system directory is C:\windows\system32, so C: is the system drive.
const std::wstring kSystemAndCdrom = Disk(L"C:", L"FreeSpace = 21474836480; Size = 85899345920;") +
                                     Disk(L"Z:", L"FreeSpace = 0; Size = 734003200;", 5);

class MeasuredValuesTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\measured\\measured_schema.mof"));
    }
    // Free MiB at or below 1024 are a warning, at or below 100 critical.
    void LoadDiskFilter(int iId)
    {
        LoadMof(L"instance of KM_Filter { Id = " + std::to_wstring(iId) + L"; LowWarning = \"1024\"; "
                L"LowCritical = \"100\"; };", kEvents);
    }
};

TEST_F(MeasuredValuesTest, FreeSpaceInMibPercentageAndState)
{
    const struct {
        const wchar_t* wszId;
        const wchar_t* wszValues;
        const wchar_t* wszFreeMiB;  // null: the disk yields no event
        LONG lPercent;
        LONG lStatus;
    } cases[] = {
        {L"D:", L"FreeSpace = 53687091200; Size = 107374182400;", L"51200", 50, 1},
        {L"E:", L"FreeSpace = 1073741824; Size = 10737418240;", L"1024", 10, 2},  // limits are inclusive
        {L"F:", L"FreeSpace = 1048576000; Size = 3221225472;", L"1000", 32, 2},   // 32.55 truncated
        {L"G:", L"FreeSpace = 1048575; Size = 1073741824;", L"0", 0, 3},          // below one MiB free
        {L"H:", L"FreeSpace = 500000; Size = 1000000;", L"0", kUnwritten, 3},     // disk below one MiB
        {L"I:", L"FreeSpace = 2147483648;", L"2048", kUnwritten, 1},              // size unreadable
        {L"J:", L"FreeSpace = 18446744073709551615; Size = 18446744073709551615;", L"17592186044415", 100, 1},
        {L"K:", L"Size = 1073741824;", nullptr, 0, 0},  // free space unreadable
        {L"", L"FreeSpace = 2147483648; Size = 4294967296;", nullptr, 0, 0},  // no drive letter
    };
    std::wstring wsMof = kSystemAndCdrom;
    for (const auto& c : cases)
        wsMof += Disk(c.wszId, c.wszValues);
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsMof, kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(21));
    const size_t uMark = GlobalTraceLog::Get().Mark();

    const CycleResult cycle = RunAgentCycle<CNotfyHardDisksFreeSpaceData>();
    EXPECT_EQ(cycle.hrGet, S_OK);
    std::map<std::wstring, CycleEvent> events = ByName(cycle);
    EXPECT_EQ(events.size(), 7u);
    EXPECT_EQ(events.count(L"C:"), 0u) << "the system drive belongs to the other kind";
    EXPECT_EQ(events.count(L"Z:"), 0u) << "not a fixed disk";
    for (const auto& c : cases) {
        const std::string sRow = "disk '" + Narrow(c.wszId) + "'";
        if (!c.wszFreeMiB) {
            EXPECT_EQ(events.count(c.wszId), 0u) << sRow;
            continue;
        }
        ASSERT_EQ(events.count(c.wszId), 1u) << sRow;
        const CycleEvent& e = events[c.wszId];
        IWbemClassObject* pEvent = e.pEvent.Get();
        EXPECT_EQ(GetText(pEvent, L"FreeDiskSpace"), c.wszFreeMiB) << sRow;
        EXPECT_EQ(GetI4(pEvent, L"FreeDiskPercentage"), c.lPercent) << sRow;
        EXPECT_EQ(e.lStatus, c.lStatus) << sRow;
        EXPECT_EQ(e.lTextId, 21000 + c.lStatus) << sRow;
        EXPECT_EQ(e.lType, c.lStatus == 1 ? 3 : 1) << sRow;
        EXPECT_EQ(e.arguments, std::vector<std::wstring>{c.wszId}) << sRow;
        EXPECT_EQ(GetI4(pEvent, L"DeviceId"), static_cast<LONG>(c.wszId[0])) << sRow;
        EXPECT_EQ(GetText(pEvent, L"Object"), std::wstring(L"Win32_LogicalDisk.DeviceID=\"") + c.wszId + L"\"")
            << sRow;
    }
    EXPECT_TRUE(
        GlobalTraceLog::Get().Contains(uMark, "Raising exception because could not get the current free disk space"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because Getting 'DeviceID' failed."));
}

TEST_F(MeasuredValuesTest, SystemDriveOnlyInItsOwnKindAndOnlyWithLimits)
{
    ASSERT_NO_FATAL_FAILURE(LoadMof(kSystemAndCdrom + Disk(L"D:", L"FreeSpace = 53687091200;"), kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(21));

    // Without limits for 56 the state is unspecified, and the drive yields no event.
    size_t uMark = GlobalTraceLog::Get().Mark();
    CycleResult cycle = RunAgentCycle<CNotfyHardDisksFreeSpaceSystem>();
    EXPECT_EQ(cycle.hrGet, S_OK);
    EXPECT_TRUE(cycle.events.empty());
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because unspecified status returned"));

    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(56));
    cycle = RunAgentCycle<CNotfyHardDisksFreeSpaceSystem>();
    ASSERT_EQ(cycle.events.size(), 1u);
    EXPECT_EQ(GetText(cycle.events[0].pEvent.Get(), L"Name"), L"C:");
    EXPECT_EQ(GetI4(cycle.events[0].pEvent.Get(), L"DeviceId"), 67);
    EXPECT_EQ(GetI4(cycle.events[0].pEvent.Get(), L"FreeDiskPercentage"), 25);
    EXPECT_EQ(cycle.events[0].lTextId, 56001);
    EXPECT_EQ(StoredTexts("KM_HardDisks_FreeSpaceSystem_Static", L"Name"), std::set<std::wstring>{L"C:"});

    cycle = RunAgentCycle<CNotfyHardDisksFreeSpaceData>();
    ASSERT_EQ(cycle.events.size(), 1u);
    EXPECT_EQ(GetText(cycle.events[0].pEvent.Get(), L"Name"), L"D:");
    EXPECT_EQ(StoredTexts("KM_HardDisks_FreeSpace_Static", L"Name"), std::set<std::wstring>{L"D:"});
}

TEST_F(MeasuredValuesTest, FreeSpaceCyclesReportTheChangeAndDeleteTheRemovedDisk)
{
    const std::wstring wsE = Disk(L"E:", L"FreeSpace = 10737418240; Size = 21474836480;");
    ASSERT_NO_FATAL_FAILURE(LoadMof(Disk(L"D:", L"FreeSpace = 53687091200; Size = 107374182400;") + wsE, kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(21));
    EXPECT_EQ(RunAgentCycle<CNotfyHardDisksFreeSpaceData>().events.size(), 2u);

    std::map<std::wstring, CycleEvent> events = ByName(RunAgentCycle<CNotfyHardDisksFreeSpaceData>());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_TRUE(events[L"D:"].bNoPut);
    EXPECT_TRUE(events[L"E:"].bNoPut);

    // D: fills up to 50 MiB free: critical, a rise.
    ASSERT_NO_FATAL_FAILURE(LoadMof(Disk(L"D:", L"FreeSpace = 52428800; Size = 107374182400;"), kCimv2));
    events = ByName(RunAgentCycle<CNotfyHardDisksFreeSpaceData>());
    EXPECT_EQ(events[L"D:"].lStatus, 3);
    EXPECT_EQ(events[L"D:"].lTextId, 21003);
    EXPECT_EQ(events[L"D:"].lType, 1);
    EXPECT_FALSE(events[L"D:"].bNoPut);
    EXPECT_TRUE(events[L"E:"].bNoPut);

    ASSERT_NO_FATAL_FAILURE(
        LoadMof(L"#pragma deleteinstance(\"Win32_LogicalDisk.DeviceID=\\\"E:\\\"\", NOFAIL)", kCimv2));
    const CycleResult cycle = RunAgentCycle<CNotfyHardDisksFreeSpaceData>();
    EXPECT_EQ(cycle.hrDelete, S_OK);
    EXPECT_EQ(cycle.events.size(), 1u);
    EXPECT_EQ(StoredTexts("KM_HardDisks_FreeSpace_Static", L"Name"), std::set<std::wstring>{L"D:"});
}

TEST_F(MeasuredValuesTest, MemoryComparedInMegabytesWithTolerance)
{
    constexpr wchar_t kObject[] = L"Win32_OperatingSystem.Name=\\\"Windows\\\"";
    const struct {
        const wchar_t* wszStoredKb;  // null: nothing stored (first row only); empty: stored without a size
        const wchar_t* wszCurrentKb;
        LONG lStatus;
        LONG lType;
        std::vector<std::wstring> arguments;
        bool bNoPut;
    } cases[] = {
        {nullptr, L"4194304", 1, 3, kNoArguments, false},          // first report
        {L"4194304", L"4194304", 1, 3, kNoArguments, true},        // 4096 = 4096
        {L"4194304", L"4192256", 1, 3, kNoArguments, false},       // 4094: within the tolerance, stored anew
        {L"4194304", L"4198400", 2, 5, {L"4096", L"4100"}, false},  // grown by the tolerance
        {L"4194304", L"4197376", 1, 3, kNoArguments, false},       // 4099
        {L"4194304", L"4190208", 3, 5, {L"4096", L"4092"}, false},  // shrunk by the tolerance
        {L"2097152", L"4194304", 2, 5, {L"2048", L"4096"}, false},
        {L"4195327", L"4194804", 1, 3, kNoArguments, true},  // both truncate to 4096 MB
        {L"2048", L"4194304", 3, 5, {L"2", L"4096"}, false},  // 2 - 4 wraps: every size counts as shrunk
        {L"", L"4194304", 3, 5, {L"0", L"4096"}, false},      // no stored size counts as 0
    };
    for (const auto& c : cases) {
        const std::string sRow = "stored " + Narrow(c.wszStoredKb ? c.wszStoredKb : L"nothing") + " kB, current " +
                                 Narrow(c.wszCurrentKb) + " kB";
        if (c.wszStoredKb) {
            const std::wstring wsSize = *c.wszStoredKb ? L"CurrentSize = " + std::wstring(c.wszStoredKb) + L";" : L"";
            ASSERT_NO_FATAL_FAILURE(LoadMof(std::wstring(L"instance of KM_MemoryChange_Static { Object = \"") +
                                                kObject + L"\"; DeviceId = 1; EventStatus = 1; " + wsSize + L" };",
                                            kEvents));
        }
        ASSERT_NO_FATAL_FAILURE(LoadMof(std::wstring(L"instance of Win32_OperatingSystem { Name = \"Windows\"; "
                                                     L"TotalVisibleMemorySize = ") +
                                            c.wszCurrentKb + L"; };",
                                        kCimv2));
        const CycleResult cycle = RunAgentCycle<CNotfyMemoryChange>();
        ASSERT_EQ(cycle.events.size(), 1u) << sRow;
        const CycleEvent& e = cycle.events[0];
        EXPECT_EQ(e.lStatus, c.lStatus) << sRow;
        EXPECT_EQ(e.lTextId, 22000 + c.lStatus) << sRow;
        EXPECT_EQ(e.lType, c.lType) << sRow;
        EXPECT_EQ(e.arguments, c.arguments) << sRow;
        EXPECT_EQ(e.bNoPut, c.bNoPut) << sRow;
        EXPECT_EQ(GetI4(e.pEvent.Get(), L"DeviceId"), 1) << sRow;
        EXPECT_EQ(std::to_wstring(GetI4(e.pEvent.Get(), L"CurrentSize")), c.wszCurrentKb) << sRow;
    }
}

TEST_F(MeasuredValuesTest, MemoryWithoutAnOperatingSystemFailsAndABadOneIsSkipped)
{
    CycleResult cycle = RunAgentCycle<CNotfyMemoryChange>();
    EXPECT_EQ(cycle.hrGet, static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_TRUE(cycle.events.empty());

    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of Win32_OperatingSystem { Name = \"Broken\"; };\n"
                                    L"instance of Win32_OperatingSystem { Name = \"Windows\"; "
                                    L"TotalVisibleMemorySize = 8388608; };",
                                    kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    cycle = RunAgentCycle<CNotfyMemoryChange>();
    EXPECT_EQ(cycle.hrGet, S_OK);
    ASSERT_EQ(cycle.events.size(), 1u);
    EXPECT_EQ(GetText(cycle.events[0].pEvent.Get(), L"Object"), L"Win32_OperatingSystem.Name=\"Windows\"");
    EXPECT_TRUE(
        GlobalTraceLog::Get().Contains(uMark, "Raising exception because Could not get the current memory size"));
}

// The lease kind with its clock set by the test.
class CLeaseAt : public CNotfyLeaseExpiration {
public:
    explicit CLeaseAt(__int64 llNow) : m_llNow(llNow) {}

protected:
    __int64 GetCurrentTime64() const override { return m_llNow; }

private:
    __int64 m_llNow;
};

TEST_F(MeasuredValuesTest, LeaseStatusAgainstLeaseEndAndWarningPeriod)
{
    constexpr __int64 kEnd = 1767225600;  // 2026-01-01 00:00:00 UTC
    constexpr __int64 kWarn = kEnd - 30 * 86400;
    // The lease end with an optional warning period in days.
    const auto filter = [](const std::wstring& wsWarning) {
        return L"instance of KM_Filter { Id = 57; HighCritical = \"" + std::to_wstring(kEnd) + L"\"; " +
               (wsWarning.empty() ? L"" : L"HighWarning = \"" + wsWarning + L"\"; ") + L"};";
    };
    const std::wstring wsBoth = filter(L"30");
    const std::wstring wsEndOnly = filter(L"");
    const std::wstring wsWrapping = filter(L"49711");
    const struct {
        std::wstring wsFilter;
        __int64 llNow;
        LONG lStatus;
        LONG lTextId;
        bool bExpireDate;
        LONG lType;
        bool bNoPut;
    } cases[] = {
        {L"#pragma deleteinstance(\"KM_Filter.Id=57\", NOFAIL)", kWarn, 1, 57004, false, 3, false},
        {L"instance of KM_Filter { Id = 57; HighWarning = \"30\"; };", kWarn, 1, 57004, false, 3, true},
        {wsBoth, kWarn - 1, 1, 57001, true, 3, true},
        {wsBoth, kWarn, 2, 57002, true, 1, false},  // warning starts
        {wsBoth, kEnd - 1, 2, 57002, true, 3, true},
        {wsBoth, kEnd, 3, 57003, true, 1, false},  // lease ended
        {wsEndOnly, kEnd - 1, 1, 57001, true, 2, false},
        {wsEndOnly, kEnd, 3, 57003, true, 1, false},  // straight from 1 to 3
        {wsEndOnly, kEnd + 86400, 3, 57003, true, 3, true},
        {wsWrapping, kEnd - 63105, 1, 57001, true, 2, false},  // 49711 days wrap to 63104 seconds
    };
    struct tm local = {};
    const __time64_t end = kEnd;
    ASSERT_EQ(_localtime64_s(&local, &end), 0);
    char szExpected[30] = {};
    ASSERT_NE(strftime(szExpected, sizeof(szExpected), "%Y%m%d%H%M%S.000000+000", &local), 0u);
    const std::wstring wsExpireDate(szExpected, szExpected + strlen(szExpected));

    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        ASSERT_NO_FATAL_FAILURE(LoadMof(c.wsFilter, kEvents));
        CLeaseAt getter(c.llNow);
        CLeaseAt deleter(c.llNow);
        const CycleResult cycle = RunAgentCycle(getter, deleter);
        ASSERT_EQ(cycle.events.size(), 1u) << "row " << i;
        const CycleEvent& e = cycle.events[0];
        EXPECT_EQ(e.lStatus, c.lStatus) << "row " << i;
        EXPECT_EQ(e.lTextId, c.lTextId) << "row " << i;
        EXPECT_EQ(e.lType, c.lType) << "row " << i;
        EXPECT_EQ(e.bNoPut, c.bNoPut) << "row " << i;
        EXPECT_EQ(e.arguments, kNoArguments) << "row " << i;
        EXPECT_EQ(GetI4(e.pEvent.Get(), L"DeviceId"), 1) << "row " << i;
        EXPECT_EQ(GetText(e.pEvent.Get(), L"ExpireDate"), c.bExpireDate ? wsExpireDate : L"<none>") << "row " << i;
        EXPECT_EQ(cycle.hrDelete, S_OK) << "row " << i;
    }
}

}  // namespace
