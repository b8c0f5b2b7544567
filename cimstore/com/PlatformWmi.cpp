#include "cimstore/com/PlatformWmi.h"

#include "access/ComHolders.h"
#include "cimstore/CimTypes.h"

namespace cimstore::com {

namespace {

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

// How the platform says that it has no such class. Wine answers a GetObject of an unknown
// class with WBEM_E_NOT_FOUND, and rejects a name its WQL cannot read as a query.
bool MeansNoSuchClass(HRESULT hr)
{
    return hr == Hr(WBEM_E_NOT_FOUND) || hr == Hr(WBEM_E_INVALID_CLASS) || hr == Hr(WBEM_E_INVALID_NAMESPACE) ||
           hr == Hr(WBEM_E_INVALID_QUERY) || hr == Hr(WBEM_E_INVALID_OBJECT_PATH);
}

}  // namespace

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
    const HRESULT hr = pfnGetClassObject(CLSID_WbemLocator, IID_IClassFactory,
                                         reinterpret_cast<void**>(pFactory.GetAddressOf()));
    if (FAILED(hr))
        return hr;
    return pFactory->CreateInstance(nullptr, IID_IWbemLocator, reinterpret_cast<void**>(ppLocator));
}

HRESULT PlatformNamespace::GetObject(const std::wstring& wsRelPath, long lFlags, IWbemContext* pCtx,
                                     IWbemClassObject** ppObject, IWbemCallResult** ppCallResult)
{
    Microsoft::WRL::ComPtr<IWbemServices> pServices;
    HRESULT hr = Services(pServices);
    if (SUCCEEDED(hr)) {
        CCBstr bstrPath(wsRelPath);
        hr = pServices->GetObject(bstrPath.Get(), lFlags, pCtx, ppObject, ppCallResult);
    }
    // GetObject's published answer for an object nobody has, as the repository gives it.
    return MeansNoSuchClass(hr) ? Hr(WBEM_E_NOT_FOUND) : hr;
}

HRESULT PlatformNamespace::ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, const std::wstring& wsClass,
                                     long lFlags, IWbemContext* pCtx, IEnumWbemClassObject** ppEnum)
{
    Microsoft::WRL::ComPtr<IWbemServices> pServices;
    const HRESULT hr = CheckClassKnown(wsClass, pCtx, pServices);
    return FAILED(hr) ? hr : pServices->ExecQuery(strQueryLanguage, strQuery, lFlags, pCtx, ppEnum);
}

HRESULT PlatformNamespace::CreateInstanceEnum(const BSTR strClass, long lFlags, IWbemContext* pCtx,
                                              IEnumWbemClassObject** ppEnum)
{
    Microsoft::WRL::ComPtr<IWbemServices> pServices;
    const HRESULT hr = CheckClassKnown(std::wstring(strClass), pCtx, pServices);
    return FAILED(hr) ? hr : pServices->CreateInstanceEnum(strClass, lFlags, pCtx, ppEnum);
}

HRESULT PlatformNamespace::Services(Microsoft::WRL::ComPtr<IWbemServices>& pServices)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_bConnectTried) {
        m_bConnectTried = true;
        Microsoft::WRL::ComPtr<IWbemLocator> pLocator;
        m_hrConnect = CreatePlatformLocator(pLocator.GetAddressOf());
        if (SUCCEEDED(m_hrConnect)) {
            CCBstr bstrNamespace(m_wsNamespace);
            m_hrConnect = pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                                  m_pServices.ReleaseAndGetAddressOf());
        }
    }
    pServices = m_pServices;
    return m_hrConnect;
}

// Wine answers a query of an unknown class with an empty success, so the class is looked up
// first (a known class is remembered). Wine cannot show a known class without instances: it
// counts as unknown there.
HRESULT PlatformNamespace::CheckClassKnown(const std::wstring& wsClass, IWbemContext* pCtx,
                                           Microsoft::WRL::ComPtr<IWbemServices>& pServices)
{
    HRESULT hr = Services(pServices);
    if (SUCCEEDED(hr)) {
        const std::wstring wsKey = Fold(wsClass);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_knownClasses.count(wsKey))
                return S_OK;
        }
        CCBstr bstrClass(wsClass);
        Microsoft::WRL::ComPtr<IWbemClassObject> pClass;
        hr = pServices->GetObject(bstrClass.Get(), 0, pCtx, pClass.GetAddressOf(), nullptr);
        if (SUCCEEDED(hr)) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_knownClasses.insert(wsKey);
            return S_OK;
        }
    }
    return MeansNoSuchClass(hr) ? Hr(WBEM_E_INVALID_CLASS) : hr;
}

}  // namespace cimstore::com
