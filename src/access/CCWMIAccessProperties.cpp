// Property, qualifier and value-map operations on the current object of CCWMIAccess.
#include "access/CCWMIAccess.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kEntered[] = "has been entered.";

const char* Show(const char* sz)
{
    return sz ? sz : "(null)";
}

unsigned Address(const void* p)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

void TraceCheck(const char* szQualifiedName, const char* szMessage, HRESULT hr)
{
    GetTrace().TraceMsg(TRACE_ERROR, szQualifiedName, "Internal", szMessage, "hr 0x%X", static_cast<unsigned>(hr));
}

}  // namespace

HRESULT CCWMIAccess::GetProperty(const char* szPropertyName, VARIANT* pvPropertyValue, bool bMappedValue,
                                 long lMapOffset)
{
    constexpr char kName[] = "CCWMIAccess::GetProperty";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szPropertyName: %s, pvPropertyValue: 0x%08X, lMapOffset: %d",
                        Show(szPropertyName), Address(pvPropertyValue), static_cast<int>(lMapOffset));
    return trace.Return(CatchHr([&]() -> HRESULT {
        if (!m_pCurrentObject)
            RaiseHr(WBEM_E_UNEXPECTED, kName, "Throwing exception because class instance pointer invalid.", "");
        if (bMappedValue && !m_bLocalized)
            RaiseHr(WBEM_E_ILLEGAL_OPERATION, kName,
                    "Throwing exception because mapped value required, but localized namespace not specified (in the "
                    "connect call!)",
                    "hr 0x%X", static_cast<unsigned>(WBEM_E_ILLEGAL_OPERATION));
        if (!pvPropertyValue)
            RaiseHr(WBEM_E_INVALID_PARAMETER, kName, "Throwing exception because Get (native) failed!", "hr 0x%X",
                    static_cast<unsigned>(WBEM_E_INVALID_PARAMETER));
        CCStringConversion wsName(szPropertyName);
        HRESULT hr = m_pCurrentObject->Get(wsName.Convert2W(), 0, pvPropertyValue, nullptr, nullptr);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because Get (native) failed!", "hr 0x%X", static_cast<unsigned>(hr));
        if (bMappedValue) {
            hr = GetMappedProperty(szPropertyName, pvPropertyValue, lMapOffset);
            if (FAILED(hr)) {
                VariantClear(pvPropertyValue);
                RaiseHr(hr, kName, "Throwing exception because GetMappedProperty failed! Returning empty variant",
                        "hr 0x%X", static_cast<unsigned>(hr));
            }
        }
        return hr;
    }));
}

HRESULT CCWMIAccess::SetProperty(const char* szPropertyName, VARIANT* pvPropertyValue)
{
    constexpr char kName[] = "CCWMIAccess::SetProperty";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szPropertyName: %s, pvPropertyValue: 0x%08X",
                        Show(szPropertyName), Address(pvPropertyValue));
    if (!m_pCurrentObject) {
        TraceCheck(kName, "Instance pointer member invalid,", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    CCStringConversion wsName(szPropertyName);
    return trace.Return(m_pCurrentObject->Put(wsName.Convert2W(), 0, pvPropertyValue, 0));
}

HRESULT CCWMIAccess::QualifierOperation(IWbemClassObject* pObject, const char* szQualifierName,
                                        VARIANT* pvQualifierValue, const char* szPropertyName, bool bPut,
                                        long lFlavor, const char* szQualifiedName)
{
    ComPtr<IWbemQualifierSet> pQualifiers;
    HRESULT hr;
    if (szPropertyName) {
        CCStringConversion wsProperty(szPropertyName);
        hr = pObject->GetPropertyQualifierSet(wsProperty.Convert2W(), pQualifiers.GetAddressOf());
    } else {
        hr = pObject->GetQualifierSet(pQualifiers.GetAddressOf());
    }
    if (FAILED(hr) || !pQualifiers) {
        TraceCheck(szQualifiedName, "Error calling GetQualifierSet or GetPropertyQualifierSet (native)", hr);
        return FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_FAILED);
    }
    CCStringConversion wsQualifier(szQualifierName);
    if (bPut)
        return pQualifiers->Put(wsQualifier.Convert2W(), pvQualifierValue, lFlavor);
    return pQualifiers->Get(wsQualifier.Convert2W(), 0, pvQualifierValue, nullptr);
}

