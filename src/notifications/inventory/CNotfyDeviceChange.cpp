#include "notifications/inventory/CNotfyDeviceChange.h"
#include "core/EventValues.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "framework/CCEventLogCond.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <string>

namespace {

constexpr char kEntered[] = "has been entered.";

constexpr LONG kStatusUnchanged = 1;
constexpr LONG kStatusAdded = 2;
constexpr LONG kStatusRemoved = 3;
constexpr LONG kTypeUnchanged = 3;
constexpr LONG kTypeInventory = 5;

bool IsNoData(HRESULT hr)
{
    return hr == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE);
}

bool IsNotFound(HRESULT hr)
{
    return hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND);
}


}  // namespace

CNotfyDeviceChange::CNotfyDeviceChange()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_DeviceChange_Static";
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyDeviceChange::CNotfyDeviceChange", "Internal",
                        "An instance of CNotfyDeviceChange has been created.", "");
}

CNotfyDeviceChange::~CNotfyDeviceChange()
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyDeviceChange::~CNotfyDeviceChange", "Internal",
                        "An instance of CNotfyDeviceChange has been destroyed.", "");
}

void CNotfyDeviceChange::ReportQueryFailure(const char* szArgument)
{
    const auto Value = [this](const char* szKey) {
        const auto it = m_context.find(szKey);
        return it == m_context.end() ? std::string() : it->second;
    };
    CCNamedComponent component(Value("FeatureName").c_str(), Value("FeatureVersion").c_str(),
                               Value("ContextName").c_str());
    // The result is deliberately ignored: reporting is best effort.
    CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, szArgument);
}

HRESULT CNotfyDeviceChange::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyDeviceChange::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess data;
        data.SetContext(m_context);
        RaiseIfFailed(data.ConnectToNamespace(m_sReferencedNamespace.c_str(), -1, nullptr), kName,
              "Raising exception because ConnectToNamespace failed.");

        LONG lDeviceId = 1;
        HRESULT hr = data.GetAssociatedClassInstances(m_sSourceClass.c_str(), m_sResultClass.c_str());
        if (IsNoData(hr)) {
            // No media access devices at all: nothing to report, and no removals this cycle.
            GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "Query did not return data. Continue with success.",
                                "");
            return S_OK;
        }
        if (FAILED(hr)) {
            ReportQueryFailure(m_sSourceClass.c_str());
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error executing assoc-query for MediaAccessDevices",
                                "hr 0x%X", static_cast<unsigned>(hr));
            return hr;
        }
        do {
            CCVariant id;
            if (!GetUniqueId(data, id.Ptr()))
                continue;  // not on an IDE or SCSI controller: no event, no number used
            const HRESULT hrItem = CatchHr([&]() -> HRESULT {
                RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kName,
                      "Raising exception because NewInstance failed.");
                RaiseIfFailed(m_wmi.SetProperty("Object", id.Ptr()), kName,
                      "Raising exception because setting 'Object' reference failed.");
                RaiseIfFailed(PutI4(m_wmi, "DeviceId", lDeviceId), kName,
                      "Raising exception because SetProperty on 'DeviceId' failed.");
                const HRESULT hrData = SetEventData(data);
                RaiseIfFailed(hrData, kName, "Raising exception because SetEventData failed.");
                CompleteEvent(hrData, kName);
                return S_OK;
            });
            if (FAILED(hrItem))
                TraceContinue(kName, hrItem);
            ++lDeviceId;
        } while (SUCCEEDED(data.GetNextAssociatedClassInstances()));
        return AddObsoleteInstances();
    }));
}

