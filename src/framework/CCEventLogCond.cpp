#include "framework/CCEventLogCond.h"

#include "framework/CCAssembly.h"
#include "framework/CCMethodTrace.h"
#include "framework/CCQuillTrace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>

namespace {

constexpr char kCondName[] = "CCEventLogCond::ReportEventCond";

struct KeyCloser {
    void operator()(HKEY hKey) const { RegCloseKey(hKey); }
};
using KeyHandle = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

class CAssemblyComponent : public CCEventLogComponent {
public:
    explicit CAssemblyComponent(CCAssembly& assembly) : m_assembly(assembly) {}
    bool GetFeatureName(char* szFeatureName, size_t cchBuffer) override
    {
        return m_assembly.GetFeatureName(szFeatureName, cchBuffer);
    }

private:
    CCAssembly& m_assembly;
};

const char* OrNull(const char* sz)
{
    return sz ? sz : "(null)";
}

}  // namespace

CCNamedComponent::CCNamedComponent(const char* szFeatureName, const char* szFeatureVersion,
                                   const char* szContextName)
    : m_sFeatureName(szFeatureName ? szFeatureName : ""),
      m_sFeatureVersion(szFeatureVersion ? szFeatureVersion : ""),
      m_sContextName(szContextName ? szContextName : "")
{
}

bool CCNamedComponent::GetFeatureName(char* szFeatureName, size_t cchBuffer)
{
    if (!szFeatureName || cchBuffer == 0)
        return false;
    const size_t cchCopy = std::min(m_sFeatureName.size(), cchBuffer - 1);
    memcpy(szFeatureName, m_sFeatureName.data(), cchCopy);
    szFeatureName[cchCopy] = '\0';
    return cchCopy == m_sFeatureName.size();
}

unsigned long CCEventLogCond::IsSourceActive(const char* szLog, const char* szEventSource, const char* szFeatureName)
{
    CCMethodTrace trace(TRACE_INFO_CC, "CCEventLogCond::IsSourceActive", "has been called",
                        "szLog: %s, szEventSource: %s, szFeatureName: %s", OrNull(szLog), OrNull(szEventSource),
                        OrNull(szFeatureName));
    const char* szLogName = (szLog && *szLog) ? szLog : "Application";
    char szKey[kKeyChars];
    const int cch = snprintf(szKey, sizeof(szKey), "SYSTEM\\CurrentControlSet\\Services\\Eventlog\\%s\\%s\\Activation\\%s",
                             szLogName, szEventSource ? szEventSource : "", szFeatureName ? szFeatureName : "");
    // A cut path could name another feature's key.
    if (cch < 0 || static_cast<size_t>(cch) >= sizeof(szKey))
        return trace.ReturnBool(false);
    HKEY hRaw = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, szKey, 0, KEY_READ, &hRaw) != ERROR_SUCCESS)
        return trace.ReturnBool(false);
    KeyHandle hKey(hRaw);
    DWORD dwActive = 0;
    DWORD cbActive = sizeof(dwActive);
    // The type is not checked: any value of up to four bytes counts.
    const LONG lResult =
        RegQueryValueExA(hKey.get(), "Active", nullptr, nullptr, reinterpret_cast<BYTE*>(&dwActive), &cbActive);
    return trace.ReturnBool(lResult == ERROR_SUCCESS && dwActive != 0) ? 1 : 0;
}

unsigned long CCEventLogCond::ReportEventCond(CCAssembly* pComponent, unsigned long ulSeverity, const char* szLog,
                                              const char* szEventSource, unsigned long ulCatId,
                                              unsigned long ulEventId, unsigned long ulArgCount, ...)
{
    // On the stack: reporting must not fail for want of memory before it starts.
    std::optional<CAssemblyComponent> adapter;
    if (pComponent)
        adapter.emplace(*pComponent);
    va_list args;
    va_start(args, ulArgCount);
    const unsigned long ulResult =
        ReportEventCondV(adapter ? &*adapter : nullptr, ulSeverity, szLog, szEventSource, ulCatId, ulEventId, ulArgCount, args);
    va_end(args);
    return ulResult;
}

unsigned long CCEventLogCond::ReportEventCond(CCEventLogComponent* pComponent, unsigned long ulSeverity,
                                              const char* szLog, const char* szEventSource, unsigned long ulCatId,
                                              unsigned long ulEventId, unsigned long ulArgCount, ...)
{
    va_list args;
    va_start(args, ulArgCount);
    const unsigned long ulResult =
        ReportEventCondV(pComponent, ulSeverity, szLog, szEventSource, ulCatId, ulEventId, ulArgCount, args);
    va_end(args);
    return ulResult;
}

unsigned long CCEventLogCond::ReportEventCondV(CCEventLogComponent* pComponent, unsigned long ulSeverity,
                                               const char* szLog, const char* szEventSource, unsigned long ulCatId,
                                               unsigned long ulEventId, unsigned long ulArgCount, va_list args)
{
    CCQuillTrace& trace = GetTrace();
    trace.TraceMsg(TRACE_INFO_CC, kCondName, "Enter", "Method ReportEventCond has been called",
                   "ulSeverity: %d, szLog: %s, szEventSource: %s, ulCatId: %d, ulEventId: %d, ulArgCount: %d",
                   static_cast<int>(ulSeverity), OrNull(szLog), OrNull(szEventSource), static_cast<int>(ulCatId),
                   static_cast<int>(ulEventId), static_cast<int>(ulArgCount));
    // Nothing may escape to the caller, which can be a COM method or an export.
    const unsigned long ulResult = [&]() -> unsigned long {
        try {
            if (!pComponent) {
                trace.TraceMsg(TRACE_ERROR, kCondName, "Internal", "Assemlby pointer is null, I cannot continue!", "");
                return EVENTLOG_RESULT_NO_COMPONENT;
            }
            char szFeatureName[260] = {};
            pComponent->GetFeatureName(szFeatureName, sizeof(szFeatureName));
            if (!IsSourceActive(szLog, szEventSource, szFeatureName)) {
                trace.TraceMsg(TRACE_VERBOSE, kCondName, "Internal", "Eventlogging is not active", "Log %s, Source %s",
                               OrNull(szLog), OrNull(szEventSource));
                return EVENTLOG_RESULT_NOT_ACTIVE;
            }
            return CCEventLog::ReportEventV(ulSeverity, szEventSource, ulCatId, ulEventId, ulArgCount, args);
        } catch (...) {
            trace.TraceMsg(TRACE_ERROR, kCondName, "Internal", "Reporting the event failed.", "");
            return EVENTLOG_RESULT_REPORT_FAILED;
        }
    }();
    trace.TraceMsg(TRACE_INFO_CC, kCondName, "Leave", "Method CCEventLogReportEvent has been left.", "%d",
                   static_cast<int>(ulResult));
    return ulResult;
}
