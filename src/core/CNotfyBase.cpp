#include "core/CNotfyBase.h"
#include "core/EventValues.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "core/ThresholdState.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <cstdint>

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kEntered[] = "has been entered.";

unsigned Address(const void* p)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

const char* Text(const char* sz)
{
    return sz ? sz : "";
}

}  // namespace

CNotfyBase::CNotfyBase()
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyBase::CNotfyBase", "Internal", "An instance of CNotfyBase has been created.",
                        "");
}

CNotfyBase::~CNotfyBase()
{
    m_instanceList.clear();
    m_obsoleteList.clear();
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyBase::~CNotfyBase", "Internal",
                        "An instance of CNotfyBase has been destroyed.", "");
}

void CNotfyBase::Append(CInstanceList& list, IWbemClassObject* pObject)
{
    // The list grows in blocks of ten entries.
    if (list.size() == list.capacity())
        list.reserve(list.capacity() + 10);
    list.emplace_back(pObject);
}

HRESULT CNotfyBase::Init(IWbemServices* pNamespace, const CNotfyNames* pNames)
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyBase::Init", kEntered, "pNamespace: 0x%08X, pNames: 0x%08X",
                        Address(pNamespace), Address(pNames));
    if (!pNamespace || !pNames)
        return trace.Return(E_INVALIDARG);
    return trace.Return(CatchHr([&]() -> HRESULT {
        m_wmi = pNamespace;
        m_context["FeatureName"] = Text(pNames->szFeatureName);
        m_context["FeatureVersion"] = Text(pNames->szFeatureVersion);
        m_context["ContextName"] = Text(pNames->szContextName);
        if (m_pSharedContext)
            m_wmi.ShareContext(m_pSharedContext.Get());
        else
            m_wmi.SetContext(m_context);
        return S_OK;
    }));
}

HRESULT CNotfyBase::GetInstances(IWbemClassObject** ppInstances, unsigned long* pulNoOfInstances)
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyBase::GetInstances", kEntered, "ppInstances: 0x%08X, pulNoOfInstances: 0x%08X",
                        Address(ppInstances), Address(pulNoOfInstances));
    if (!pulNoOfInstances)
        return trace.Return(E_INVALIDARG);
    if (!IsSupported()) {
        *pulNoOfInstances = 0;
        return trace.Return(S_OK);
    }
    HRESULT hr = NOTFY_S_UNCHANGED;
    if (m_bRetrieved) {
        GetTrace().TraceMsg(TRACE_VERBOSE, "CNotfyBase::GetInstances", "Internal",
                            "Data already retrieved, taking cached data.", "");
    } else {
        hr = CatchHr([&]() { return RetrieveInstances(); });
        if (FAILED(hr)) {
            // Nothing of a half-finished retrieval may be handed out later.
            m_instanceList.clear();
            *pulNoOfInstances = 0;
            return trace.Return(hr);
        }
        m_bRetrieved = true;
    }
    *pulNoOfInstances = static_cast<unsigned long>(m_instanceList.size());
    if (ppInstances) {
        for (size_t i = 0; i < m_instanceList.size(); ++i) {
            ppInstances[i] = m_instanceList[i].Get();
            ppInstances[i]->AddRef();
        }
    }
    return trace.Return(hr);
}

HRESULT CNotfyBase::AddToList()
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyBase::AddToList", kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        IWbemClassObject* pCurrent = m_wmi;
        if (pCurrent)
            Append(m_instanceList, pCurrent);
        return S_OK;
    }));
}

HRESULT CNotfyBase::SetEventType(unsigned long dwStatus)
{
    constexpr char kName[] = "CNotfyBase::SetEventType";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "dwStatus: %lu", dwStatus);
    return trace.Return(SetEventTypeFromStored(dwStatus, 2, kName, "This instance has already been set. "));
}

