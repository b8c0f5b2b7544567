#include "core/EventValues.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "framework/CCQuillTrace.h"
#include "framework/HResultError.h"

HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_I4;
    V_I4(value.Ptr()) = lValue;
    return access.SetProperty(szProperty, value.Ptr());
}

HRESULT PutText(CCWMIAccess& access, const char* szProperty, const std::wstring& wsValue)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_BSTR;
    V_BSTR(value.Ptr()) = SysAllocStringLen(wsValue.data(), static_cast<UINT>(wsValue.size()));
    if (!V_BSTR(value.Ptr()))
        return WBEM_E_OUT_OF_MEMORY;
    return access.SetProperty(szProperty, value.Ptr());
}

HRESULT PutTextArray(CCWMIAccess& access, const char* szProperty, const std::vector<std::wstring>& texts)
{
    CCSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size())));
    if (!array.Get())
        return WBEM_E_OUT_OF_MEMORY;
    for (LONG l = 0; l < static_cast<LONG>(texts.size()); ++l) {
        CCBstr text{std::wstring_view(texts[l])};
        if (!text)
            return WBEM_E_OUT_OF_MEMORY;
        // SafeArrayPutElement copies the string.
        const HRESULT hr = SafeArrayPutElement(array.Get(), &l, text.Get());
        if (FAILED(hr))
            return hr;
    }
    CCVariant value;
    V_VT(value.Ptr()) = VT_ARRAY | VT_BSTR;
    V_ARRAY(value.Ptr()) = array.Detach();
    return access.SetProperty(szProperty, value.Ptr());
}

void WriteEventState(CCWMIAccess& event, LONG lStatus, LONG lTextId, const char* szQualifiedName)
{
    RaiseIfFailed(PutI4(event, "EventStatus", lStatus), szQualifiedName,
                  "Raising exception because SetProperty on 'EventStatus' failed");
    RaiseIfFailed(PutI4(event, "EventTextId", lTextId), szQualifiedName,
                  "Raising exception because SetProperty on 'EventTextId' failed");
}

HRESULT ReadI4(CCWMIAccess& access, const char* szProperty, LONG* plValue)
{
    CCVariant value;
    const HRESULT hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (FAILED(hr))
        return hr;
    if (value.Type() == VT_I4)
        *plValue = V_I4(&value.Get());
    else if (value.Type() == VT_UI4)
        *plValue = static_cast<LONG>(V_UI4(&value.Get()));
    else
        return WBEM_E_TYPE_MISMATCH;
    return hr;
}

HRESULT ReadText(CCWMIAccess& access, const char* szProperty, std::wstring* pwsValue)
{
    CCVariant value;
    const HRESULT hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (FAILED(hr))
        return hr;
    if (value.Type() != VT_BSTR)
        return WBEM_E_TYPE_MISMATCH;
    const BSTR bstr = V_BSTR(&value.Get());
    // The text ends at its first NUL: Wine's WMI hands out BSTRs whose length runs past it.
    pwsValue->assign(bstr ? bstr : L"", bstr ? wcsnlen(bstr, SysStringLen(bstr)) : 0);
    return hr;
}

HRESULT ReadBool(CCWMIAccess& access, const char* szProperty, bool* pbValue)
{
    CCVariant value;
    const HRESULT hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (FAILED(hr))
        return hr;
    if (value.Type() != VT_BOOL)
        return WBEM_E_TYPE_MISMATCH;
    *pbValue = V_BOOL(&value.Get()) != VARIANT_FALSE;
    return hr;
}

HRESULT ReadTextArray(CCWMIAccess& access, const char* szProperty, std::vector<std::wstring>* pTexts)
{
    CCVariant value;
    HRESULT hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (FAILED(hr))
        return hr;
    if (value.Type() != (VT_ARRAY | VT_BSTR) || !V_ARRAY(&value.Get()))
        return WBEM_E_TYPE_MISMATCH;
    SAFEARRAY* psa = V_ARRAY(&value.Get());
    LONG lLower = 0;
    LONG lUpper = -1;
    if (FAILED(SafeArrayGetLBound(psa, 1, &lLower)) || FAILED(SafeArrayGetUBound(psa, 1, &lUpper)))
        return WBEM_E_TYPE_MISMATCH;
    pTexts->clear();
    for (LONG l = lLower; l <= lUpper; ++l) {
        CCBstr text;
        const HRESULT hrElement = SafeArrayGetElement(psa, &l, text.GetAddress());
        if (FAILED(hrElement))
            return hrElement;
        pTexts->emplace_back(text.Get() ? text.Get() : L"", text.Length());
    }
    return hr;
}

HRESULT GetObjectAt(CCWMIAccess& access, const wchar_t* wszPath)
{
    CCStringConversion path(wszPath);
    const char* szPath = path.Convert2A();
    // A null path would fetch an empty class object instead of failing.
    if (!szPath)
        return WBEM_E_INVALID_OBJECT_PATH;
    return access.GetObject(szPath);
}

std::wstring QuotedText(const std::wstring& wsText)
{
    std::wstring wsQuoted = L"\"";
    for (const wchar_t wc : wsText) {
        if (wc == L'"' || wc == L'\\')
            wsQuoted += L'\\';
        wsQuoted += wc;
    }
    return wsQuoted + L"\"";
}

void RaiseIfFailed(HRESULT hr, const char* szQualifiedName, const char* szMessage)
{
    if (FAILED(hr))
        RaiseHr(hr, szQualifiedName, szMessage, "hr 0x%X", static_cast<unsigned>(hr));
}

void RaiseSkip(HRESULT hr, const char* szQualifiedName, const char* szMessage)
{
    GetTrace().TraceMsg(TRACE_INFO, szQualifiedName, "Exception", szMessage, "hr: 0x%x", static_cast<unsigned>(hr));
    throw HResultError{hr};
}

void TraceContinue(const char* szQualifiedName, HRESULT hr)
{
    GetTrace().TraceMsg(TRACE_WARNING, szQualifiedName, "Exception",
                        "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just "
                        "continue in the loop!",
                        "hr: 0x%x", static_cast<unsigned>(hr));
}

std::string NarrowText(const VARIANT& value)
{
    if (V_VT(&value) != VT_BSTR || !V_BSTR(&value))
        return std::string();
    CCStringConversion text(V_BSTR(&value));
    const char* sz = text.Convert2A();
    return sz ? std::string(sz) : std::string();
}
