// The common block of every event: id, time with the zone offset, machine names, UUID, address.
// Winsock 2 before windows.h, which would bring the old winsock.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "core/CNotificationModify.h"

#include <cstdio>
#include <thread>

namespace {

using CommonDataTest = KindTest;

// Puts the platform calls back after a test replaced some.
struct PlatformOverride {
    CCommonDataPlatform saved = CommonDataPlatform();
    ~PlatformOverride() { CommonDataPlatform() = saved; }
};

// Standard time with a standard bias of its own, which the daylight bias would change.
DWORD WINAPI StandardTimeWithItsOwnBias(LPTIME_ZONE_INFORMATION ptzi)
{
    *ptzi = {};
    ptzi->Bias = 300, ptzi->StandardBias = 15, ptzi->DaylightBias = -60;
    return TIME_ZONE_ID_STANDARD;
}

BOOL WINAPI UnresolvableName(LPSTR szName, LPDWORD pcch)
{
    snprintf(szName, *pcch, "%s", "NOHOST.INVALID");
    *pcch = 14;
    return TRUE;
}

BOOL WINAPI NoDnsName(COMPUTER_NAME_FORMAT, LPWSTR, LPDWORD pcch)
{
    *pcch = 0;
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

std::string Stamp(const SYSTEMTIME& st)
{
    char sz[32];
    snprintf(sz, sizeof(sz), "%04u%02u%02u%02u%02u%02u", st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute,
             st.wSecond);
    return sz;
}

// "yyyyMMddHHmmss.000000" of the local time when the event was made, then the zone's offset.
TEST_F(CommonDataTest, EventTimeIsLocalWithTheZoneOffset)
{
    PlatformOverride platform;
    CommonDataPlatform().pfnGetTimeZoneInformation = StandardTimeWithItsOwnBias;
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    ASSERT_NO_FATAL_FAILURE(NewEvent(kind, 1));
    SYSTEMTIME before = {}, after = {};
    GetLocalTime(&before);
    EXPECT_EQ(kind.SetCommonData(), S_OK);
    GetLocalTime(&after);
    const std::string sTime = Narrow(GetText(kind.Access(), L"EventTime"));
    ASSERT_EQ(sTime.size(), 25u) << sTime;
    EXPECT_TRUE(sTime.substr(0, 14) == Stamp(before) || sTime.substr(0, 14) == Stamp(after))
        << sTime << " not between " << Stamp(before) << " and " << Stamp(after);
    EXPECT_EQ(sTime.substr(14), ".000000-315");
}

// The names are looked up for the first event and kept for the others; the UUID is each event's own.
TEST_F(CommonDataTest, EveryEventCarriesTheMachineAndItsOwnUuid)
{
    char szName[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cchName = sizeof(szName), cchDns = 256;
    wchar_t wszDns[256] = {};
    ASSERT_TRUE(GetComputerNameA(szName, &cchName));
    ASSERT_TRUE(GetComputerNameExW(ComputerNameDnsFullyQualified, wszDns, &cchDns));
    std::set<std::string> addresses;
    WSADATA wsa = {};
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &wsa), 0);
    addrinfo hints = {}, *pList = nullptr;
    hints.ai_family = AF_INET;
    ASSERT_EQ(getaddrinfo(szName, nullptr, &hints, &pList), 0);
    for (const addrinfo* p = pList; p; p = p->ai_next)
        addresses.insert(inet_ntoa(reinterpret_cast<const sockaddr_in*>(p->ai_addr)->sin_addr));
    freeaddrinfo(pList);
    WSACleanup();
    CNotfyTestKind kind, deleter;
    kind.m_items = {1, 2, 3};
    const CycleResult result = RunAgentCycle(kind, deleter);  // checks the EventId too
    ASSERT_EQ(result.events.size(), 3u);
    std::set<std::wstring> uuids, times;
    for (const CycleEvent& event : result.events) {
        IWbemClassObject* pEvent = event.pEvent.Get();
        EXPECT_EQ(Narrow(GetText(pEvent, L"MachineName")), szName);
        EXPECT_EQ(GetText(pEvent, L"DNSName"), wszDns);
        EXPECT_EQ(addresses.count(Narrow(GetText(pEvent, L"IPAddresse"))), 1u) << "no address of " << szName;
        const std::wstring wsUuid = GetText(pEvent, L"UUID");
        CLSID parsed = {};
        EXPECT_EQ(wsUuid.size(), 38u) << Narrow(wsUuid);
        EXPECT_EQ(CLSIDFromString(wsUuid.c_str(), &parsed), S_OK) << Narrow(wsUuid);
        EXPECT_NE(parsed, GUID_NULL);
        uuids.insert(wsUuid);
        times.insert(GetText(pEvent, L"EventTime"));
    }
    EXPECT_EQ(uuids.size(), 3u);
    EXPECT_LE(times.size(), 2u);  // at most a change of second between them
}

TEST_F(CommonDataTest, FailingStepEndsTheCommonData)
{
    LoadMof(L"class KM_Bare_Static { [Key] sint32 DeviceId; };", L"root\\oxl1v2\\KM_Notification");
    // pfn null: the system's; szWritten: M, D, U, I for MachineName, DNSName, UUID, IPAddresse set.
    const struct { const char* szClass; decltype(CCommonDataPlatform::pfnGetComputerNameExW) pfnDnsName;
                   decltype(CCommonDataPlatform::pfnGetComputerNameForIp) pfnIpName; HRESULT hr;
                   const char *szWritten, *szTraced, *szFormatted; } cases[] = {
        {"KM_Bare_Static", nullptr, nullptr, HRESULT(WBEM_E_NOT_FOUND), "----",
         "Raising exception because SetProperty on 'EventId' failed...", nullptr},
        {"KM_TestKind_Static", NoDnsName, nullptr, HRESULT(WBEM_E_UNEXPECTED), "M---", "Error getting DNS Name",
         "GetLastError: 5"},
        {"KM_TestKind_Static", nullptr, UnresolvableName, E_FAIL, "MDU-", "Error calling gethostbyname", nullptr},
    };
    const wchar_t* const properties[] = {L"MachineName", L"DNSName", L"UUID", L"IPAddresse"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szTraced);
        PlatformOverride platform;
        if (c.pfnDnsName)
            CommonDataPlatform().pfnGetComputerNameExW = c.pfnDnsName;
        if (c.pfnIpName)
            CommonDataPlatform().pfnGetComputerNameForIp = c.pfnIpName;
        CNotfyTestKind kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        ASSERT_NO_FATAL_FAILURE(NewEvent(kind, 1, c.szClass));
        const size_t uMark = GlobalTraceLog::Get().Mark();
        EXPECT_EQ(kind.SetCommonData(), c.hr);
        for (size_t i = 0; i < 4; ++i)
            EXPECT_EQ(GetText(kind.Access(), properties[i]) != L"<none>", c.szWritten[i] != '-') << i;
        EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, c.szTraced, c.szFormatted));
        EXPECT_EQ(GlobalTraceLog::Get().Contains(uMark, "Raising exception because CompleteInstance failed"),
                  c.szWritten[0] == 'M');
    }
}

// Winsock is started and stopped around every address lookup; concurrent events must not interfere.
TEST_F(CommonDataTest, ConcurrentEventsAllGetAnAddress)
{
    constexpr int kThreads = 4;
    constexpr int kEvents = 5;
    std::vector<std::wstring> addresses[kThreads];
    std::vector<HRESULT> results[kThreads];
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t]() {
            for (int i = 0; i < kEvents; ++i) {
                CCWMIAccess access;
                access = static_cast<IWbemServices*>(*m_pEvents);
                CNotificationModify modify;
                HRESULT hr = access.NewInstance("KM_TestKind_Static");
                results[t].push_back(SUCCEEDED(hr) ? modify.CompleteInstance(access) : hr);
                addresses[t].push_back(GetText(access, L"IPAddresse"));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_FALSE(addresses[0].empty());
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(results[t], std::vector<HRESULT>(kEvents, S_OK)) << "thread " << t;
        EXPECT_EQ(addresses[t], std::vector<std::wstring>(kEvents, addresses[0][0])) << "thread " << t;
    }
}

}  // namespace
