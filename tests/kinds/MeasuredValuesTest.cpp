// The measured-value kinds: free disk space (ids 21, 56), memory change (22), lease expiration (57).
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "notifications/inventory/CNotfyHardDisksFreeSpace.h"
#include "notifications/inventory/CNotfyLeaseExpiration.h"
#include "notifications/inventory/CNotfyMemoryChange.h"

#include <cstring>
#include <ctime>

namespace {

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kEvents[] = L"root\\oxl1v2\\KM_Notification";
constexpr LONG kUnwritten = -12345;  // what GetI4 answers for a property that is not a 32-bit integer

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
    MeasuredValuesTest() : KindTest({L"kinds\\measured\\measured_schema.mof"}) {}
    // Free MiB at or below 1024 are a warning, at or below 100 critical.
    void LoadDiskFilter(int iId)
    {
        LoadMof(L"instance of KM_Filter { Id = " + std::to_wstring(iId) + L"; LowWarning = \"1024\"; "
                L"LowCritical = \"100\"; };", kEvents);
    }
};

// The lease kind with its clock set by the test.
struct CLeaseAt : CNotfyLeaseExpiration {
    explicit CLeaseAt(__int64 llNow) : m_llNow(llNow) {}
    __int64 GetCurrentTime64() const override { return m_llNow; }
    __int64 m_llNow;
};

