#include "notifications/inventory/CNotfyInventoryChange.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCEventLogCond.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kUnexpected[] = "GetOldObject returned an unexpected WMI HRESULT";

constexpr LONG kStatusUnchanged = 1;
constexpr LONG kStatusAdded = 2;
constexpr LONG kStatusRemoved = 3;
constexpr LONG kTypeUnchanged = 3;
constexpr LONG kTypeInventory = 5;

}  // namespace

CNotfyInventoryChange::CNotfyInventoryChange(const char* szKindName) : m_szKindName(szKindName) {}

std::string CNotfyInventoryChange::QualifiedName(const char* szMethod) const
{
    return std::string(m_szKindName) + "::" + szMethod;
}

void CNotfyInventoryChange::ReportQueryFailure(const char* szArgument)
{
    CCNamedComponent component(ContextValue("FeatureName").c_str(), ContextValue("FeatureVersion").c_str(),
                               ContextValue("ContextName").c_str());
    // The result is deliberately ignored: reporting is best effort.
    CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, szArgument);
}

bool CNotfyInventoryChange::IsFirstInventoryByQuery(const char* szQualifiedName)
{
    CCWMIAccess stored;
    stored = static_cast<IWbemServices*>(m_wmi);
    OpenAccess(stored);
    const std::string sProbe = "select * from " + m_sEventClassName + " where DeviceId = 1";
    const HRESULT hr = stored.ExecuteQuery(sProbe.c_str(), 0);
    if (hr == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE))
        return true;
    if (FAILED(hr)) {
        ReportQueryFailure(m_sEventClassName.c_str());
        RaiseHr(hr, szQualifiedName, kUnexpected, "hr 0x%X", static_cast<unsigned>(hr));
    }
    return false;
}

EInventoryOutcome CNotfyInventoryChange::LookupStored(CCWMIAccess& stored, const char* szQualifiedName)
{
    const HRESULT hr = GetStoredInstance(stored);
    if (hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND))
        return EInventoryOutcome::Added;
    if (FAILED(hr))
        RaiseHr(hr, szQualifiedName, kUnexpected, "hr 0x%X", static_cast<unsigned>(hr));
    return EInventoryOutcome::Unchanged;
}

HRESULT CNotfyInventoryChange::WriteOutcome(EInventoryOutcome outcome, const std::vector<std::wstring>& arguments,
                                            const char* szQualifiedName)
{
    const LONG lCase = outcome == EInventoryOutcome::Added ? 2 : outcome == EInventoryOutcome::Changed ? 4 : 1;
    const bool bReported = outcome == EInventoryOutcome::Added || outcome == EInventoryOutcome::Changed;
    WriteEventState(m_wmi, bReported ? kStatusAdded : kStatusUnchanged,
                    static_cast<LONG>(m_ulNotfyId * 1000) + lCase, szQualifiedName);
    RaiseIfFailed(PutTextArray(m_wmi, "EventTextArguments", arguments), szQualifiedName,
                  "Raising exception because SetProperty on 'EventTextArguments' failed");
    RaiseIfFailed(PutI4(m_wmi, "EventType", bReported ? kTypeInventory : kTypeUnchanged), szQualifiedName,
                  "Raising exception because SetProperty on 'EventType' failed");
    return outcome == EInventoryOutcome::Unchanged ? NOTFY_S_UNCHANGED : S_OK;
}

HRESULT CNotfyInventoryChange::AddObsoleteInstances()
{
    const std::string sName = QualifiedName("AddObsoleteInstances");
    const char* szName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, szName, kEntered);
    const HRESULT hr = GetObsoleteInstances();
    if (FAILED(hr)) {
        GetTrace().TraceMsg(TRACE_ERROR, szName, "Internal", "Error because GetObsoleteInstances failed", "hr 0x%X",
                            static_cast<unsigned>(hr));
        return trace.Return(hr);
    }
    while (!m_obsoleteList.empty()) {
        // The entry leaves the list whatever happens to it.
        Microsoft::WRL::ComPtr<IWbemClassObject> pStored = std::move(m_obsoleteList.front());
        m_obsoleteList.erase(m_obsoleteList.begin());
        const HRESULT hrItem = CatchHr([&]() -> HRESULT {
            // AttachInstanceObject takes over the reference it is given.
            RaiseIfFailed(m_wmi.AttachInstanceObject(pStored.Detach()), szName,
                          "Raising exception because CCWMIAccess::AttachInstanceObject failed");
            WriteEventState(m_wmi, kStatusRemoved, static_cast<LONG>(m_ulNotfyId * 1000) + 3, szName);
            // The EventType step is traced with the EventTextId text, as it always was.
            RaiseIfFailed(PutI4(m_wmi, "EventType", kTypeInventory), szName,
                          "Raising exception because SetProperty on 'EventTextId' failed");
            RaiseIfFailed(SetCommonData(), szName, "Raising exception because SetCommonData failed");
            RaiseIfFailed(AddToList(), szName, "Raising exception because AddToList failed");
            return S_OK;
        });
        if (FAILED(hrItem))
            TraceContinue(szName, hrItem);
    }
    return trace.Return(S_OK);
}
