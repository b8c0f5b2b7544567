#include "WbemTestClient.h"

using Microsoft::WRL::ComPtr;

HRESULT ConnectWmi(const wchar_t* wszNamespace, ComPtr<IWbemServices>& pServices, IWbemContext* pContext)
{
    ComPtr<IWbemLocator> pLocator;
    CCBstr bstrNamespace(wszNamespace);
    const HRESULT hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                        reinterpret_cast<void**>(pLocator.GetAddressOf()));
    return FAILED(hr) ? hr : pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr,
                                                     pContext, pServices.ReleaseAndGetAddressOf());
}

HRESULT QueryAll(IWbemServices* pServices, const std::wstring& wsQuery, WbemObjects& out)
{
    out.clear();
    CCBstr bstrLanguage(L"WQL");
    CCBstr bstrQuery(wsQuery.c_str());
    ComPtr<IEnumWbemClassObject> pEnum;
    HRESULT hr = pServices->ExecQuery(bstrLanguage.Get(), bstrQuery.Get(), WBEM_FLAG_FORWARD_ONLY, nullptr,
                                      pEnum.GetAddressOf());
    for (ULONG uReturned = 1; SUCCEEDED(hr) && uReturned == 1;) {
        ComPtr<IWbemClassObject> pObject;
        hr = pEnum->Next(WBEM_INFINITE, 1, pObject.GetAddressOf(), &uReturned);
        if (pObject)
            out.push_back(pObject);
    }
    return FAILED(hr) ? hr : S_OK;
}

HRESULT GetObjectByPath(IWbemServices* pServices, const std::wstring& wsPath, ComPtr<IWbemClassObject>& pObject)
{
    CCBstr bstrPath(wsPath.c_str());
    return pServices->GetObject(bstrPath.Get(), 0, nullptr, pObject.ReleaseAndGetAddressOf(), nullptr);
}

std::wstring PropertyText(IWbemClassObject* pObject, const wchar_t* wszName)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszName, 0, value.GetAddress(), nullptr, nullptr)))
        return L"<error>";
    if (value.Type() == VT_NULL || value.Type() == VT_EMPTY)
        return L"";
    if (value.Type() != VT_BSTR && FAILED(VariantChangeType(value.Ptr(), value.Ptr(), 0, VT_BSTR)))
        return L"<unprintable>";
    return V_BSTR(&value.Get()) ? V_BSTR(&value.Get()) : L"";
}
