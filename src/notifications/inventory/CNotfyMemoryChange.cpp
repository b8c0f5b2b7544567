#include "notifications/inventory/CNotfyMemoryChange.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"
#include "notifications/inventory/DecimalText.h"

#include <string>
#include <vector>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kRetrieve[] = "CNotfyMemoryChange::RetrieveInstances";
constexpr char kSetEventData[] = "CNotfyMemoryChange::SetEventData";

constexpr LONG kTypeUnchanged = 3;
constexpr LONG kTypeChanged = 5;

}  // namespace

CNotfyMemoryChange::CNotfyMemoryChange()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_MemoryChange_Static";
    m_sAuxiliary = "select * from Win32_OperatingSystem";
    TraceLifetime("CNotfyMemoryChange", true);
}

CNotfyMemoryChange::~CNotfyMemoryChange()
{
    TraceLifetime("CNotfyMemoryChange", false);
}

HRESULT CNotfyMemoryChange::RetrieveInstances()
{
    CCMethodTrace trace(TRACE_INFO, kRetrieve, kEntered);
    const CEventStepTexts texts{.szDeviceId = "Raising exception because SetProperty on 'DeviceId' failed."};
    // Every machine has an operating system: a query without data is an error.
    return trace.Return(ForEachSourceInstance(kRetrieve, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& os) {
        BeginEvent(os, texts, kRetrieve, false);
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", 1), kRetrieve, texts.szDeviceId);
        const HRESULT hrData = SetEventData(os);
        RaiseIfFailed(hrData, kRetrieve, texts.szSetEventData);
        CompleteEvent(hrData, kRetrieve, texts);
    }, ENoSourceData::Failure));
}

HRESULT CNotfyMemoryChange::SetEventData(CCWMIAccess& os)
{
    CCMethodTrace trace(TRACE_INFO, kSetEventData, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        // The service hands the 64-bit kilobyte count over as text; anything but a plain unsigned
        // number is refused instead of being read as a leading part or as 0.
        CCVariant size;
        HRESULT hr = os.GetProperty("TotalVisibleMemorySize", size.GetAddress(), false, 0);
        ULONGLONG ullKilobytes = 0;
        if (SUCCEEDED(hr)) {
            const BSTR bstrSize = size.Type() == VT_BSTR ? V_BSTR(&size.Get()) : nullptr;
            if (!bstrSize || !ParseDecimalU64(std::wstring(bstrSize, SysStringLen(bstrSize)), &ullKilobytes))
                hr = WBEM_E_TYPE_MISMATCH;
        }
        RaiseIfFailed(hr, kSetEventData, "Raising exception because Could not get the current memory size");
        const unsigned long ulCurrent = static_cast<unsigned long>(ullKilobytes / 1024);
        RaiseIfFailed(m_wmi.SetProperty("CurrentSize", size.Ptr()), kSetEventData,
                      "Raising exception because Could not set the current memory size.");

        LONG lStatus = 1;
        LONG lType = kTypeUnchanged;
        HRESULT hrResult = S_OK;
        std::vector<std::wstring> arguments;
        CCWMIAccess stored;
        hr = GetStoredInstance(stored);
        if (FAILED(hr) && hr != static_cast<HRESULT>(WBEM_E_NOT_FOUND))
            RaiseHr(hr, kSetEventData, "GetOldObject returned an unexpected WMI HRESULT", "hr 0x%X",
                    static_cast<unsigned>(hr));
        if (SUCCEEDED(hr)) {
            LONG lStoredKilobytes = 0;
            const unsigned long ulPrevious =
                SUCCEEDED(ReadI4(stored, "CurrentSize", &lStoredKilobytes))
                    ? static_cast<unsigned long>(lStoredKilobytes / 1024)
                    : 0;
            // Unsigned on purpose: a previous size below the tolerance wraps, so every reading
            // then counts as shrunk.
            if (ulCurrent <= ulPrevious - m_ulTolerance) {
                lStatus = 3;
                lType = kTypeChanged;
            } else if (ulCurrent >= ulPrevious + m_ulTolerance) {
                lStatus = 2;
                lType = kTypeChanged;
            } else if (ulCurrent == ulPrevious) {
                hrResult = NOTFY_S_UNCHANGED;
            }
            if (lType == kTypeChanged)
                arguments = {std::to_wstring(ulPrevious), std::to_wstring(ulCurrent)};
        }

        WriteEventState(m_wmi, lStatus, static_cast<LONG>(kNotfyId * 1000) + lStatus, kSetEventData);
        if (!arguments.empty()) {
            hr = PutTextArray(m_wmi, "EventTextArguments", arguments);
            if (FAILED(hr))
                throw HResultError{hr};
        }
        RaiseIfFailed(PutI4(m_wmi, "EventType", lType), kSetEventData,
                      "Raising exception because SetProperty on 'EventType' failed");
        return hrResult;
    }));
}
