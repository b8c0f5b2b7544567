#include "framework/CCEventLog.h"

#include "framework/CCQuillTrace.h"

#include <memory>
#include <vector>

namespace {

constexpr char kName[] = "CCEventLog::ReportEventA";

CCEventLogApi& CurrentApi()
{
    static CCEventLogApi s_api = CCEventLog::PlatformApi();
    return s_api;
}

// Closes the event source through the same API that opened it.
struct SourceCloser {
    BOOL(WINAPI* pfnDeregister)(HANDLE);
    void operator()(HANDLE hLog) const { pfnDeregister(hLog); }
};
using SourceHandle = std::unique_ptr<void, SourceCloser>;

}  // namespace

CCEventLogApi CCEventLog::PlatformApi()
{
    return {&::RegisterEventSourceA, &::ReportEventA, &::DeregisterEventSource};
}

CCEventLogApi CCEventLog::SetApi(const CCEventLogApi& api)
{
    const CCEventLogApi previous = CurrentApi();
    CurrentApi() = api;
    return previous;
}

WORD CCEventLog::EventType(unsigned long ulSeverity)
{
    switch (ulSeverity) {
    case 1:
        return EVENTLOG_ERROR_TYPE;
    case 2:
        return EVENTLOG_WARNING_TYPE;
    case 3:
        return EVENTLOG_INFORMATION_TYPE;
    default:
        return EVENTLOG_SUCCESS;
    }
}

DWORD CCEventLog::LoggedEventId(unsigned long ulSeverity, unsigned long ulEventId)
{
    switch (ulSeverity) {
    case 1:
        return ulEventId | 0xC0000000;
    case 2:
        return ulEventId | 0x80000000;
    case 3:
        return ulEventId | 0x40000000;
    default:
        return ulEventId;
    }
}

unsigned long CCEventLog::ReportEventA(unsigned long ulSeverity, const char* szEventSource, unsigned long ulCatId,
                                       unsigned long ulEventId, unsigned long ulArgCount, ...)
{
    va_list args;
    va_start(args, ulArgCount);
    const unsigned long ulResult = ReportEventV(ulSeverity, szEventSource, ulCatId, ulEventId, ulArgCount, args);
    va_end(args);
    return ulResult;
}

unsigned long CCEventLog::ReportEventV(unsigned long ulSeverity, const char* szEventSource, unsigned long ulCatId,
                                       unsigned long ulEventId, unsigned long ulArgCount, va_list args)
{
    CCQuillTrace& trace = GetTrace();
    trace.TraceMsg(TRACE_INFO_CC, kName, "Enter", "Method ReportEventA has been called",
                   "ulSeverity: %d, szEventSource: %s, ulCatId: %d, ulEventId: %d, ulArgCount: %d",
                   static_cast<int>(ulSeverity), szEventSource ? szEventSource : "(null)", static_cast<int>(ulCatId),
                   static_cast<int>(ulEventId), static_cast<int>(ulArgCount));
    const unsigned long ulResult = [&]() -> unsigned long {
        const CCEventLogApi api = CurrentApi();
        SourceHandle hLog(api.pfnRegisterEventSource(nullptr, szEventSource), SourceCloser{api.pfnDeregisterEventSource});
        if (!hLog) {
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "Could not open eventlog", "GetLastError: %d",
                           static_cast<int>(GetLastError()));
            return EVENTLOG_RESULT_OPEN_FAILED;
        }
        // The platform takes at most a WORD of insertion texts.
        const WORD wNumStrings = static_cast<WORD>(ulArgCount % 65536);
        BOOL bReported = FALSE;
        try {
            std::vector<LPCSTR> strings;
            if (wNumStrings > 0) {
                strings.resize(wNumStrings);
                for (WORD i = 0; i < wNumStrings; ++i)
                    strings[i] = va_arg(args, const char*);
            }
            bReported = api.pfnReportEvent(hLog.get(), EventType(ulSeverity), static_cast<WORD>(ulCatId),
                                           LoggedEventId(ulSeverity, ulEventId), nullptr, wNumStrings, 0,
                                           strings.empty() ? nullptr : strings.data(), nullptr);
        } catch (const std::bad_alloc&) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        }
        if (!bReported) {
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "ReportEvent failed. ", "GetLastError: %d",
                           static_cast<int>(GetLastError()));
            return EVENTLOG_RESULT_REPORT_FAILED;
        }
        trace.TraceMsg(TRACE_VERBOSE_CC, kName, "Internal", "Event was successfully transmitted to eventlog", "");
        return EVENTLOG_RESULT_WRITTEN;
    }();
    trace.TraceMsg(TRACE_INFO_CC, kName, "Leave", "Method CCEventLogReportEvent has been left.", "%d",
                   static_cast<int>(ulResult));
    return ulResult;
}