HRESULT CNotfyBase::SetEventTypeFromStored(unsigned long dwStatus, LONG lImprovedType, const char* szQualifiedName,
                                           const char* szSameText)
{
    return CatchHr([&]() -> HRESULT {
        CCWMIAccess stored;
        HRESULT hr = GetStoredInstance(stored);
        if (hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND))
            return PutI4(m_wmi, "EventType", (dwStatus == 2 || dwStatus == 3) ? 1 : 3);
        if (FAILED(hr)) {
            GetTrace().TraceMsg(TRACE_ERROR, szQualifiedName, "Internal",
                                "GetOldObject returned an unexpected WMI HRESULT", "hr 0x%X", static_cast<unsigned>(hr));
            return hr;
        }

        CCVariant storedStatus;
        hr = stored.GetProperty("EventStatus", storedStatus.GetAddress(), false, 0);
        if (FAILED(hr))
            return hr;
        unsigned long ulStored = 0;
        if (storedStatus.Type() == VT_I4)
            ulStored = static_cast<unsigned long>(V_I4(&storedStatus.Get()));
        else if (storedStatus.Type() == VT_UI4)
            ulStored = V_UI4(&storedStatus.Get());
        else
            return hr;

        if (ulStored == dwStatus) {
            hr = PutI4(m_wmi, "EventType", 3);
            if (FAILED(hr))
                return hr;
            GetTrace().TraceMsg(TRACE_VERBOSE, szQualifiedName, "Internal", szSameText, "");
            return NOTFY_S_UNCHANGED;
        }
        return PutI4(m_wmi, "EventType", ulStored < dwStatus ? 1 : lImprovedType);
    });
}

HRESULT CNotfyBase::RetrieveSourceEvents(const char* szQualifiedName, const CEventStepTexts& texts,
                                         const std::function<HRESULT(CCWMIAccess& source)>& setEventData)
{
    return ForEachSourceInstance(szQualifiedName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                 [&](CCWMIAccess& source) {
        BeginEvent(source, texts, szQualifiedName);
        const HRESULT hrData = setEventData(source);
        RaiseIfFailed(hrData, szQualifiedName, texts.szSetEventData);
        if (hrData == NOTFY_S_SKIP)
            throw HResultError{hrData};  // traced where the item was found unfit
        CompleteEvent(hrData, szQualifiedName, texts);
    });
}

unsigned long CNotfyBase::GetThresholdState(ULONGLONG ullCurrent, LONGLONG* pllLowWarning, LONGLONG* pllLowCritical,
                                            LONGLONG* pllHighWarning, LONGLONG* pllHighCritical)
{
    return ::GetThresholdState(m_wmi, m_wmi.GetContext(), m_ulNotfyId, ullCurrent, pllLowWarning, pllLowCritical,
                               pllHighWarning, pllHighCritical);
}

HRESULT CNotfyBase::GetObsoleteInstances()
{
    constexpr char kName[] = "CNotfyBase::GetObsoleteInstances";
    constexpr char kNoPath[] = "Raising exception because Could not get the Path of the referenced object.";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess stored;
        if (!OpenStoredInstances(stored, kName, true))
            return S_OK;
        do {
            const HRESULT hrItem = CatchHr([&]() -> HRESULT {
                CCVariant object;
                HRESULT hr = stored.GetProperty("Object", object.GetAddress(), false, 0);
                if (FAILED(hr) || object.Type() != VT_BSTR) {
                    GetTrace().TraceMsg(TRACE_WARNING, kName, "Exception", kNoPath, "hr 0x%X",
                                        static_cast<unsigned>(hr));
                    throw HResultError{NOTFY_S_SKIP};
                }
                CCWMIAccess live;
                hr = OpenAccess(live, m_sReferencedNamespace.c_str());
                if (FAILED(hr))
                    RaiseHr(hr, kName, kNoPath, "hr 0x%X", static_cast<unsigned>(hr));
                CCStringConversion path(V_BSTR(&object.Get()));
                hr = live.GetObject(path.Convert2A());
                bool bObsolete = true;
                if (FAILED(hr) && hr != static_cast<HRESULT>(WBEM_E_NOT_FOUND))
                    RaiseHr(hr, kName,
                            "Raising exception because an error occured (not WBEM_E_NOT_FOUND) when accessing the "
                            "reference object.",
                            "hr 0x%X", static_cast<unsigned>(hr));
                if (SUCCEEDED(hr))
                    bObsolete = IsInstanceObsolete(stored, live);
                if (bObsolete)
                    Append(m_obsoleteList, stored);
                return S_OK;
            });
            if (FAILED(hrItem))
                return hrItem;
        } while (SUCCEEDED(stored.GetNextWMIInstanceInEnumerator()));
        return S_OK;
    }));
}

