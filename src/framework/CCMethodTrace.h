// Traces a method's entry on construction and its exit, with the result, on destruction.
#pragma once

#include "framework/CCQuillTrace.h"

#include <cstdarg>

class CCMethodTrace {
public:
    // szQualifiedName is "Class::Method"; the entry line reads "Method <Method> <szEnterWords>"
    // (for example "has been entered.") with the formatted arguments.
    CCMethodTrace(unsigned long ulLevel, const char* szQualifiedName, const char* szEnterWords,
                  const char* szFormat = "", ...);
    ~CCMethodTrace();
    CCMethodTrace(const CCMethodTrace&) = delete;
    CCMethodTrace& operator=(const CCMethodTrace&) = delete;

    // Records the result for the exit line ("hRet 0x%X") and hands it back.
    HRESULT Return(HRESULT hr)
    {
        m_hr = hr;
        m_bHasResult = true;
        return hr;
    }
    // Records a bool result for the exit line ("bReturn: %d").
    bool ReturnBool(bool b)
    {
        m_bResult = b;
        m_bHasBool = true;
        return b;
    }

private:
    unsigned long m_ulLevel;
    const char* m_szQualifiedName;
    HRESULT m_hr = S_OK;
    bool m_bHasResult = false;
    bool m_bResult = false;
    bool m_bHasBool = false;
};

// Traces "An instance of <szClass> has been created." (or destroyed) under the constructor's
// (or destructor's) name.
void TraceLifetime(const char* szClass, bool bCreated);
