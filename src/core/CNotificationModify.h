// The machine identity of an event instance (names, a fresh UUID, an IPv4 address) and the
// event time composed by CNotfyBase::SetCommonData.
#pragma once

#include "access/WbemGuids.h"

#include <wrl/client.h>

#include <string>

// Platform calls behind the common data, replaceable so that tests can present other time
// zones, an unreadable DNS name or a host name that does not resolve.
struct CCommonDataPlatform {
    DWORD(WINAPI* pfnGetTimeZoneInformation)(LPTIME_ZONE_INFORMATION) = ::GetTimeZoneInformation;
    BOOL(WINAPI* pfnGetComputerNameExW)(COMPUTER_NAME_FORMAT, LPWSTR, LPDWORD) = ::GetComputerNameExW;
    // The name that SetIp resolves.
    BOOL(WINAPI* pfnGetComputerNameForIp)(LPSTR, LPDWORD) = ::GetComputerNameA;
};
CCommonDataPlatform& CommonDataPlatform();

// Minutes to add to UTC for the local time, as CIM writes them (east of Greenwich positive).
long EventTimeOffset(DWORD dwZoneId, const TIME_ZONE_INFORMATION& tzi);
// "yyyyMMddHHmmss.000000+ooo" for st and the offset; WBEM_E_UNEXPECTED when it does not fit.
HRESULT FormatEventTime(const SYSTEMTIME& st, long lOffsetMinutes, char (&szTime)[30]);

// The machine's names and address as the first event of a request found them: they cannot change
// within one request, so its later events reuse them. Empty: not found yet.
struct CCommonNames {
    std::wstring wsMachineName;
    std::wstring wsDnsName;
    std::wstring wsIpAddress;
};

class CNotificationModify {
public:
    // pNames (optional) carries what earlier events of the same request found.
    explicit CNotificationModify(CCommonNames* pNames = nullptr);
    ~CNotificationModify();
    CNotificationModify(const CNotificationModify&) = delete;
    CNotificationModify& operator=(const CNotificationModify&) = delete;

    HRESULT CompleteInstance(IWbemClassObject* pInstance);
    HRESULT SetSystemName();
    HRESULT SetUUID();
    HRESULT SetIp();

private:
    HRESULT PutText(const wchar_t* wszProperty, const wchar_t* wszValue);

    Microsoft::WRL::ComPtr<IWbemClassObject> m_pInstance;
    long m_lAddressIndex = 0;
    CCommonNames* m_pNames = nullptr;
};
