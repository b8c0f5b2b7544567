// The common block of every event: id, time with the zone offset, machine names, UUID, address.
// Winsock 2 before windows.h, which would bring the old winsock.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "access/ComHolders.h"
#include "core/CNotificationModify.h"

#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

// Puts the platform calls back after a test replaced some.
class PlatformOverride {
public:
    PlatformOverride() : m_saved(CommonDataPlatform()) {}
    ~PlatformOverride() { CommonDataPlatform() = m_saved; }
    CCommonDataPlatform& operator*() { return CommonDataPlatform(); }

private:
    CCommonDataPlatform m_saved;
};

DWORD g_dwZoneAnswer = TIME_ZONE_ID_UNKNOWN;
TIME_ZONE_INFORMATION g_zone = {};

DWORD WINAPI FakeTimeZone(LPTIME_ZONE_INFORMATION ptzi)
{
    *ptzi = g_zone;
    return g_dwZoneAnswer;
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

class CommonDataTest : public KindTest {
protected:
    // A fresh event instance of the test kind with its key set, as the kind holds it before SetCommonData.
    void NewEvent(CNotfyTestKind& kind, LONG lDeviceId = 1)
    {
        ASSERT_EQ(InitKind(kind), S_OK);
        ASSERT_EQ(kind.Access().NewInstance("KM_TestKind_Static"), S_OK);
        CCVariant deviceId;
        V_VT(deviceId.Ptr()) = VT_I4;
        V_I4(deviceId.Ptr()) = lDeviceId;
        ASSERT_EQ(kind.Access().SetProperty("DeviceId", deviceId.Ptr()), S_OK);
    }

    // Makes one event now: its EventTime is "yyyyMMddHHmmss.000000" with the local time (bracketed by
    // the local time before and after), then the zone offset.
    void ExpectEventTime(const std::string& sOffset)
    {
        CNotfyTestKind kind;
        NewEvent(kind);
        SYSTEMTIME before = {};
        SYSTEMTIME after = {};
        GetLocalTime(&before);
        EXPECT_EQ(kind.SetCommonData(), S_OK);
        GetLocalTime(&after);
        const std::string sTime = Narrow(GetText(kind.Access(), L"EventTime"));
        ASSERT_EQ(sTime.size(), 25u) << sTime;
        const std::string sStamp = sTime.substr(0, 14);
        EXPECT_TRUE(sStamp == Stamp(before) || sStamp == Stamp(after))
            << sTime << " not between " << Stamp(before) << " and " << Stamp(after);
        EXPECT_EQ(sTime.substr(14, 7), ".000000") << sTime;
        EXPECT_EQ(sTime.substr(21), sOffset) << sTime;
    }
};

TEST_F(CommonDataTest, EventTimeCarriesTheOffsetOfTheZoneAnswer)
{
    const struct {
        DWORD dwAnswer;
        LONG lBias;
        LONG lStandardBias;
        LONG lDaylightBias;
        const char* szSuffix;
    } cases[] = {
        {TIME_ZONE_ID_STANDARD, 300, 0, -60, "-300"},    // New York in winter
        {TIME_ZONE_ID_DAYLIGHT, 300, 0, -60, "-240"},    // New York in summer
        {TIME_ZONE_ID_STANDARD, -60, 0, -60, "+060"},    // Berlin in winter
        {TIME_ZONE_ID_DAYLIGHT, -60, 0, -60, "+120"},    // Berlin in summer
        {TIME_ZONE_ID_STANDARD, -330, 0, 0, "+330"},     // India
        {TIME_ZONE_ID_STANDARD, 300, 15, -60, "-315"},   // a standard bias of its own
        {TIME_ZONE_ID_UNKNOWN, 0, 0, -60, "+060"},       // unknown takes the daylight bias
        {TIME_ZONE_ID_UNKNOWN, 0, 0, 0, "+000"},
        {TIME_ZONE_ID_INVALID, 300, 0, -60, "+000"},     // failed call: no offset
    };
    PlatformOverride platform;
    (*platform).pfnGetTimeZoneInformation = FakeTimeZone;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "answer " << c.dwAnswer << " bias " << c.lBias << "/" << c.lStandardBias
                                        << "/" << c.lDaylightBias);
        g_dwZoneAnswer = c.dwAnswer;
        g_zone = {};
        g_zone.Bias = c.lBias;
        g_zone.StandardBias = c.lStandardBias;
        g_zone.DaylightBias = c.lDaylightBias;
        ExpectEventTime(c.szSuffix);
    }
}

TEST_F(CommonDataTest, EventTimeUsesTheSystemZoneByDefault)
{
    // Under Wine the zone follows the TZ of the host process; whichever it is, the offset is
    // the one of the system's own answer.
    TIME_ZONE_INFORMATION tzi = {};
    const DWORD dwAnswer = GetTimeZoneInformation(&tzi);
    char szExpected[16] = {};
    snprintf(szExpected, sizeof(szExpected), "%+.3ld", EventTimeOffset(dwAnswer, tzi));
    SCOPED_TRACE(testing::Message() << "answer " << dwAnswer << ", bias " << tzi.Bias << "/" << tzi.StandardBias
                                    << "/" << tzi.DaylightBias);
    ExpectEventTime(szExpected);
}