HRESULT CNotfyBase::DeleteInstancesInList()
{
    constexpr char kName[] = "CNotfyBase::DeleteInstancesInList";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    if (m_obsoleteList.empty()) {
        GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "List of obsolete instances empty. Nothing to do.", "");
        return trace.Return(S_OK);
    }
    ComPtr<IWbemServices> pServices = static_cast<IWbemServices*>(m_wmi);
    if (!pServices)
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    for (ComPtr<IWbemClassObject>& pEntry : m_obsoleteList) {
        CCVariant path;
        HRESULT hr = pEntry->Get(L"__PATH", 0, path.GetAddress(), nullptr, nullptr);
        if (FAILED(hr) || path.Type() != VT_BSTR) {
            GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Could not delete obsolet instance.", "hr 0x%X",
                                static_cast<unsigned>(hr));
        } else {
            hr = pServices->DeleteInstance(V_BSTR(&path.Get()), 0, nullptr, nullptr);
            if (FAILED(hr))
                GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Delete Instance failed!", "hr 0x%X",
                                    static_cast<unsigned>(hr));
        }
        pEntry.Reset();
    }
    m_obsoleteList.clear();
    return trace.Return(S_OK);
}

HRESULT CNotfyBase::DeleteObsoleteInstances()
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyBase::DeleteObsoleteInstances", kEntered);
    if (m_obsoleteList.empty())
        GetObsoleteInstances();
    return trace.Return(DeleteInstancesInList());
}

bool CNotfyBase::IsInstanceObsolete(CCWMIAccess&, CCWMIAccess&)
{
    return false;
}

bool CNotfyBase::IsSupported()
{
    return true;
}

void CNotfyBase::CompleteEvent(HRESULT hrData, const char* szQualifiedName, const CEventStepTexts& texts)
{
    if (hrData == NOTFY_S_UNCHANGED) {
        CCVariant noPut;
        V_VT(noPut.Ptr()) = VT_BOOL;
        V_BOOL(noPut.Ptr()) = VARIANT_TRUE;
        RaiseIfFailed(m_wmi.SetQualifier("NoPut", noPut.Ptr(), nullptr), szQualifiedName, texts.szNoPut);
    }
    RaiseIfFailed(SetCommonData(), szQualifiedName, texts.szCommonData);
    RaiseIfFailed(AddToList(), szQualifiedName, texts.szAddToList);
}

HRESULT CNotfyBase::ForEachSourceInstance(const char* szQualifiedName, const char* szNamespace, const char* szQuery,
                                          const std::function<void(CCWMIAccess& source)>& perItem,
                                          ENoSourceData noData)
{
    CCWMIAccess source;
    // A failed connection shows as the failure of the query.
    OpenAccess(source, szNamespace);
    const HRESULT hr = source.ExecuteQuery(szQuery, 0);
    if (hr == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE) && noData == ENoSourceData::Success) {
        GetTrace().TraceMsg(TRACE_VERBOSE, szQualifiedName, "Internal",
                            "Query did not return data. Continue with success.", "Query: %s", szQuery);
        return S_OK;
    }
    if (FAILED(hr)) {
        GetTrace().TraceMsg(TRACE_ERROR, szQualifiedName, "Internal", "Error executing query", "Query: %s, hr: 0x%x",
                            szQuery, static_cast<unsigned>(hr));
        return hr;
    }
    do {
        const HRESULT hrItem = CatchHr([&]() -> HRESULT {
            perItem(source);
            return S_OK;
        });
        if (FAILED(hrItem))
            TraceContinue(szQualifiedName, hrItem);
    } while (SUCCEEDED(source.GetNextWMIInstanceInEnumerator()));
    return S_OK;
}