bool CNotfyDeviceChange::GetUniqueId(CCWMIAccess& enumerator, VARIANT* pvId)
{
    constexpr char kName[] = "CNotfyDeviceChange::GetUniqueId";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const HRESULT hrResult = CatchHr([&]() -> HRESULT {
        CCVariant pnpPath;
        HRESULT hr = enumerator.GetProperty("__PATH", pnpPath.GetAddress(), false, 0);
        if (FAILED(hr) || pnpPath.Type() != VT_BSTR)
            RaiseHr(FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH), kName,
                    "Raising exception because error getting '__PATH' property on PnpInstance", "hr 0x%X",
                    static_cast<unsigned>(hr));
        const std::string sPnpPath = NarrowText(pnpPath.Get());

        CCWMIAccess references;
        references = static_cast<IWbemServices*>(enumerator);
        for (const char* szAssociation : m_aszControllerAssociations) {
            const std::string sQuery = "REFERENCES OF {" + sPnpPath + "} WHERE ResultClass = " + szAssociation;
            hr = references.ExecuteQuery(sQuery.c_str(), 0);
            if (SUCCEEDED(hr)) {
                CCVariant controllerPath;
                hr = references.GetProperty("__PATH", controllerPath.GetAddress(), false, 0);
                if (FAILED(hr) || controllerPath.Type() != VT_BSTR)
                    RaiseHr(FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH), kName,
                            "Raising exception because error getting '__PATH' property on Controller instance",
                            "hr 0x%X", static_cast<unsigned>(hr));
                RaiseIfFailed(VariantCopy(pvId, controllerPath.Ptr()), kName,
                      "Raising exception because error getting '__PATH' property on Controller instance");
                return S_OK;
            }
            if (IsNoData(hr) || IsNotFound(hr))
                continue;
            ReportQueryFailure(szAssociation);
            RaiseHr(hr, kName, "Raising exception because error executing ReferencesOf query", "Query: %s, hr: 0x%x",
                    sQuery.c_str(), static_cast<unsigned>(hr));
        }
        return S_FALSE;  // attached to neither an IDE nor a SCSI controller
    });
    const bool bRet = hrResult == S_OK;
    GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "", "bRet: %d", bRet ? 1 : 0);
    return trace.ReturnBool(bRet);
}