TEST_F(MeasuredValuesTest, FreeSpaceInMibPercentageAndState)
{
    // No free MiB: the disk yields no event.
    const struct { const wchar_t *wszId, *wszValues, *wszFreeMiB; LONG lPercent, lStatus; } cases[] = {
        {L"D:", L"FreeSpace = 53687091200; Size = 107374182400;", L"51200", 50, 1},
        {L"E:", L"FreeSpace = 1073741824; Size = 10737418240;", L"1024", 10, 2},  // limits are inclusive
        {L"F:", L"FreeSpace = 1048576000; Size = 3221225472;", L"1000", 32, 2},   // 32.55 truncated
        {L"G:", L"FreeSpace = 1048575; Size = 1073741824;", L"0", 0, 3},          // below one MiB free
        {L"H:", L"FreeSpace = 500000; Size = 1000000;", L"0", kUnwritten, 3},     // disk below one MiB
        {L"I:", L"FreeSpace = 2147483648;", L"2048", kUnwritten, 1},              // size unreadable
        {L"J:", L"FreeSpace = 18446744073709551615; Size = 18446744073709551615;", L"17592186044415", 100, 1},
        {L"K:", L"Size = 1073741824;", nullptr, 0, 0},                         // free space unreadable
        {L"", L"FreeSpace = 2147483648; Size = 4294967296;", nullptr, 0, 0},  // no drive letter
    };
    std::wstring wsMof = kSystemAndCdrom;  // the system drive belongs to the other kind, Z: is no fixed disk
    std::vector<Want> wants;
    for (const auto& c : cases) {
        wsMof += Disk(c.wszId, c.wszValues);
        if (c.wszFreeMiB)
            wants.push_back({c.wszId, c.lStatus, 21000 + c.lStatus, c.lStatus == 1 ? 3 : 1, false, {c.wszId}});
    }
    ASSERT_NO_FATAL_FAILURE(LoadMof(wsMof, kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(21));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    Events events = Cycle<CNotfyHardDisksFreeSpaceData>(L"Name");
    ExpectEvents(events, wants, "free space");
    for (const auto& c : cases) {
        if (!c.wszFreeMiB)
            continue;
        SCOPED_TRACE(Narrow(c.wszId));
        IWbemClassObject* pEvent = events.at(c.wszId).pEvent.Get();
        EXPECT_EQ(GetText(pEvent, L"FreeDiskSpace"), c.wszFreeMiB);
        EXPECT_EQ(GetI4(pEvent, L"FreeDiskPercentage"), c.lPercent);
        EXPECT_EQ(GetI4(pEvent, L"DeviceId"), static_cast<LONG>(c.wszId[0]));
        EXPECT_EQ(GetText(pEvent, L"Object"), std::wstring(L"Win32_LogicalDisk.DeviceID=\"") + c.wszId + L"\"");
    }
    EXPECT_TRUE(
        GlobalTraceLog::Get().Contains(uMark, "Raising exception because could not get the current free disk space"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because Getting 'DeviceID' failed."));
}

TEST_F(MeasuredValuesTest, SystemDriveOnlyWithLimitsAndDataDisksOverCycles)
{
    const std::wstring wsD = Disk(L"D:", L"FreeSpace = 53687091200; Size = 107374182400;");
    ASSERT_NO_FATAL_FAILURE(LoadMof(kSystemAndCdrom + wsD, kCimv2));
    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(21));
    // Without limits for 56 the state is unspecified, and the drive yields no event.
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_TRUE(Cycle<CNotfyHardDisksFreeSpaceSystem>(L"Name").empty());
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because unspecified status returned"));
    ASSERT_NO_FATAL_FAILURE(LoadDiskFilter(56));
    Events system = Cycle<CNotfyHardDisksFreeSpaceSystem>(L"Name");
    ExpectEvents(system, {{L"C:", 1, 56001, 3, false, {L"C:"}}}, "system drive");
    EXPECT_EQ(GetI4(system.at(L"C:").pEvent.Get(), L"DeviceId"), 67);
    EXPECT_EQ(GetI4(system.at(L"C:").pEvent.Get(), L"FreeDiskPercentage"), 25);
    EXPECT_EQ(StoredTexts("KM_HardDisks_FreeSpaceSystem_Static", L"Name"), std::set<std::wstring>{L"C:"});
    // D: is reported, unchanged, filled up to 50 MiB free (critical, a rise) and removed.
    const struct { std::wstring wsChange; std::vector<Want> wants; } cycles[] = {
        {L"", {{L"D:", 1, 21001, 3, false, {L"D:"}}}},
        {Disk(L"D:", L"FreeSpace = 52428800; Size = 107374182400;"), {{L"D:", 3, 21003, 1, false, {L"D:"}}}},
        {L"#pragma deleteinstance(\"Win32_LogicalDisk.DeviceID=\\\"D:\\\"\", NOFAIL)", {}},
    };
    for (const auto& cycle : cycles) {
        if (!cycle.wsChange.empty()) {
            ASSERT_NO_FATAL_FAILURE(LoadMof(cycle.wsChange, kCimv2));
        }
        ExpectEvents(Cycle<CNotfyHardDisksFreeSpaceData>(L"Name"), cycle.wants, "data disk " + Narrow(cycle.wsChange));
    }
    EXPECT_TRUE(StoredTexts("KM_HardDisks_FreeSpace_Static", L"Name").empty());
}

TEST_F(MeasuredValuesTest, MemoryComparedInMegabytesWithTolerance)
{
    // Every machine has an operating system: none is a failure. One whose size cannot be read is skipped.
    const CycleResult none = RunAgentCycle<CNotfyMemoryChange>();
    EXPECT_EQ(none.hrGet, static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE));
    EXPECT_TRUE(none.events.empty());
    ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of Win32_OperatingSystem { Name = \"Broken\"; };", kCimv2));
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const Texts kNone = {L"<none>"};
    // wszStored null: nothing stored (first row only); empty: stored without a size.
    const struct { const wchar_t *wszStored, *wszCurrent; LONG lStatus, lType; Texts args; bool bNoPut; } cases[] = {
        {nullptr, L"4194304", 1, 3, kNone, false},                  // first report
        {L"4194304", L"4194304", 1, 3, kNone, true},                // 4096 = 4096
        {L"4194304", L"4192256", 1, 3, kNone, false},               // 4094: within the tolerance, stored anew
        {L"4194304", L"4198400", 2, 5, {L"4096", L"4100"}, false},  // grown by the tolerance
        {L"4194304", L"4197376", 1, 3, kNone, false},               // 4099
        {L"4194304", L"4190208", 3, 5, {L"4096", L"4092"}, false},  // shrunk by the tolerance
        {L"2097152", L"4194304", 2, 5, {L"2048", L"4096"}, false},
        {L"4195327", L"4194804", 1, 3, kNone, true},           // both truncate to 4096 MB
        {L"2048", L"4194304", 3, 5, {L"2", L"4096"}, false},  // 2 - 4 wraps: every size counts as shrunk
        {L"", L"4194304", 3, 5, {L"0", L"4096"}, false},      // no stored size counts as 0
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("stored " + Narrow(c.wszStored ? c.wszStored : L"nothing") + " kB, current " +
                     Narrow(c.wszCurrent) + " kB");
        if (c.wszStored) {
            const std::wstring wsSize = *c.wszStored ? L"CurrentSize = " + std::wstring(c.wszStored) + L";" : L"";
            ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of KM_MemoryChange_Static { Object = \"Win32_OperatingSystem."
                                            L"Name=\\\"Windows\\\"\"; DeviceId = 1; EventStatus = 1; " +
                                                wsSize + L" };", kEvents));
        }
        ASSERT_NO_FATAL_FAILURE(LoadMof(L"instance of Win32_OperatingSystem { Name = \"Windows\"; "
                                        L"TotalVisibleMemorySize = " + std::wstring(c.wszCurrent) + L"; };", kCimv2));
        Events events = Cycle<CNotfyMemoryChange>(L"Object");
        const std::wstring wsWindows = L"Win32_OperatingSystem.Name=\"Windows\"";
        ExpectEvents(events, {{wsWindows, c.lStatus, 22000 + c.lStatus, c.lType, c.bNoPut, c.args}}, "");
        EXPECT_EQ(GetI4(events.at(wsWindows).pEvent.Get(), L"DeviceId"), 1);
        EXPECT_EQ(KeyText(events.at(wsWindows).pEvent.Get(), L"CurrentSize"), c.wszCurrent);
    }
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because Could not get the current memory "
                                                      "size"));
}

