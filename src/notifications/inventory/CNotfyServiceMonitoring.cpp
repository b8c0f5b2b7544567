#include "notifications/inventory/CNotfyServiceMonitoring.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"
#include "notifications/inventory/ListComparison.h"

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kCaptionFailed[] = "Rasing exception because error getting 'Caption' property";

}  // namespace

CNotfyServiceMonitoring::CNotfyServiceMonitoring() : CNotfyInventoryChange("CNotfyServiceMonitoring")
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_ServiceMonitoring_Static";
    TraceLifetime("CNotfyServiceMonitoring", true);
}

CNotfyServiceMonitoring::~CNotfyServiceMonitoring()
{
    TraceLifetime("CNotfyServiceMonitoring", false);
}

HRESULT CNotfyServiceMonitoring::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyServiceMonitoring::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts{.szDeviceId = "Raising exception because SetProperty on 'DeviceId' failed."};
    bool bBuilt = false;
    return trace.Return(ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sDataQuery.c_str(),
                                              [&](CCWMIAccess& source) {
        // One event for all services, built on the first: SetEventData reads the rest of the
        // enumeration itself, and after a failure the remaining services are passed over.
        if (bBuilt)
            return;
        bBuilt = true;
        const HRESULT hr = CatchHr([&]() -> HRESULT {
            RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kName, texts.szNewInstance);
            RaiseIfFailed(PutI4(m_wmi, "DeviceId", 1), kName, texts.szDeviceId);
            CCVariant serviceClass;
            HRESULT hrObject = source.GetProperty("__CLASS", serviceClass.GetAddress(), false, 0);
            if (SUCCEEDED(hrObject))
                hrObject = m_wmi.SetProperty("Object", serviceClass.Ptr());
            RaiseIfFailed(hrObject, kName, texts.szObject);
            const HRESULT hrData = SetEventData(source);
            RaiseIfFailed(hrData, kName, texts.szSetEventData);
            CompleteEvent(hrData, kName, texts);
            return S_OK;
        });
        if (FAILED(hr))
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error during processing data.", "hr 0x%X",
                                static_cast<unsigned>(hr));
    }));
}

HRESULT CNotfyServiceMonitoring::SetEventData(CCWMIAccess& enumerator)
{
    constexpr char kName[] = "CNotfyServiceMonitoring::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        std::vector<std::wstring> captions;
        HRESULT hr = S_OK;
        do {
            std::wstring wsCaption;
            RaiseIfFailed(ReadText(enumerator, "Caption", &wsCaption), kName, kCaptionFailed);
            captions.push_back(std::move(wsCaption));
            hr = enumerator.GetNextWMIInstanceInEnumerator();
        } while (SUCCEEDED(hr));
        // Only the end of the enumeration completes the list; a cut-off list would report removals.
        if (hr != static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE))
            RaiseHr(hr, kName, kCaptionFailed, "hr 0x%X", static_cast<unsigned>(hr));
        RaiseIfFailed(PutTextArray(m_wmi, "ServiceName", captions), kName,
                      "Raising exception because SetProperty on 'ServiceName' failed");

        std::vector<std::wstring> arguments;
        hr = CheckChanges(captions, arguments);
        if (hr != S_OK && hr != NOTFY_S_NO_REFERENCE && hr != NOTFY_S_LIST_CHANGED)
            RaiseHr(FAILED(hr) ? hr : E_UNEXPECTED, kName, "Rasing exception because private mehtod return an error",
                    "hr 0x%X", static_cast<unsigned>(hr));
        WriteListOutcome(m_wmi, m_ulNotfyId, hr, arguments.empty() ? nullptr : &arguments, kName);
        return hr;
    }));
}

HRESULT CNotfyServiceMonitoring::CheckChanges(const std::vector<std::wstring>& captions,
                                              std::vector<std::wstring>& arguments)
{
    constexpr char kName[] = "CNotfyServiceMonitoring::CheckChanges";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess stored;
        if (LookupStored(stored, kName) == EInventoryOutcome::Added)
            return NOTFY_S_NO_REFERENCE;
        std::vector<std::wstring> old;
        RaiseIfFailed(ReadEntryList(stored, "ServiceName", &old), kName,
                      "Rasing exception because error getting 'ServiceName' property from ref instance");
        const CListChanges changes = CompareLists(captions, old);
        if (changes.Empty())
            return S_OK;
        arguments = {FormatEntries(changes.added, captions), FormatEntries(changes.removed, old)};
        return NOTFY_S_LIST_CHANGED;
    }));
}