TEST_F(CommonDataTest, MachineIdentityIsWritten)
{
    CNotfyTestKind kind;
    NewEvent(kind);
    ASSERT_EQ(kind.SetCommonData(), S_OK);
    IWbemClassObject* pEvent = kind.Access();

    VARTYPE vt = VT_EMPTY;
    EXPECT_EQ(GetI4(pEvent, L"EventId", &vt), static_cast<LONG>(kTestKindId));
    EXPECT_EQ(vt, VT_I4);

    char szName[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD cchName = sizeof(szName);
    ASSERT_TRUE(GetComputerNameA(szName, &cchName));
    EXPECT_EQ(Narrow(GetText(pEvent, L"MachineName")), szName);

    wchar_t wszDns[256] = {};
    DWORD cchDns = 256;
    ASSERT_TRUE(GetComputerNameExW(ComputerNameDnsFullyQualified, wszDns, &cchDns));
    EXPECT_EQ(GetText(pEvent, L"DNSName"), wszDns);

    const std::wstring wsUuid = GetText(pEvent, L"UUID");
    ASSERT_EQ(wsUuid.size(), 38u) << Narrow(wsUuid);
    CLSID parsed = {};
    EXPECT_EQ(CLSIDFromString(wsUuid.c_str(), &parsed), S_OK) << Narrow(wsUuid);
    EXPECT_NE(parsed, GUID_NULL);

    // The address is one IPv4 address of the name.
    const std::string sAddress = Narrow(GetText(pEvent, L"IPAddresse"));
    IN_ADDR address = {};
    ASSERT_EQ(inet_pton(AF_INET, sAddress.c_str(), &address), 1) << sAddress;
    WSADATA wsa = {};
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &wsa), 0);
    addrinfo hints = {};
    hints.ai_family = AF_INET;
    addrinfo* pList = nullptr;
    ASSERT_EQ(getaddrinfo(szName, nullptr, &hints, &pList), 0);
    bool bFound = false;
    for (const addrinfo* p = pList; p; p = p->ai_next)
        bFound = bFound || reinterpret_cast<const sockaddr_in*>(p->ai_addr)->sin_addr.s_addr == address.s_addr;
    freeaddrinfo(pList);
    WSACleanup();
    EXPECT_TRUE(bFound) << sAddress;
}

TEST_F(CommonDataTest, EveryEventOfOneRequestHasItsOwnUuid)
{
    CNotfyTestKind kind;
    for (LONG l = 1; l <= 6; ++l)
        kind.m_items.push_back({l, 1, nullptr});
    ASSERT_EQ(InitKind(kind), S_OK);
    unsigned long ulCount = 0;
    ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    ASSERT_EQ(ulCount, 6u);
    std::vector<IWbemClassObject*> pointers(ulCount);
    ASSERT_EQ(kind.GetInstances(pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
    std::set<std::wstring> uuids;
    std::set<std::wstring> times;
    for (IWbemClassObject* p : pointers) {
        uuids.insert(GetText(p, L"UUID"));
        times.insert(GetText(p, L"EventTime"));
        EXPECT_EQ(GetText(p, L"MachineName"), GetText(pointers[0], L"MachineName"));
        p->Release();
    }
    EXPECT_EQ(uuids.size(), 6u);
    EXPECT_EQ(uuids.count(L"<none>"), 0u);
    // All made within a moment: at most a change of second between them.
    EXPECT_LE(times.size(), 2u);
}

TEST_F(CommonDataTest, NameThatDoesNotResolveFailsTheEvent)
{
    PlatformOverride platform;
    (*platform).pfnGetComputerNameForIp = UnresolvableName;
    CNotfyTestKind kind;
    kind.m_items = {{1, 1, nullptr}, {2, 1, nullptr}};
    ASSERT_EQ(InitKind(kind), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    unsigned long ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 0u);
    EXPECT_EQ(kind.m_itemResults, (std::vector<HRESULT>{E_FAIL, E_FAIL}));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Error calling gethostbyname"));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because CompleteInstance failed"));
}

TEST_F(CommonDataTest, UnreadableDnsNameFailsAfterTheMachineName)
{
    PlatformOverride platform;
    (*platform).pfnGetComputerNameExW = NoDnsName;
    CNotfyTestKind kind;
    NewEvent(kind);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.SetCommonData(), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    IWbemClassObject* pEvent = kind.Access();
    EXPECT_NE(GetText(pEvent, L"MachineName"), L"<none>");
    // Neither DNSName nor the later steps are written.
    for (const wchar_t* wszName : {L"DNSName", L"UUID", L"IPAddresse"})
        EXPECT_EQ(GetText(pEvent, wszName), L"<none>") << Narrow(wszName);
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Error getting DNS Name", "GetLastError: 5"));
}

TEST_F(CommonDataTest, ClassWithoutCommonPropertiesFailsAtEventId)
{
    LoadMof(L"class KM_Bare_Static { [Key] sint32 DeviceId; };", L"root\\oxl1v2\\KM_Notification");
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    ASSERT_EQ(kind.Access().NewInstance("KM_Bare_Static"), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.SetCommonData(), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Raising exception because SetProperty on 'EventId' failed..."));
}

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
                if (FAILED(access.NewInstance("KM_TestKind_Static"))) {
                    results[t].push_back(E_UNEXPECTED);
                    continue;
                }
                CNotificationModify modify;
                results[t].push_back(modify.CompleteInstance(access));
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
