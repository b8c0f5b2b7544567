#include "notifications/inventory/CNotfyLeaseExpiration.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kRetrieve[] = "CNotfyLeaseExpiration::RetrieveInstances";
constexpr char kSetEventData[] = "CNotfyLeaseExpiration::SetEventData";

constexpr LONGLONG kNoLeaseEnd = -1;  // all bits set: no HighCritical stored
constexpr std::uint32_t kSecondsPerDay = 86400;

}  // namespace

CNotfyLeaseExpiration::CNotfyLeaseExpiration()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_LeaseExpiration_Static";
    TraceLifetime("CNotfyLeaseExpiration", true);
}

CNotfyLeaseExpiration::~CNotfyLeaseExpiration()
{
    TraceLifetime("CNotfyLeaseExpiration", false);
}

__int64 CNotfyLeaseExpiration::GetCurrentTime64() const
{
    return _time64(nullptr);
}

HRESULT CNotfyLeaseExpiration::RetrieveInstances()
{
    CCMethodTrace trace(TRACE_INFO, kRetrieve, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        const CEventStepTexts texts;
        RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kRetrieve, texts.szNewInstance);
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", 1), kRetrieve,
                      "Raising exception because SetProperty on 'DeviceId' failed.");
        const HRESULT hrData = SetEventData();
        RaiseIfFailed(hrData, kRetrieve, texts.szSetEventData);
        CompleteEvent(hrData, kRetrieve, texts);
        return S_OK;
    }));
}

HRESULT CNotfyLeaseExpiration::SetEventData()
{
    CCMethodTrace trace(TRACE_INFO, kSetEventData, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        LONGLONG llWarningDays = 0;
        LONGLONG llLeaseEnd = kNoLeaseEnd;
        // Only the two limits matter here; the state classifies nothing of this kind.
        GetThresholdState(0, nullptr, nullptr, &llWarningDays, &llLeaseEnd);

        LONG lStatus = 1;
        LONG lTextId = 57004;
        if (llLeaseEnd != kNoLeaseEnd) {
            struct tm local = {};
            const __time64_t leaseEnd = llLeaseEnd;
            if (_localtime64_s(&local, &leaseEnd) != 0)
                RaiseHr(WBEM_E_UNEXPECTED, kSetEventData, "Raising exception because 'localtime_s' failed",
                        "%lld", static_cast<long long>(llLeaseEnd));
            // The digits are local time although the offset reads +000; the agent expects it so.
            char szExpireDate[30] = {};
            HRESULT hr = WBEM_E_UNEXPECTED;
            if (strftime(szExpireDate, sizeof(szExpireDate), "%Y%m%d%H%M%S.000000+000", &local) != 0) {
                CCVariant expireDate;
                expireDate.SetText(std::wstring(szExpireDate, szExpireDate + strlen(szExpireDate)).c_str());
                hr = m_wmi.SetProperty("ExpireDate", expireDate.Ptr());
            }
            if (FAILED(hr))
                GetTrace().TraceMsg(TRACE_WARNING, kSetEventData, "Internal",
                                    "Setting informal expire-data property failed", "hr 0x%X",
                                    static_cast<unsigned>(hr));

            // The period is multiplied in 32 bits and wraps above 49,710 days (136 years), which no
            // lease reaches. A lease end that localtime accepts is not negative, so the subtraction
            // cannot overflow.
            const std::uint32_t ulWarningSeconds = static_cast<std::uint32_t>(llWarningDays) * kSecondsPerDay;
            const LONGLONG llWarningStart = llLeaseEnd - static_cast<LONGLONG>(ulWarningSeconds);
            const LONGLONG llNow = GetCurrentTime64();
            lTextId = 57001;
            if (llNow >= llWarningStart) {
                lStatus = 2;
                lTextId = 57002;
            }
            if (llNow >= llLeaseEnd) {
                lStatus = 3;
                lTextId = 57003;
            }
        }

        WriteEventState(m_wmi, lStatus, lTextId, kSetEventData);
        return SetEventType(static_cast<unsigned long>(lStatus));
    }));
}
