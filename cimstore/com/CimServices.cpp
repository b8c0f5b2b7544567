#include "cimstore/com/CimServices.h"

#include "access/ComHolders.h"
#include "cimstore/ObjectPath.h"
#include "cimstore/WqlParser.h"
#include "cimstore/com/CimClassObject.h"
#include "cimstore/com/CimEnumerator.h"
#include "cimstore/com/StoreState.h"

#include <wrl/client.h>

namespace cimstore::com {

namespace {

std::wstring Text(const BSTR bstr)
{
    return bstr ? std::wstring(bstr) : std::wstring();
}

struct QueryTarget {
    std::wstring wsClass;  // empty when the query does not parse
    bool bSelect = false;
};

// The class a query reads, for fault matching and delegation.
QueryTarget QueryClass(const std::wstring& wsQuery)
{
    WqlQuery query;
    if (FAILED(ParseWql(wsQuery, query)))
        return {};
    if (query.kind == WqlQuery::Kind::Select)
        return {query.className, true};
    ObjectPath source;
    if (SUCCEEDED(ParseObjectPath(query.sourcePath, source)))
        return {source.className, false};
    return {};
}

std::wstring PathClass(const std::wstring& wsPath)
{
    ObjectPath path;
    return SUCCEEDED(ParseObjectPath(wsPath, path)) ? path.className : std::wstring();
}

void ClearCallResult(IWbemCallResult** ppCallResult)
{
    if (ppCallResult)
        *ppCallResult = nullptr;
}

// A class that a namespace of the repository lacks is the platform's: GetClass answers
// WBEM_E_NOT_FOUND only when the namespace exists and the class does not.
bool IsPlatformClass(const CimRepository& repository, std::wstring_view wsNamespace, std::wstring_view wsClass)
{
    CimClassPtr cls;
    return !wsClass.empty() && repository.GetClass(wsNamespace, wsClass, cls) == Hr(WBEM_E_NOT_FOUND);
}

bool IsInNamespace(const ObjectPath& path, const std::wstring& wsNamespace)
{
    return path.ns.empty() || EqualsNoCase(NormalizeNamespace(path.ns), wsNamespace);
}

// Wine reads relative paths only; the first ':' ends the namespace part when there is one.
std::wstring RelativePart(const std::wstring& wsPath, const ObjectPath& path)
{
    return path.ns.empty() ? wsPath : wsPath.substr(wsPath.find(L':') + 1);
}

// A text system property of an object that is not CimStore's, such as one from the platform.
std::wstring ForeignText(IWbemClassObject* pObject, const wchar_t* wszName)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszName, 0, value.GetAddress(), nullptr, nullptr)) || value.Type() != VT_BSTR)
        return std::wstring();
    return Text(V_BSTR(&value.Get()));
}

}  // namespace

HRESULT CimServices::Create(std::wstring wsNamespace, IWbemServices** ppServices)
{
    return CatchHr([&] {
        *ppServices = new CimServices(std::move(wsNamespace));
        return S_OK;
    });
}

HRESULT CimServices::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IWbemServices) {
        *ppv = static_cast<IWbemServices*>(this);
    } else if (riid == IID_IClientSecurity) {
        *ppv = static_cast<IClientSecurity*>(this);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

HRESULT CimServices::QueryBlanket(IUnknown*, DWORD* pAuthnSvc, DWORD* pAuthzSvc, OLECHAR** pServerPrincName,
                                  DWORD* pAuthnLevel, DWORD* pImpLevel, void** pAuthInfo, DWORD* pCapabilities)
{
    if (pAuthnSvc)
        *pAuthnSvc = RPC_C_AUTHN_WINNT;
    if (pAuthzSvc)
        *pAuthzSvc = RPC_C_AUTHZ_NONE;
    if (pServerPrincName)
        *pServerPrincName = nullptr;
    if (pAuthnLevel)
        *pAuthnLevel = RPC_C_AUTHN_LEVEL_CALL;
    if (pImpLevel)
        *pImpLevel = RPC_C_IMP_LEVEL_IMPERSONATE;
    if (pAuthInfo)
        *pAuthInfo = nullptr;
    if (pCapabilities)
        *pCapabilities = EOAC_NONE;
    return S_OK;
}

HRESULT CimServices::SetBlanket(IUnknown*, DWORD, DWORD, OLECHAR*, DWORD, DWORD, void*, DWORD)
{
    return CatchHr([&] { return StoreState::Get().CheckFault(L"SetBlanket", {m_wsNamespace}); });
}

HRESULT CimServices::CopyProxy(IUnknown* pProxy, IUnknown** ppCopy)
{
    if (!pProxy || !ppCopy)
        return E_INVALIDARG;
    return pProxy->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(ppCopy));
}

