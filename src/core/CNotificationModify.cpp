// Winsock 2 before anything that pulls in windows.h, which would bring the old winsock.h.
// WSAAddressToStringA is the call the address text comes from; MSVC only flags it as old.
#define _WINSOCK_DEPRECATED_NO_WARNINGS
#include <winsock2.h>
#include <ws2tcpip.h>

#include "core/CNotificationModify.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "core/CCCriticalSection.h"
#include "core/CNotfyBase.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

namespace {

constexpr char kEntered[] = "has been entered.";

// Winsock is started and stopped around every resolution; one caller at a time.
CCCriticalSection& IpSection()
{
    static CCCriticalSection s_section;
    return s_section;
}

struct AddrInfoFree {
    void operator()(addrinfo* p) const { freeaddrinfo(p); }
};

struct CoTaskFree {
    void operator()(wchar_t* p) const { CoTaskMemFree(p); }
};

bool IsAllZeroIpv6(const addrinfo* pEntry)
{
    if (pEntry->ai_family != AF_INET6 || !pEntry->ai_addr)
        return false;
    const auto* pAddress = reinterpret_cast<const sockaddr_in6*>(pEntry->ai_addr);
    static const IN6_ADDR kZero = {};
    return memcmp(&pAddress->sin6_addr, &kZero, sizeof(kZero)) == 0;
}

}  // namespace

CCommonDataPlatform& CommonDataPlatform()
{
    static CCommonDataPlatform s_platform;
    return s_platform;
}

long EventTimeOffset(DWORD dwZoneId, const TIME_ZONE_INFORMATION& tzi)
{
    // Daylight bias also for an unknown answer: kept as the agent has always reported it.
    long lBias = 0;
    if (dwZoneId == TIME_ZONE_ID_STANDARD)
        lBias = tzi.Bias + tzi.StandardBias;
    else if (dwZoneId != TIME_ZONE_ID_INVALID)
        lBias = tzi.Bias + tzi.DaylightBias;
    return -lBias;
}

HRESULT FormatEventTime(const SYSTEMTIME& st, long lOffsetMinutes, char (&szTime)[30])
{
    char szDate[10] = {};
    char szClock[10] = {};
    char szOffset[16] = {};
    GetDateFormatA(LOCALE_SYSTEM_DEFAULT, LOCALE_USE_CP_ACP, &st, "yyyyMMdd", szDate, sizeof(szDate));
    GetTimeFormatA(LOCALE_SYSTEM_DEFAULT, LOCALE_USE_CP_ACP, &st, "HHmmss", szClock, sizeof(szClock));
    snprintf(szOffset, sizeof(szOffset), "%+.3ld", lOffsetMinutes);
    const int iLength = snprintf(szTime, sizeof(szTime), "%s%s.000000%s", szDate, szClock, szOffset);
    if (iLength < 0 || static_cast<size_t>(iLength) >= sizeof(szTime)) {
        szTime[0] = '\0';
        return WBEM_E_UNEXPECTED;
    }
    return S_OK;
}

HRESULT CNotfyBase::SetCommonData()
{
    constexpr char kName[] = "CNotfyBase::SetCommonData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant value;
        V_VT(value.Ptr()) = VT_I4;
        V_I4(value.Ptr()) = static_cast<LONG>(m_ulNotfyId);
        HRESULT hr = m_wmi.SetProperty("EventId", value.Ptr());
        if (FAILED(hr))
            RaiseHr(hr, kName, "Raising exception because SetProperty on 'EventId' failed...", "hr 0x%X",
                    static_cast<unsigned>(hr));

        SYSTEMTIME st = {};
        GetLocalTime(&st);
        TIME_ZONE_INFORMATION tzi = {};
        const DWORD dwZoneId = CommonDataPlatform().pfnGetTimeZoneInformation(&tzi);
        char szTime[30] = {};
        if (FAILED(FormatEventTime(st, EventTimeOffset(dwZoneId, tzi), szTime)))
            RaiseHr(WBEM_E_UNEXPECTED, kName, "Raising exception because '_stprintf_s' failed", "");
        CCStringConversion wsTime(szTime);
        value.SetText(wsTime.Convert2W());
        hr = m_wmi.SetProperty("EventTime", value.Ptr());
        if (FAILED(hr))
            RaiseHr(hr, kName, "Raising exception because SetProperty on 'EventTime' failed", "hr 0x%X",
                    static_cast<unsigned>(hr));

        CNotificationModify modify(&m_commonNames);
        hr = modify.CompleteInstance(m_wmi);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Raising exception because CompleteInstance failed", "hr 0x%X",
                    static_cast<unsigned>(hr));
        return S_OK;
    }));
}

