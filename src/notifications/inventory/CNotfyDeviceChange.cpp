#include "notifications/inventory/CNotfyDeviceChange.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <string>

namespace {

constexpr char kEntered[] = "has been entered.";

bool IsNoData(HRESULT hr)
{
    return hr == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE);
}

bool IsNotFound(HRESULT hr)
{
    return hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND);
}

[[noreturn]] void RaisePathFailure(HRESULT hr, const char* szQualifiedName, const char* szMessage)
{
    RaiseHr(FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH), szQualifiedName, szMessage, "hr 0x%X",
            static_cast<unsigned>(hr));
}

}  // namespace

CNotfyDeviceChange::CNotfyDeviceChange()
    : CNotfyDeviceChange({"CNotfyDeviceChange", kNotfyId, "KM_DeviceChange_Static", "CIM_MediaAccessDevice",
                          {"Win32_IDEControllerDevice", "Win32_SCSIControllerDevice"}, true})
{
}

CNotfyDeviceChange::CNotfyDeviceChange(const CAssociationKind& kind)
    : CNotfyInventoryChange(kind.szKindName),
      m_sSourceClass(kind.szSourceClass),
      m_controllerAssociations(kind.controllerAssociations),
      m_bWriteDeviceIdTarget(kind.bWriteDeviceIdTarget)
{
    m_ulNotfyId = kind.ulNotfyId;
    m_sEventClassName = kind.szEventClass;
    TraceLifetime(m_szKindName, true);
}

CNotfyDeviceChange::~CNotfyDeviceChange()
{
    TraceLifetime(m_szKindName, false);
}

HRESULT CNotfyDeviceChange::RetrieveInstances()
{
    const std::string sName = QualifiedName("RetrieveInstances");
    const char* kName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess data;
        RaiseIfFailed(OpenAccess(data, m_sReferencedNamespace.c_str()), kName,
                      "Raising exception because ConnectToNamespace failed.");

        LONG lDeviceId = 1;
        HRESULT hr = data.GetAssociatedClassInstances(m_sSourceClass.c_str(), m_sResultClass.c_str());
        if (IsNoData(hr)) {
            // No devices at all: nothing to report, and no removals this cycle.
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
        const CEventStepTexts texts{.szDeviceId = "Raising exception because SetProperty on 'DeviceId' failed."};
        do {
            CCVariant id;
            if (!GetUniqueId(data, id.Ptr()))
                continue;  // not on an IDE or SCSI controller: no event, no number used
            const HRESULT hrItem = CatchHr([&]() -> HRESULT {
                RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kName, texts.szNewInstance);
                RaiseIfFailed(m_wmi.SetProperty("Object", id.Ptr()), kName, texts.szObject);
                RaiseIfFailed(PutI4(m_wmi, "DeviceId", lDeviceId), kName, texts.szDeviceId);
                const HRESULT hrData = SetEventData(data);
                RaiseIfFailed(hrData, kName, texts.szSetEventData);
                CompleteEvent(hrData, kName, texts);
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
    const std::string sName = QualifiedName("GetUniqueId");
    const char* kName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const HRESULT hrResult = CatchHr([&]() -> HRESULT {
        CCVariant pnpPath;
        HRESULT hr = enumerator.GetProperty("__PATH", pnpPath.GetAddress(), false, 0);
        if (FAILED(hr) || pnpPath.Type() != VT_BSTR)
            RaisePathFailure(hr, kName, "Raising exception because error getting '__PATH' property on PnpInstance");
        if (m_controllerAssociations.empty())
            return VariantCopy(pvId, pnpPath.Ptr());
        const std::string sPnpPath = NarrowText(pnpPath.Get());

        CCWMIAccess references;
        references = static_cast<IWbemServices*>(enumerator);
        for (const char* szAssociation : m_controllerAssociations) {
            const std::string sQuery = "REFERENCES OF {" + sPnpPath + "} WHERE ResultClass = " + szAssociation;
            hr = references.ExecuteQuery(sQuery.c_str(), 0);
            if (SUCCEEDED(hr)) {
                CCVariant controllerPath;
                hr = references.GetProperty("__PATH", controllerPath.GetAddress(), false, 0);
                if (FAILED(hr) || controllerPath.Type() != VT_BSTR)
                    RaisePathFailure(hr, kName,
                                     "Raising exception because error getting '__PATH' property on Controller instance");
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
        return S_FALSE;  // attached to none of the controllers
    });
    const bool bRet = hrResult == S_OK;
    GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "", "bRet: %d", bRet ? 1 : 0);
    return trace.ReturnBool(bRet);
}

HRESULT CNotfyDeviceChange::SetEventData(CCWMIAccess& enumerator)
{
    const std::string sName = QualifiedName("SetEventData");
    const char* kName = sName.c_str();
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
        if (m_bWriteDeviceIdTarget) {
            CCVariant deviceId;
            enumerator.GetProperty("DeviceID", deviceId.GetAddress(), false, 0);  // a missing DeviceID is tolerated
            hr = m_wmi.SetProperty("DeviceIDTarget", deviceId.Ptr());
            if (FAILED(hr))
                GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Error setting 'DeviceIDTarget' property",
                                    "hr 0x%X", static_cast<unsigned>(hr));
        }

        EInventoryOutcome outcome = EInventoryOutcome::FirstInventory;
        if (!IsFirstInventoryByQuery(kName)) {
            CCWMIAccess stored;
            outcome = LookupStored(stored, kName);
        }
        return WriteOutcome(outcome, {wsName}, kName);
    }));
}
