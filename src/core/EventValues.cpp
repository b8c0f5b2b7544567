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

void RaiseIfFailed(HRESULT hr, const char* szQualifiedName, const char* szMessage)
{
    if (FAILED(hr))
        RaiseHr(hr, szQualifiedName, szMessage, "hr 0x%X", static_cast<unsigned>(hr));
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
