#include "framework/HResultError.h"

#include "framework/CCQuillTrace.h"

void RaiseHr(HRESULT hr, const char* szQualifiedName, const char* szMessage, const char* szFormat, ...)
{
    CCQuillTrace& trace = GetTrace();
    if (trace.WouldTrace(TRACE_ERROR)) {
        va_list args;
        va_start(args, szFormat);
        trace.TraceMsgV(TRACE_ERROR, szQualifiedName, "Exception", szMessage, szFormat, args);
        va_end(args);
    }
    throw HResultError{hr};
}
