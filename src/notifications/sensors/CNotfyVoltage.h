// Notification id 11: the state of every voltage probe of the hardware-management schema,
// classified against the probe's own thresholds.
#pragma once

#include "core/CNotfyBase.h"
#include "notifications/sensors/SensorReadings.h"

class CNotfyVoltage : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 11;
    // One family only; the upper critical state shares the upper non-critical number on purpose.
    static constexpr CSensorMessages kMessages = {11018, 11012, 11012, 11006, 11021, 11024, 11009};

    CNotfyVoltage();
    ~CNotfyVoltage() override;

    HRESULT RetrieveInstances() override;
    HRESULT SetEventType(unsigned long dwStatus) override;

    // The probe is the current object of source.
    HRESULT SetEventData(CCWMIAccess& source);
};