HRESULT CCWMIAccess::GetQualifier(const char* szQualifierName, VARIANT* pvQualifierValue, const char* szPropertyName)
{
    constexpr char kName[] = "CCWMIAccess::GetQualifier";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szQualifierName: %s, szPropertyName: %s",
                        Show(szQualifierName), Show(szPropertyName));
    if (!m_pCurrentObject) {
        TraceCheck(kName, "class instance pointer member invalid.", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    return trace.Return(QualifierOperation(m_pCurrentObject.Get(), szQualifierName, pvQualifierValue, szPropertyName,
                                           false, 0, kName));
}

HRESULT CCWMIAccess::SetQualifier(const char* szQualifierName, VARIANT* pvQualifierValue, const char* szPropertyName)
{
    constexpr char kName[] = "CCWMIAccess::SetQualifier";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szQualifierName: %s, szPropertyName: %s",
                        Show(szQualifierName), Show(szPropertyName));
    if (!m_pCurrentObject) {
        TraceCheck(kName, "class instance pointer member invalid.", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    return trace.Return(QualifierOperation(m_pCurrentObject.Get(), szQualifierName, pvQualifierValue, szPropertyName,
                                           true, m_bLocalized ? kFlagAmended : 0, kName));
}

HRESULT CCWMIAccess::GetClassQualifier(const char* szClassName, const char* szQualifierName,
                                       VARIANT* pvQualifierValue, const char* szPropertyName)
{
    constexpr char kName[] = "CCWMIAccess::GetClassQualifier";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szClassName: %s, szQualifierName: %s, szPropertyName: %s",
                        Show(szClassName), Show(szQualifierName), Show(szPropertyName));
    if (!m_pServices) {
        TraceCheck(kName, "Namespace pointer invalid, but shouldnt be.", WBEM_E_INITIALIZATION_FAILURE);
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    }
    CCStringConversion wsClass(szClassName);
    CCBstr bstrClass(wsClass.Convert2W());
    ComPtr<IWbemClassObject> pClass;
    const HRESULT hr = m_pServices->GetObject(bstrClass.Get(), ServiceFlags(0), m_pContext.Get(),
                                              pClass.GetAddressOf(), nullptr);
    if (FAILED(hr) || !pClass)
        return trace.Return(hr);
    return trace.Return(
        QualifierOperation(pClass.Get(), szQualifierName, pvQualifierValue, szPropertyName, false, 0, kName));
}

HRESULT CCWMIAccess::GetMappedProperty(const char* szPropertyName, VARIANT* pvValue, long lMapOffset)
{
    constexpr char kName[] = "CCWMIAccess::GetMappedProperty";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szPropertyName: %s, pvValue: 0x%08X, lMapOffset: %d",
                        Show(szPropertyName), Address(pvValue), static_cast<int>(lMapOffset));
    return trace.Return(CatchHr([&]() -> HRESULT {
        if (!m_pServices)
            RaiseHr(WBEM_E_INITIALIZATION_FAILURE, kName,
                    "Throwing exception because namespace pointer member invalid!", "");
        if (!m_pCurrentObject || !pvValue)
            RaiseHr(WBEM_E_UNEXPECTED, kName, "Throwing exception because class instance pointer invalid.", "");

        CCVariant varClass;
        HRESULT hr = m_pCurrentObject->Get(L"__CLASS", 0, varClass.GetAddress(), nullptr, nullptr);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because Get (native) on '__CLASS' failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        if (varClass.Type() != VT_BSTR)
            RaiseHr(WBEM_E_TYPE_MISMATCH, kName, "Throwing exception because classname should be BSTR, but isn't",
                    "");
        CCStringConversion className(V_BSTR(&varClass.Get()));
        const char* szClassName = className.Convert2A();

        CCVariant varValues;
        hr = GetClassQualifier(szClassName, "Values", varValues.GetAddress(), szPropertyName);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because GetClassQualifier on 'Values' failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        // Both are read element by element into texts: an array of anything else is refused too.
        if (varValues.Type() != (VT_ARRAY | VT_BSTR) || !V_ARRAY(&varValues.Get()))
            RaiseHr(WBEM_E_TYPE_MISMATCH, kName, "Throwing exception because 'Values' is not an array, but should be!",
                    "");
        CCVariant varValueMap;
        hr = GetClassQualifier(szClassName, "ValueMap", varValueMap.GetAddress(), szPropertyName);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because GetClassQualifier on 'ValueMap' failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        if (varValueMap.Type() != (VT_ARRAY | VT_BSTR) || !V_ARRAY(&varValueMap.Get()))
            RaiseHr(WBEM_E_TYPE_MISMATCH, kName,
                    "Throwing exception because 'ValueMap' is not an array, but should be!", "");

        // A property without a value has nothing to map.
        if (V_VT(pvValue) == VT_NULL || V_VT(pvValue) == VT_EMPTY)
            return S_OK;
        // The raw value as a 32-bit integer, whatever integer type the service delivered it in.
        CCVariant varNumber;
        if (FAILED(VariantChangeType(varNumber.GetAddress(), pvValue, 0, VT_I4)))
            RaiseHr(WBEM_E_TYPE_MISMATCH, kName, "Throwing exception because _ltow_s failed!", "");
        wchar_t wszNumber[260] = {};
        if (_ltow_s(V_I4(&varNumber.Get()), wszNumber, 260, 10) != 0)
            RaiseHr(WBEM_E_UNEXPECTED, kName, "Throwing exception because _ltow_s failed!", "");

        SAFEARRAY* psaMap = V_ARRAY(&varValueMap.Get());
        SAFEARRAY* psaValues = V_ARRAY(&varValues.Get());
        LONG lMapLower = 0;
        LONG lMapUpper = -1;
        SafeArrayGetLBound(psaMap, 1, &lMapLower);
        SafeArrayGetUBound(psaMap, 1, &lMapUpper);
        // The last entry is never compared: it stands for every value the others do not list.
        LONG lIndex = lMapLower;
        for (; lIndex < lMapUpper; ++lIndex) {
            CCBstr bstrEntry;
            if (SUCCEEDED(SafeArrayGetElement(psaMap, &lIndex, bstrEntry.GetAddress())) && bstrEntry &&
                _wcsicmp(bstrEntry.Get(), wszNumber) == 0)
                break;
        }
        lIndex += lMapOffset;
        LONG lValuesLower = 0;
        LONG lValuesUpper = -1;
        SafeArrayGetLBound(psaValues, 1, &lValuesLower);
        SafeArrayGetUBound(psaValues, 1, &lValuesUpper);
        if (lIndex > lValuesUpper || lIndex < lValuesLower)
            RaiseHr(WBEM_E_VALUE_OUT_OF_RANGE, kName, "Throwing exception because index out of range", "");
        CCBstr bstrText;
        hr = SafeArrayGetElement(psaValues, &lIndex, bstrText.GetAddress());
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because index out of range", "");
        VariantClear(pvValue);
        V_VT(pvValue) = VT_BSTR;
        V_BSTR(pvValue) = bstrText.Detach();
        return S_OK;
    }));
}

