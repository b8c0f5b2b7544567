// Notification id 7: the state of every temperature probe of the hardware-management schema,
// classified against the probe's own thresholds.
#pragma once

#include "core/CNotfyBase.h"

#include <climits>

// The six thresholds of a probe; an absent one is never reached.
struct CTemperatureThresholds {
    LONG lUpperNonCritical = LONG_MAX;
    LONG lUpperCritical = LONG_MAX;
    LONG lUpperDefect = LONG_MAX;
    LONG lLowerNonCritical = LONG_MIN;
    LONG lLowerCritical = LONG_MIN;
    LONG lLowerDefect = LONG_MIN;
};

enum class ETemperatureFamily { GraphicCard, HardDisk, IndexedProbe, SystemProbe, Unsupported, Unknown };

// Message numbers of one family, by the state that was reached.
struct CTemperatureMessages {
    LONG lNormal;
    LONG lUpperNonCritical;
    LONG lUpperCritical;
    LONG lUpperDefect;
    LONG lLower;
    LONG lLowerDefect;
};

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
    static const CTemperatureMessages* GetMessages(ETemperatureFamily family);
    // Status 1 normal, 2 warning, 3 critical, and the family's message number for it.
    static void Classify(const CTemperatureMessages& messages, LONG lReading, const CTemperatureThresholds& limits,
                         unsigned long* pulStatus, LONG* plTextId);
};
