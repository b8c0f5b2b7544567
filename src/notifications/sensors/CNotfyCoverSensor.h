// Notification id 3: the cabinet intrusion switch. The switch is optional, so an open switch is
// reported only once a closed one has been stored.
#pragma once

#include "notifications/sensors/CNotfyCoverBase.h"

class CNotfyCoverSensor : public CNotfyCoverBase {
public:
    static constexpr unsigned long kNotfyId = 3;

    CNotfyCoverSensor();
    ~CNotfyCoverSensor() override;

    HRESULT RetrieveInstances() override;
    HRESULT DeleteObsoleteInstances() override;

    // The switch is the current object of source. Writes EventType itself; NOTFY_S_SKIP when
    // there is nothing to report.
    HRESULT SetEventData(CCWMIAccess& source);
};