CNotificationModify::CNotificationModify(CCommonNames* pNames) : m_pNames(pNames)
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotificationModify::CNotificationModify", "Internal",
                        "An instance of CNotificationModify has been created.", "");
}

CNotificationModify::~CNotificationModify()
{
    m_pInstance.Reset();
    // The agent's trace readers know this one text for both ends of the object's life.
    GetTrace().TraceMsg(TRACE_INFO, "CNotificationModify::~CNotificationModify", "Internal",
                        "An instance of CNotificationModify has been created.", "");
}

HRESULT CNotificationModify::PutText(const wchar_t* wszProperty, const wchar_t* wszValue)
{
    if (!m_pInstance)
        return WBEM_E_UNEXPECTED;
    CCVariant value;
    value.SetText(wszValue);
    if (!V_BSTR(value.Ptr()))
        return WBEM_E_OUT_OF_MEMORY;
    return m_pInstance->Put(wszProperty, 0, value.Ptr(), 0);
}

HRESULT CNotificationModify::CompleteInstance(IWbemClassObject* pInstance)
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationModify::CompleteInstance", kEntered, "pInstance: 0x%08X",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(pInstance)));
    m_pInstance = pInstance;
    HRESULT hr = SetSystemName();
    if (SUCCEEDED(hr))
        hr = SetUUID();
    if (SUCCEEDED(hr))
        hr = SetIp();
    return trace.Return(hr);
}

HRESULT CNotificationModify::SetSystemName()
{
    constexpr char kName[] = "CNotificationModify::SetSystemName";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    if (m_pNames && !m_pNames->wsMachineName.empty() && !m_pNames->wsDnsName.empty()) {
        HRESULT hr = PutText(L"MachineName", m_pNames->wsMachineName.c_str());
        if (SUCCEEDED(hr))
            hr = PutText(L"DNSName", m_pNames->wsDnsName.c_str());
        return trace.Return(hr);
    }
    char szName[16] = {};
    DWORD cchName = sizeof(szName);
    if (!GetComputerNameA(szName, &cchName))
        return trace.Return(HRESULT_FROM_WIN32(GetLastError()));
    CCStringConversion wsName(szName);
    HRESULT hr = PutText(L"MachineName", wsName.Convert2W());
    if (FAILED(hr))
        return trace.Return(hr);

    const CCommonDataPlatform& platform = CommonDataPlatform();
    // Most names fit the buffer on the stack, which saves the call that asks for the size.
    wchar_t wszShortDns[256] = {};
    DWORD cchDns = static_cast<DWORD>(std::size(wszShortDns));
    const wchar_t* wszDns = wszShortDns;
    std::unique_ptr<wchar_t[]> wszLongDns;
    if (!platform.pfnGetComputerNameExW(ComputerNameDnsFullyQualified, wszShortDns, &cchDns)) {
        if (GetLastError() != ERROR_MORE_DATA)
            cchDns = 0;
        if (cchDns == 0) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error getting DNS Name", "GetLastError: %d",
                                static_cast<int>(GetLastError()));
            return trace.Return(WBEM_E_UNEXPECTED);
        }
        wszLongDns.reset(new (std::nothrow) wchar_t[cchDns]);
        if (!wszLongDns) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Memory allocation failed.", "");
            return trace.Return(WBEM_E_OUT_OF_MEMORY);
        }
        if (!platform.pfnGetComputerNameExW(ComputerNameDnsFullyQualified, wszLongDns.get(), &cchDns)) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error getting DNS Name", "GetLastError: %d",
                                static_cast<int>(GetLastError()));
            return trace.Return(WBEM_E_UNEXPECTED);
        }
        wszDns = wszLongDns.get();
    }
    hr = PutText(L"DNSName", wszDns);
    if (SUCCEEDED(hr) && m_pNames && wsName.Convert2W()) {
        m_pNames->wsMachineName = wsName.Convert2W();
        m_pNames->wsDnsName = wszDns;
    }
    return trace.Return(hr);
}

