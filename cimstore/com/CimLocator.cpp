#include "cimstore/com/CimLocator.h"

#include "cimstore/com/CimServices.h"
#include "cimstore/com/StoreState.h"

#include <wrl/client.h>

namespace cimstore::com {

namespace {

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

// The platform's own locator, loaded directly from its DLL: the registry may name us for it.
HRESULT CreatePlatformLocator(IWbemLocator** ppLocator)
{
    static HMODULE s_hWbemProx = LoadLibraryW(L"wbemprox.dll");  // kept for the life of the process
    if (!s_hWbemProx)
        return Hr(WBEM_E_INVALID_NAMESPACE);
    const auto pfnGetClassObject =
        reinterpret_cast<GetClassObjectFn>(reinterpret_cast<void*>(GetProcAddress(s_hWbemProx, "DllGetClassObject")));
    if (!pfnGetClassObject)
        return Hr(WBEM_E_INVALID_NAMESPACE);
    Microsoft::WRL::ComPtr<IClassFactory> pFactory;
    HRESULT hr = pfnGetClassObject(CLSID_WbemLocator, IID_IClassFactory,
                                   reinterpret_cast<void**>(pFactory.GetAddressOf()));
    if (FAILED(hr))
        return hr;
    return pFactory->CreateInstance(nullptr, IID_IWbemLocator, reinterpret_cast<void**>(ppLocator));
}

}  // namespace

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
