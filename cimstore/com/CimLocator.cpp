#include "cimstore/com/CimLocator.h"

#include "cimstore/com/CimServices.h"
#include "cimstore/com/PlatformWmi.h"
#include "cimstore/com/StoreState.h"

#include <wrl/client.h>

namespace cimstore::com {

HRESULT CimLocator::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IWbemLocator) {
        *ppv = static_cast<IWbemLocator*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

HRESULT CimLocator::ConnectServer(const BSTR strNetworkResource, const BSTR strUser, const BSTR strPassword,
                                  const BSTR strLocale, long lSecurityFlags, const BSTR strAuthority,
                                  IWbemContext* pCtx, IWbemServices** ppNamespace)
{
    if (!strNetworkResource || !ppNamespace)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppNamespace = nullptr;
    return CatchHr([&] {
        StoreState& state = StoreState::Get();
        state.RecordContext(L"ConnectServer", pCtx);
        const std::wstring wsNamespace = NormalizeNamespace(strNetworkResource);
        HRESULT hr = state.CheckFault(L"ConnectServer", {wsNamespace});
        if (FAILED(hr))
            return hr;
        if (wsNamespace.empty())
            return Hr(WBEM_E_INVALID_NAMESPACE);
        if (state.Repository().HasNamespace(wsNamespace))
            return CimServices::Create(wsNamespace, ppNamespace);

        Microsoft::WRL::ComPtr<IWbemLocator> pPlatform;
        hr = CreatePlatformLocator(pPlatform.GetAddressOf());
        if (FAILED(hr))
            return hr;
        return pPlatform->ConnectServer(strNetworkResource, strUser, strPassword, strLocale, lSecurityFlags,
                                        strAuthority, pCtx, ppNamespace);
    });
}

}  // namespace cimstore::com
