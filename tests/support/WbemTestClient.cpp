#include "WbemTestClient.h"

#include <gtest/gtest.h>

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

WbemObjects ReturnedObjects(const CCVariant& value)
{
    WbemObjects objects;
    if (!(value.Type() & VT_ARRAY))  // a failed request leaves the caller's VARIANT as it was
        return objects;
    SAFEARRAY* psa = value.Type() == (VT_ARRAY | VT_VARIANT) ? V_ARRAY(&value.Get()) : nullptr;
    VARIANT* pElements = nullptr;
    if (!psa || psa->cDims != 1 || psa->rgsabound[0].lLbound != 0 ||
        FAILED(SafeArrayAccessData(psa, reinterpret_cast<void**>(&pElements)))) {
        ADD_FAILURE() << "no array from 0, type " << value.Type();
        return objects;
    }
    for (ULONG i = 0; i < psa->rgsabound[0].cElements; ++i) {
        ComPtr<IWbemClassObject> pObject;
        if (V_VT(&pElements[i]) != VT_UNKNOWN || !V_UNKNOWN(&pElements[i]) ||
            FAILED(V_UNKNOWN(&pElements[i])->QueryInterface(IID_IWbemClassObject,
                                                            reinterpret_cast<void**>(pObject.GetAddressOf()))))
            ADD_FAILURE() << "element " << i << " is no instance";
        else
            objects.push_back(pObject);
    }
    SafeArrayUnaccessData(psa);
    return objects;
}