HRESULT CNotfyDeviceChange::SetEventData(CCWMIAccess& enumerator)
{
    constexpr char kName[] = "CNotfyDeviceChange::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        HRESULT hr = enumerator.GetProperty("Name", name.GetAddress(), false, 0);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Rasing exception because error getting 'Name' property", "hr 0x%X",
                    static_cast<unsigned>(hr));
        const std::wstring wsName = (name.Type() == VT_BSTR && V_BSTR(&name.Get())) ? V_BSTR(&name.Get()) : L"";

        hr = m_wmi.SetProperty("Name", name.Ptr());
        if (FAILED(hr))
            GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Error setting 'Name' property", "hr 0x%X",
                                static_cast<unsigned>(hr));
        CCVariant deviceId;
        enumerator.GetProperty("DeviceID", deviceId.GetAddress(), false, 0);  // a missing DeviceID is tolerated
        hr = m_wmi.SetProperty("DeviceIDTarget", deviceId.Ptr());
        if (FAILED(hr))
            GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Error setting 'DeviceIDTarget' property",
                                "hr 0x%X", static_cast<unsigned>(hr));

        LONG lType = kTypeUnchanged;
        LONG lStatus = kStatusUnchanged;
        LONG lTextId = kNotfyId * 1000 + 1;
        HRESULT hrResult = S_OK;

        CCWMIAccess stored;
        stored = static_cast<IWbemServices*>(m_wmi);
        const std::string sProbe = "select * from " + m_sEventClassName + " where DeviceId = 1";
        hr = stored.ExecuteQuery(sProbe.c_str(), 0);
        if (FAILED(hr) && !IsNoData(hr)) {
            ReportQueryFailure(m_sEventClassName.c_str());
            RaiseHr(hr, kName, "GetOldObject returned an unexpected WMI HRESULT", "hr 0x%X", static_cast<unsigned>(hr));
        }
        if (SUCCEEDED(hr)) {
            // Not the first inventory: a device whose key is not stored has been added.
            CCVariant relPath;
            RaiseIfFailed(m_wmi.GetProperty("__RELPATH", relPath.GetAddress(), false, 0), kName,
                  "Raising exception because error getting '__RELPATH' property");
            hr = stored.GetObject(NarrowText(relPath.Get()).c_str());
            if (IsNotFound(hr)) {
                lType = kTypeInventory;
                lStatus = kStatusAdded;
                lTextId = kNotfyId * 1000 + 2;
            } else if (FAILED(hr)) {
                RaiseHr(hr, kName, "GetOldObject returned an unexpected WMI HRESULT", "hr 0x%X",
                        static_cast<unsigned>(hr));
            } else {
                hrResult = NOTFY_S_UNCHANGED;
            }
        }

        RaiseIfFailed(PutI4(m_wmi, "EventStatus", lStatus), kName,
              "Raising exception because SetProperty on 'EventStatus' failed");
        RaiseIfFailed(PutI4(m_wmi, "EventTextId", lTextId), kName,
              "Raising exception because SetProperty on 'EventTextId' failed");
        CCSafeArray arguments(SafeArrayCreateVector(VT_BSTR, 0, 1));
        if (!arguments.Get())
            RaiseHr(E_OUTOFMEMORY, kName, "Raising exception because SetProperty on 'EventTextArguments' failed",
                    "");
        CCBstr bstrName(wsName.c_str());
        LONG lIndex = 0;
        RaiseIfFailed(SafeArrayPutElement(arguments.Get(), &lIndex, bstrName.Get()), kName,
              "Raising exception because SetProperty on 'EventTextArguments' failed");
        CCVariant textArguments;
        V_VT(textArguments.Ptr()) = VT_ARRAY | VT_BSTR;
        V_ARRAY(textArguments.Ptr()) = arguments.Detach();
        RaiseIfFailed(m_wmi.SetProperty("EventTextArguments", textArguments.Ptr()), kName,
              "Raising exception because SetProperty on 'EventTextArguments' failed");
        RaiseIfFailed(PutI4(m_wmi, "EventType", lType), kName, "Raising exception because SetProperty on 'EventType' failed");
        return hrResult;
    }));
}

HRESULT CNotfyDeviceChange::AddObsoleteInstances()
{
    constexpr char kName[] = "CNotfyDeviceChange::AddObsoleteInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const HRESULT hr = GetObsoleteInstances();
    if (FAILED(hr)) {
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error because GetObsoleteInstances failed", "hr 0x%X",
                            static_cast<unsigned>(hr));
        return trace.Return(hr);
    }
    while (!m_obsoleteList.empty()) {
        // The entry leaves the list whatever happens to it.
        Microsoft::WRL::ComPtr<IWbemClassObject> pStored = std::move(m_obsoleteList.front());
        m_obsoleteList.erase(m_obsoleteList.begin());
        const HRESULT hrItem = CatchHr([&]() -> HRESULT {
            // AttachInstanceObject takes over the reference it is given.
            RaiseIfFailed(m_wmi.AttachInstanceObject(pStored.Detach()), kName,
                  "Raising exception because CCWMIAccess::AttachInstanceObject failed");
            RaiseIfFailed(PutI4(m_wmi, "EventStatus", kStatusRemoved), kName,
                  "Raising exception because SetProperty on 'EventStatus' failed");
            RaiseIfFailed(PutI4(m_wmi, "EventTextId", kNotfyId * 1000 + 3), kName,
                  "Raising exception because SetProperty on 'EventTextId' failed");
            RaiseIfFailed(PutI4(m_wmi, "EventType", kTypeInventory), kName,
                  "Raising exception because SetProperty on 'EventTextId' failed");
            RaiseIfFailed(SetCommonData(), kName, "Raising exception because SetCommonData failed");
            RaiseIfFailed(AddToList(), kName, "Raising exception because AddToList failed");
            return S_OK;
        });
        if (FAILED(hrItem))
            TraceContinue(kName, hrItem);
    }
    return trace.Return(S_OK);
}