TEST_F(MeasuredValuesTest, LeaseStatusAgainstLeaseEndAndWarningPeriod)
{
    constexpr __int64 kEnd = 1767225600;  // 2026-01-01 00:00:00 UTC
    constexpr __int64 kWarn = kEnd - 30 * 86400;
    // The lease end with an optional warning period in days.
    const auto filter = [](const std::wstring& wsWarning) {
        return L"instance of KM_Filter { Id = 57; HighCritical = \"" + std::to_wstring(kEnd) + L"\"; " +
               (wsWarning.empty() ? L"" : L"HighWarning = \"" + wsWarning + L"\"; ") + L"};";
    };
    const std::wstring wsBoth = filter(L"30"), wsEndOnly = filter(L"");
    // Without a lease end (57004) there is no ExpireDate.
    const struct { std::wstring wsFilter; __int64 llNow; LONG lStatus, lTextId, lType; bool bNoPut; } cases[] = {
        {L"#pragma deleteinstance(\"KM_Filter.Id=57\", NOFAIL)", kWarn, 1, 57004, 3, false},
        {L"instance of KM_Filter { Id = 57; HighWarning = \"30\"; };", kWarn, 1, 57004, 3, true},
        {wsBoth, kWarn - 1, 1, 57001, 3, true}, {wsBoth, kWarn, 2, 57002, 1, false},  // warning starts
        {wsBoth, kEnd - 1, 2, 57002, 3, true}, {wsBoth, kEnd, 3, 57003, 1, false},    // lease ended
        {wsEndOnly, kEnd - 1, 1, 57001, 2, false}, {wsEndOnly, kEnd, 3, 57003, 1, false},  // straight from 1 to 3
        {wsEndOnly, kEnd + 86400, 3, 57003, 3, true},
        {filter(L"49711"), kEnd - 63105, 1, 57001, 2, false},  // 49711 days wrap to 63104 seconds
    };
    struct tm local = {};
    const __time64_t end = kEnd;
    ASSERT_EQ(_localtime64_s(&local, &end), 0);
    char szExpected[30] = {};
    ASSERT_NE(strftime(szExpected, sizeof(szExpected), "%Y%m%d%H%M%S.000000+000", &local), 0u);
    const std::wstring wsExpireDate(szExpected, szExpected + strlen(szExpected));
    for (const auto& c : cases) {
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        ASSERT_NO_FATAL_FAILURE(LoadMof(c.wsFilter, kEvents));
        CLeaseAt getter(c.llNow), deleter(c.llNow);
        CycleResult cycle = RunAgentCycle(getter, deleter);
        EXPECT_EQ(cycle.hrDelete, S_OK);
        Events events = ByKey(std::move(cycle), L"DeviceId");
        ExpectEvents(events, {{L"1", c.lStatus, c.lTextId, c.lType, c.bNoPut}}, "lease");
        EXPECT_EQ(GetText(events.at(L"1").pEvent.Get(), L"ExpireDate"), c.lTextId != 57004 ? wsExpireDate : L"<none>");
    }
}

}  // namespace
