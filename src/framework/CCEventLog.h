// Writes one entry to the Windows event log, unconditionally.
#pragma once

#include <windows.h>

#include <cstdarg>

// Result codes of the event-log reporters.
enum CCEventLogResult : unsigned long {
    EVENTLOG_RESULT_WRITTEN = 0,
    EVENTLOG_RESULT_OPEN_FAILED = 1,
    EVENTLOG_RESULT_REPORT_FAILED = 2,
    EVENTLOG_RESULT_NO_COMPONENT = 100,
    EVENTLOG_RESULT_NOT_ACTIVE = 101,
};

// The platform calls the reporter makes; replaceable so that unit tests can see what
// would be written (Wine's event log stores nothing).
struct CCEventLogApi {
    HANDLE(WINAPI* pfnRegisterEventSource)(LPCSTR szServer, LPCSTR szSource);
    BOOL(WINAPI* pfnReportEvent)(HANDLE hLog, WORD wType, WORD wCategory, DWORD dwEventId, PSID pSid,
                                 WORD wNumStrings, DWORD dwDataSize, LPCSTR* pszStrings, LPVOID pRawData);
    BOOL(WINAPI* pfnDeregisterEventSource)(HANDLE hLog);
};

class CCEventLog {
public:
    // Severity 1 error, 2 warning, 3 information, anything else success; the severity also sets
    // the top bits of the logged event id. ulArgCount narrow insertion texts follow.
    static unsigned long ReportEventA(unsigned long ulSeverity, const char* szEventSource, unsigned long ulCatId,
                                      unsigned long ulEventId, unsigned long ulArgCount, ...);
    static unsigned long ReportEventV(unsigned long ulSeverity, const char* szEventSource, unsigned long ulCatId,
                                      unsigned long ulEventId, unsigned long ulArgCount, va_list args);

    // Event type and logged event id for a severity.
    static WORD EventType(unsigned long ulSeverity);
    static DWORD LoggedEventId(unsigned long ulSeverity, unsigned long ulEventId);

    // Installs other platform calls and returns the previous ones.
    static CCEventLogApi SetApi(const CCEventLogApi& api);
    static CCEventLogApi PlatformApi();
};
