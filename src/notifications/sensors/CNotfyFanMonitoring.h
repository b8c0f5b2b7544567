// Notification id 8: whether each fan tachometer of the hardware-management schema signals a
// fault, with a message number chosen by the kind of fan.
#pragma once

#include "core/CNotfyBase.h"

#include <string>
#include <vector>

// What a tachometer reports: status 1 no fault or 3 fault, the message number, and the message
// arguments (empty: EventTextArguments is not written).
struct CFanState {
    unsigned long ulStatus = 0;
    LONG lTextId = 0;
    std::vector<std::wstring> arguments;
};

class CNotfyFanMonitoring : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 8;

    CNotfyFanMonitoring();
    ~CNotfyFanMonitoring() override;

    HRESULT RetrieveInstances() override;

    // The tachometer is the current object of source.
    HRESULT SetEventData(CCWMIAccess& source);

    // False, and pState untouched, for a SensorId that names no known fan.
    static bool ClassifyFan(LONG lSensorId, bool bFanFault, CFanState* pState);
};
