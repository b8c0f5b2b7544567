// Writes an event-log entry only when the registry switches event logging on for the
// log, the source and the calling component's feature.
#pragma once

#include "framework/CCEventLog.h"

#include <cstddef>
#include <string>

class CCAssembly;

// The component as the conditional reporter sees it: its feature name selects the activation key.
class CCEventLogComponent {
public:
    virtual ~CCEventLogComponent() = default;
    virtual bool GetFeatureName(char* szFeatureName, size_t cchBuffer) = 0;
};

// A component given by its three names, as a notification object holds them from
// ComponentInitialize; lets a reporter be set up without re-reading the installation.
class CCNamedComponent : public CCEventLogComponent {
public:
    CCNamedComponent(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName);

    bool GetFeatureName(char* szFeatureName, size_t cchBuffer) override;
    const std::string& FeatureVersion() const { return m_sFeatureVersion; }
    const std::string& ContextName() const { return m_sContextName; }

private:
    std::string m_sFeatureName;
    std::string m_sFeatureVersion;
    std::string m_sContextName;
};

class CCEventLogCond {
public:
    static constexpr size_t kKeyChars = 520;

    // 1 when "Active" under the activation key of log (default "Application"), source and
    // feature is a non-zero value of at most 4 bytes, else 0.
    static unsigned long IsSourceActive(const char* szLog, const char* szEventSource, const char* szFeatureName);

    // As CCEventLog::ReportEventA, when active; the log name only selects the activation key.
    // Results: 0, 1, 2 as CCEventLog, 100 without component, 101 when not active.
    static unsigned long ReportEventCond(CCAssembly* pComponent, unsigned long ulSeverity, const char* szLog,
                                         const char* szEventSource, unsigned long ulCatId, unsigned long ulEventId,
                                         unsigned long ulArgCount, ...);
    static unsigned long ReportEventCond(CCEventLogComponent* pComponent, unsigned long ulSeverity, const char* szLog,
                                         const char* szEventSource, unsigned long ulCatId, unsigned long ulEventId,
                                         unsigned long ulArgCount, ...);
    static unsigned long ReportEventCondV(CCEventLogComponent* pComponent, unsigned long ulSeverity,
                                          const char* szLog, const char* szEventSource, unsigned long ulCatId,
                                          unsigned long ulEventId, unsigned long ulArgCount, va_list args);
};
