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

// The class a query reads, for fault matching; empty when the query does not parse.
std::wstring QueryClass(const std::wstring& wsQuery)
{
    WqlQuery query;
    if (FAILED(ParseWql(wsQuery, query)))
        return std::wstring();
    if (query.kind == WqlQuery::Kind::Select)
        return query.className;
    ObjectPath source;
    if (SUCCEEDED(ParseObjectPath(query.sourcePath, source)))
        return source.className;
    return std::wstring();
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

HRESULT CimServices::GetObject(const BSTR strObjectPath, long, IWbemContext* pCtx, IWbemClassObject** ppObject,
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
        HRESULT hr = state.CheckFault(L"GetObject", {wsPath, PathClass(wsPath)});
        if (FAILED(hr))
            return hr;
        if (wsPath.empty())
            return Hr(WBEM_E_INVALID_PARAMETER);
        ObjectPath path;
        hr = ParseObjectPath(wsPath, path);
        if (FAILED(hr))
            return hr;
        CimRepository& repository = state.Repository();
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
            return Hr(WBEM_E_INVALID_PARAMETER);
        if (pObject->IsClass())
            return Hr(WBEM_E_INVALID_OPERATION);
        const CimInstance instance = pObject->InstanceCopy();
        HRESULT hr = state.CheckFault(L"PutInstance", {instance.ClassName(), instance.RelPath()});
        if (FAILED(hr))
            return hr;
        hr = state.Repository().PutInstance(m_wsNamespace, instance, lMode);
        return FAILED(hr) ? hr : state.Save();
    });
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
        HRESULT hr = state.CheckFault(L"DeleteInstance", {wsPath, PathClass(wsPath)});
        if (FAILED(hr))
            return hr;
        ObjectPath path;
        hr = ParseObjectPath(wsPath, path);
        if (FAILED(hr))
            return hr;
        if (path.IsClassPath())
            return Hr(WBEM_E_INVALID_OPERATION);
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
        HRESULT hr = state.CheckFault(L"CreateInstanceEnum", {wsClass});
        if (FAILED(hr))
            return hr;
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

HRESULT CimServices::ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, long, IWbemContext* pCtx,
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
        const std::wstring wsClass = QueryClass(wsQuery);
        HRESULT hr = state.CheckFault(L"ExecQuery", {wsQuery, wsClass});
        if (FAILED(hr))
            return hr;
        std::vector<CimInstance> instances;
        hr = state.Repository().ExecQuery(m_wsNamespace, wsQuery, instances);
        if (FAILED(hr))
            return hr;
        return CimEnumerator::Create(std::move(instances), wsClass, ppEnum);
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
