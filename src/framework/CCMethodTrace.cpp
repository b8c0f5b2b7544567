#include "framework/CCMethodTrace.h"

#include <cstdio>
#include <cstring>

namespace {

const char* MethodName(const char* szQualifiedName)
{
    const char* pSep = strstr(szQualifiedName, "::");
    return pSep ? pSep + 2 : szQualifiedName;
}

}  // namespace

CCMethodTrace::CCMethodTrace(unsigned long ulLevel, const char* szQualifiedName, const char* szEnterWords,
                             const char* szFormat, ...)
    : m_ulLevel(ulLevel), m_szQualifiedName(szQualifiedName)
{
    CCQuillTrace& trace = GetTrace();
    if (!trace.WouldTrace(ulLevel))
        return;
    char szMessage[128];
    snprintf(szMessage, sizeof(szMessage), "Method %s %s", MethodName(szQualifiedName), szEnterWords);
    va_list args;
    va_start(args, szFormat);
    trace.TraceMsgV(ulLevel, szQualifiedName, "Enter", szMessage, szFormat, args);
    va_end(args);
}

CCMethodTrace::~CCMethodTrace()
{
    CCQuillTrace& trace = GetTrace();
    if (!trace.WouldTrace(m_ulLevel))
        return;
    char szMessage[128];
    snprintf(szMessage, sizeof(szMessage), "Method %s has been left.", MethodName(m_szQualifiedName));
    if (m_bHasResult)
        trace.TraceMsg(m_ulLevel, m_szQualifiedName, "Leave", szMessage, "hRet 0x%X", static_cast<unsigned>(m_hr));
    else if (m_bHasBool)
        trace.TraceMsg(m_ulLevel, m_szQualifiedName, "Leave", szMessage, "bReturn: %d", m_bResult ? 1 : 0);
    else
        trace.TraceMsg(m_ulLevel, m_szQualifiedName, "Leave", szMessage, "");
}

void TraceLifetime(const char* szClass, bool bCreated)
{
    CCQuillTrace& trace = GetTrace();
    if (!trace.WouldTrace(TRACE_INFO))
        return;
    char szName[160];
    char szMessage[160];
    snprintf(szName, sizeof(szName), "%s::%s%s", szClass, bCreated ? "" : "~", szClass);
    snprintf(szMessage, sizeof(szMessage), "An instance of %s has been %s.", szClass, bCreated ? "created" : "destroyed");
    trace.TraceMsg(TRACE_INFO, szName, "Internal", szMessage, "");
}