HRESULT CCWMIAccess::BeginPropertyEnumeration()
{
    constexpr char kName[] = "CCWMIAccess::BeginPropertyEnumeration";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered);
    if (!m_pCurrentObject) {
        TraceCheck(kName, "Class instance invalid, but shouldn't be.", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    return trace.Return(m_pCurrentObject->BeginEnumeration(0));
}

HRESULT CCWMIAccess::EndPropertyEnumeration()
{
    constexpr char kName[] = "CCWMIAccess::EndPropertyEnumeration";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered);
    if (!m_pCurrentObject) {
        TraceCheck(kName, "Class instance invalid, but shouldn't be.", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    return trace.Return(m_pCurrentObject->EndEnumeration());
}

HRESULT CCWMIAccess::GetNextProperty(char* szPropertyName, VARIANT* pvPropertyValue, DWORD dwBufferSizePropName,
                                     bool bMappedValue, long lMapOffset)
{
    constexpr char kName[] = "CCWMIAccess::GetNextProperty";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "dwBufferSizePropName: %lu, lMapOffset: %d",
                        static_cast<unsigned long>(dwBufferSizePropName), static_cast<int>(lMapOffset));
    if (!m_pCurrentObject) {
        TraceCheck(kName, "Instance pointer member invalid.", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    if (!pvPropertyValue)
        return trace.Return(WBEM_E_INVALID_PARAMETER);
    CCBstr bstrName;
    HRESULT hr = m_pCurrentObject->Next(0, bstrName.GetAddress(), pvPropertyValue, nullptr, nullptr);
    if (FAILED(hr))
        return trace.Return(hr);
    if (hr == WBEM_S_NO_MORE_DATA) {
        GetTrace().TraceMsg(TRACE_VERBOSE_CC, kName, "Internal", "No data available or end of enumeration reached.",
                            "");
        return trace.Return(WBEM_E_NOT_AVAILABLE);
    }
    const size_t cchName = bstrName ? wcslen(bstrName.Get()) : 0;
    if (!szPropertyName || dwBufferSizePropName < cchName + 1) {
        VariantClear(pvPropertyValue);
        TraceCheck(kName, "Supplied buffer to small, return emtpy variant!", WBEM_E_OUT_OF_MEMORY);
        return trace.Return(WBEM_E_OUT_OF_MEMORY);
    }
    CCStringConversion name(bstrName.Get() ? bstrName.Get() : L"");
    const char* szName = name.Convert2A();
    // Checked before copying: the runtime's bounded copy would end the process on overflow.
    if (!szName || strlen(szName) + 1 > dwBufferSizePropName) {
        VariantClear(pvPropertyValue);
        TraceCheck(kName, "Error copying the propertyname with _tcscpy_s. Return an empty variant!", WBEM_E_UNEXPECTED);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    memcpy(szPropertyName, szName, strlen(szName) + 1);
    GetTrace().TraceMsg(TRACE_VERBOSE_CC, kName, "Internal", "If raw data is required (not mapped), we are done here.",
                        "");
    if (bMappedValue) {
        hr = GetMappedProperty(szPropertyName, pvPropertyValue, lMapOffset);
        if (hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND) || hr == static_cast<HRESULT>(WBEM_E_SYSTEM_PROPERTY)) {
            hr = S_OK;
        } else if (FAILED(hr)) {
            VariantClear(pvPropertyValue);
            TraceCheck(kName, "Error getting the mapped property. Return an empty variant!", hr);
        }
    }
    return trace.Return(hr);
}