HRESULT CNotificationModify::SetUUID()
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationModify::SetUUID", kEntered);
    GUID guid = {};
    HRESULT hr = CoCreateGuid(&guid);
    if (FAILED(hr))
        return trace.Return(hr);
    wchar_t* wszRaw = nullptr;
    hr = StringFromCLSID(guid, &wszRaw);
    std::unique_ptr<wchar_t, CoTaskFree> wszGuid(wszRaw);
    if (FAILED(hr))
        return trace.Return(hr);
    return trace.Return(PutText(L"UUID", wszGuid.get()));
}

HRESULT CNotificationModify::SetIp()
{
    constexpr char kName[] = "CNotificationModify::SetIp";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    if (m_pNames && !m_pNames->wsIpAddress.empty()) {
        PutText(L"IPAddresse", m_pNames->wsIpAddress.c_str());
        return trace.Return(S_OK);
    }
    CCCriticalSection::Lock lock(IpSection());

    WSADATA wsaData = {};
    if (WSAStartup(MAKEWORD(2, 2), &wsaData) != 0)
        return trace.Return(E_FAIL);
    struct WinsockCleanup {
        ~WinsockCleanup() { WSACleanup(); }
    } cleanup;
    if (wsaData.wVersion != MAKEWORD(2, 2))
        return trace.Return(E_FAIL);

    char szName[16] = {};
    DWORD cchName = sizeof(szName);
    CommonDataPlatform().pfnGetComputerNameForIp(szName, &cchName);

    addrinfo hints = {};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* pRaw = nullptr;
    const int iError = getaddrinfo(szName, nullptr, &hints, &pRaw);
    std::unique_ptr<addrinfo, AddrInfoFree> pList(pRaw);
    if (iError != 0 || !pList) {
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error calling gethostbyname", "dwError: %d",
                            iError != 0 ? iError : WSAGetLastError());
        return trace.Return(E_FAIL);
    }

    const addrinfo* pEntry = pList.get();
    for (long i = 0; i < m_lAddressIndex; ++i)
        pEntry = pEntry->ai_next ? pEntry->ai_next : pList.get();
    if (IsAllZeroIpv6(pEntry) && pEntry->ai_next)
        pEntry = pEntry->ai_next;

    char szAddress[260] = {};
    DWORD cchAddress = sizeof(szAddress);
    if (WSAAddressToStringA(pEntry->ai_addr, static_cast<DWORD>(pEntry->ai_addrlen), nullptr, szAddress,
                            &cchAddress) != 0) {
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error calling WSAAddressToString", "dwError: %d",
                            WSAGetLastError());
        return trace.Return(E_FAIL);
    }
    CCStringConversion wsAddress(szAddress);
    const wchar_t* wszAddress = wsAddress.Convert2W();
    PutText(L"IPAddresse", wszAddress);
    if (m_pNames && wszAddress)
        m_pNames->wsIpAddress = wszAddress;
    return trace.Return(S_OK);
}
