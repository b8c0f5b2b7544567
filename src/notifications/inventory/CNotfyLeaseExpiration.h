// Notification id 57: the machine's lease runs, ends soon or has ended. Lease end and warning
// period are the HighCritical (seconds since 1970, UTC) and HighWarning (days) of its KM_Filter.
#pragma once

#include "core/CNotfyBase.h"

class CNotfyLeaseExpiration : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 57;

    CNotfyLeaseExpiration();
    ~CNotfyLeaseExpiration() override;

    HRESULT RetrieveInstances() override;

    // Writes ExpireDate (when a lease end is stored), EventStatus, EventTextId and EventType.
    HRESULT SetEventData();

protected:
    // Seconds since 1970-01-01 00:00:00 UTC; a test replaces the clock.
    virtual __int64 GetCurrentTime64() const;
};