void CNotfyBase::BeginEvent(CCWMIAccess& source, const CEventStepTexts& texts, const char* szQualifiedName,
                            bool bCopyDeviceId)
{
    RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), szQualifiedName, texts.szNewInstance);
    CCVariant relPath;
    HRESULT hr = source.GetProperty("__RelPath", relPath.GetAddress(), false, 0);
    if (SUCCEEDED(hr))
        hr = m_wmi.SetProperty("Object", relPath.Ptr());
    RaiseIfFailed(hr, szQualifiedName, texts.szObject);
    if (!bCopyDeviceId)
        return;
    CCVariant deviceId;
    hr = source.GetProperty("DeviceID", deviceId.GetAddress(), false, 0);
    if (SUCCEEDED(hr))
        hr = m_wmi.SetProperty("DeviceId", deviceId.Ptr());
    RaiseIfFailed(hr, szQualifiedName, texts.szDeviceId);
}

bool CNotfyBase::OpenStoredInstances(CCWMIAccess& stored, const char* szQualifiedName, bool bNeedReferencedNamespace)
{
    stored = static_cast<IWbemServices*>(m_wmi);
    OpenAccess(stored);
    if ((bNeedReferencedNamespace && m_sReferencedNamespace.empty()) ||
        FAILED(stored.GetClassInstances(m_sEventClassName.c_str(), 0))) {
        GetTrace().TraceMsg(TRACE_VERBOSE, szQualifiedName, "Internal", "No instances to delete. ", "");
        return false;
    }
    return true;
}

HRESULT CNotfyBase::GetStoredInstance(CCWMIAccess& stored)
{
    CCVariant relPath;
    HRESULT hr = m_wmi.GetProperty("__RelPath", relPath.GetAddress(), false, 0);
    // A new instance without its keys has no path, so no stored instance can be looked up.
    if (SUCCEEDED(hr) && (relPath.Type() != VT_BSTR || !V_BSTR(&relPath.Get())))
        hr = WBEM_E_INVALID_OBJECT_PATH;
    if (FAILED(hr))
        return hr;
    stored = static_cast<IWbemServices*>(m_wmi);
    OpenAccess(stored);
    CCStringConversion path(V_BSTR(&relPath.Get()));
    return stored.GetObject(path.Convert2A());
}

bool CNotfyBase::StoredDiffers(std::initializer_list<const char*> properties)
{
    CCWMIAccess stored;
    if (FAILED(GetStoredInstance(stored)))
        return false;
    for (const char* szProperty : properties) {
        CCVariant now;
        CCVariant before;
        if (FAILED(m_wmi.GetProperty(szProperty, now.GetAddress(), false, 0)) ||
            FAILED(stored.GetProperty(szProperty, before.GetAddress(), false, 0)) ||
            VarCmp(now.Ptr(), before.Ptr(), LOCALE_USER_DEFAULT, 0) != static_cast<HRESULT>(VARCMP_EQ))
            return true;
    }
    return false;
}

HRESULT CNotfyBase::OpenAccess(CCWMIAccess& access, const char* szNamespace) const
{
    access.ShareContext(m_wmi.GetContext());
    if (!szNamespace)
        return S_OK;
    const auto it = m_connections.find(szNamespace);
    if (it != m_connections.end()) {
        access.ShareConnection(it->second.Get(), szNamespace);
        return S_OK;
    }
    if (m_pSharedLocator)
        access.ShareLocator(m_pSharedLocator.Get(), m_bSharedLocatorInProvider);
    const HRESULT hr = access.ConnectToNamespace(szNamespace, -1, nullptr);
    if (SUCCEEDED(hr))
        m_connections[szNamespace] = static_cast<IWbemServices*>(access);
    return hr;
}

void CNotfyBase::ShareRequestEnvironment(IWbemContext* pContext, IWbemLocator* pLocator, bool bLocatorInProvider)
{
    m_pSharedContext = pContext;
    m_pSharedLocator = pLocator;
    m_bSharedLocatorInProvider = bLocatorInProvider;
}

std::string CNotfyBase::ContextValue(const char* szKey) const
{
    const auto it = m_context.find(szKey);
    return it == m_context.end() ? std::string() : it->second;
}