HRESULT CimServices::OpenNamespace(const BSTR, long, IWbemContext*, IWbemServices** ppWorkingNamespace,
                                   IWbemCallResult** ppResult)
{
    if (ppWorkingNamespace)
        *ppWorkingNamespace = nullptr;
    ClearCallResult(ppResult);
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::CancelAsyncCall(IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::QueryObjectSink(long, IWbemObjectSink** ppResponseHandler)
{
    if (ppResponseHandler)
        *ppResponseHandler = nullptr;
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::GetObject(const BSTR strObjectPath, long lFlags, IWbemContext* pCtx, IWbemClassObject** ppObject,
                               IWbemCallResult** ppCallResult)
{
    ClearCallResult(ppCallResult);
    if (!ppObject)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppObject = nullptr;
    return CatchHr([&] {
        StoreState& state = StoreState::Get();
        state.RecordContext(L"GetObject", pCtx);
        const std::wstring wsPath = Text(strObjectPath);
        HRESULT hr = state.CheckFault(L"GetObject", {wsPath, PathClass(wsPath)}, m_wsNamespace);
        if (FAILED(hr))
            return hr;
        if (wsPath.empty())
            return Hr(WBEM_E_INVALID_PARAMETER);
        ObjectPath path;
        hr = ParseObjectPath(wsPath, path);
        if (FAILED(hr))
            return hr;
        CimRepository& repository = state.Repository();
        if (IsInNamespace(path, m_wsNamespace) && IsPlatformClass(repository, m_wsNamespace, path.className))
            return m_platform.GetObject(RelativePart(wsPath, path), lFlags, pCtx, ppObject, ppCallResult);
        const std::wstring wsNamespace = path.ns.empty() ? m_wsNamespace : path.ns;
        if (path.IsClassPath()) {
            CimClassPtr cls;
            hr = repository.GetClass(wsNamespace, path.className, cls);
            if (hr == Hr(WBEM_E_INVALID_CLASS))
                hr = Hr(WBEM_E_NOT_FOUND);
            return FAILED(hr) ? hr : CimClassObject::CreateForClass(std::move(cls), ppObject);
        }
        CimInstance instance;
        hr = repository.GetInstance(m_wsNamespace, wsPath, instance);
        return FAILED(hr) ? hr : CimClassObject::CreateForInstance(std::move(instance), ppObject);
    });
}

HRESULT CimServices::GetObjectAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::PutClass(IWbemClassObject*, long, IWbemContext*, IWbemCallResult** ppCallResult)
{
    ClearCallResult(ppCallResult);
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::PutClassAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::DeleteClass(const BSTR, long, IWbemContext*, IWbemCallResult** ppCallResult)
{
    ClearCallResult(ppCallResult);
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::DeleteClassAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::CreateClassEnum(const BSTR, long, IWbemContext*, IEnumWbemClassObject** ppEnum)
{
    if (ppEnum)
        *ppEnum = nullptr;
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::CreateClassEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::PutInstance(IWbemClassObject* pInst, long lFlags, IWbemContext* pCtx,
                                 IWbemCallResult** ppCallResult)
{
    ClearCallResult(ppCallResult);
    const long lMode = lFlags & (WBEM_FLAG_UPDATE_ONLY | WBEM_FLAG_CREATE_ONLY);
    if (!pInst || lMode == (WBEM_FLAG_UPDATE_ONLY | WBEM_FLAG_CREATE_ONLY))
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        StoreState& state = StoreState::Get();
        state.RecordContext(L"PutInstance", pCtx);
        Microsoft::WRL::ComPtr<CimClassObject> pObject;
        TakeOwnership(pObject, CimClassObject::FromUnknown(pInst));
        if (!pObject)
            return PutForeignInstance(pInst);
        if (pObject->IsClass())
            return Hr(WBEM_E_INVALID_OPERATION);
        const CimInstance instance = pObject->InstanceCopy();
        HRESULT hr = state.CheckFault(L"PutInstance", {instance.ClassName(), instance.RelPath()}, m_wsNamespace);
        if (FAILED(hr))
            return hr;
        if (IsPlatformClass(state.Repository(), m_wsNamespace, instance.ClassName()))
            return Hr(WBEM_E_ACCESS_DENIED);
        hr = state.Repository().PutInstance(m_wsNamespace, instance, lMode);
        return FAILED(hr) ? hr : state.Save();
    });
}

// The platform's objects are read-only here; any other object CimStore cannot store.
HRESULT CimServices::PutForeignInstance(IWbemClassObject* pInst)
{
    const std::wstring wsClass = ForeignText(pInst, L"__CLASS");
    if (wsClass.empty())
        return Hr(WBEM_E_INVALID_PARAMETER);
    StoreState& state = StoreState::Get();
    const HRESULT hr = state.CheckFault(L"PutInstance", {wsClass, ForeignText(pInst, L"__RELPATH")}, m_wsNamespace);
    if (FAILED(hr))
        return hr;
    return IsPlatformClass(state.Repository(), m_wsNamespace, wsClass) ? Hr(WBEM_E_ACCESS_DENIED)
                                                                         : Hr(WBEM_E_INVALID_PARAMETER);
}

HRESULT CimServices::PutInstanceAsync(IWbemClassObject*, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::DeleteInstance(const BSTR strObjectPath, long, IWbemContext* pCtx,
                                    IWbemCallResult** ppCallResult)
{
    ClearCallResult(ppCallResult);
    if (!strObjectPath)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        StoreState& state = StoreState::Get();
        state.RecordContext(L"DeleteInstance", pCtx);
        const std::wstring wsPath = Text(strObjectPath);
        HRESULT hr = state.CheckFault(L"DeleteInstance", {wsPath, PathClass(wsPath)}, m_wsNamespace);
        if (FAILED(hr))
            return hr;
        ObjectPath path;
        hr = ParseObjectPath(wsPath, path);
        if (FAILED(hr))
            return hr;
        if (path.IsClassPath())
            return Hr(WBEM_E_INVALID_OPERATION);
        if (IsPlatformClass(state.Repository(), path.ns.empty() ? m_wsNamespace : path.ns, path.className))
            return Hr(WBEM_E_ACCESS_DENIED);
        hr = state.Repository().DeleteInstance(m_wsNamespace, wsPath);
        return FAILED(hr) ? hr : state.Save();
    });
}

HRESULT CimServices::DeleteInstanceAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::CreateInstanceEnum(const BSTR strFilter, long lFlags, IWbemContext* pCtx,
                                        IEnumWbemClassObject** ppEnum)
{
    if (!ppEnum || !strFilter)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppEnum = nullptr;
    return CatchHr([&] {
        StoreState& state = StoreState::Get();
        state.RecordContext(L"CreateInstanceEnum", pCtx);
        const std::wstring wsClass = Text(strFilter);
        HRESULT hr = state.CheckFault(L"CreateInstanceEnum", {wsClass}, m_wsNamespace);
        if (FAILED(hr))
            return hr;
        if (IsPlatformClass(state.Repository(), m_wsNamespace, wsClass))
            return m_platform.CreateInstanceEnum(strFilter, lFlags, pCtx, ppEnum);
        std::vector<CimInstance> instances;
        hr = state.Repository().EnumInstances(m_wsNamespace, wsClass, instances);
        if (FAILED(hr))
            return hr;
        if (lFlags & WBEM_FLAG_SHALLOW) {
            std::erase_if(instances, [&](const CimInstance& i) { return !EqualsNoCase(i.ClassName(), wsClass); });
        }
        return CimEnumerator::Create(std::move(instances), wsClass, ppEnum);
    });
}

HRESULT CimServices::CreateInstanceEnumAsync(const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, long lFlags, IWbemContext* pCtx,
                               IEnumWbemClassObject** ppEnum)
{
    if (!ppEnum || !strQuery || !strQueryLanguage)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppEnum = nullptr;
    if (_wcsicmp(strQueryLanguage, L"WQL") != 0)
        return Hr(WBEM_E_INVALID_QUERY_TYPE);
    return CatchHr([&] {
        StoreState& state = StoreState::Get();
        state.RecordContext(L"ExecQuery", pCtx);
        const std::wstring wsQuery = Text(strQuery);
        const QueryTarget target = QueryClass(wsQuery);
        HRESULT hr = state.CheckFault(L"ExecQuery", {wsQuery, target.wsClass}, m_wsNamespace);
        if (FAILED(hr))
            return hr;
        if (target.bSelect && IsPlatformClass(state.Repository(), m_wsNamespace, target.wsClass))
            return m_platform.ExecQuery(strQueryLanguage, strQuery, target.wsClass, lFlags, pCtx, ppEnum);
        std::vector<CimInstance> instances;
        hr = state.Repository().ExecQuery(m_wsNamespace, wsQuery, instances);
        if (FAILED(hr))
            return hr;
        return CimEnumerator::Create(std::move(instances), target.wsClass, ppEnum);
    });
}

HRESULT CimServices::ExecQueryAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::ExecNotificationQuery(const BSTR, const BSTR, long, IWbemContext*, IEnumWbemClassObject** ppEnum)
{
    if (ppEnum)
        *ppEnum = nullptr;
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::ExecNotificationQueryAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::ExecMethod(const BSTR, const BSTR, long, IWbemContext*, IWbemClassObject*,
                                IWbemClassObject** ppOutParams, IWbemCallResult** ppCallResult)
{
    if (ppOutParams)
        *ppOutParams = nullptr;
    ClearCallResult(ppCallResult);
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimServices::ExecMethodAsync(const BSTR, const BSTR, long, IWbemContext*, IWbemClassObject*,
                                     IWbemObjectSink*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

}  // namespace cimstore::com
