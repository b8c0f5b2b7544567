// Notification id 7: the state of every temperature probe of the hardware-management schema,
// classified against the probe's own thresholds.
#pragma once

#include "core/CNotfyBase.h"
#include "notifications/sensors/SensorReadings.h"

enum class ETemperatureFamily { GraphicCard, HardDisk, IndexedProbe, SystemProbe, Unsupported, Unknown };

class CNotfyTemperature : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 7;

    CNotfyTemperature();
    ~CNotfyTemperature() override;

    HRESULT RetrieveInstances() override;
    HRESULT SetEventType(unsigned long dwStatus) override;

    // The probe is the current object of source.
    HRESULT SetEventData(CCWMIAccess& source);

    static ETemperatureFamily GetFamily(LONG lSensorId);
    // Null for the families that are rejected.
    static const CSensorMessages* GetMessages(ETemperatureFamily family);
};
