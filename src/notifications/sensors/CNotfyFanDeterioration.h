// Notification id 9: a fan that slows down as its bearing wears. Each tachometer's speed is
// compared with a baseline: the maker's nominal speed, or the speed first reported.
#pragma once

#include "core/CNotfyBase.h"

// Loss of speed in percent that counts as a warning and as critical, from the kind's KM_Filter instance.
struct CFanLossLimits {
    LONGLONG llWarning = 25;   // HighWarning
    LONGLONG llCritical = 50;  // HighCritical
};

class CNotfyFanDeterioration : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 9;

    CNotfyFanDeterioration();
    ~CNotfyFanDeterioration() override;

    HRESULT RetrieveInstances() override;

    // The tachometer is the current object of source.
    HRESULT SetEventData(CCWMIAccess& source);

    // The loss of speed in whole percent: 0 when the fan runs at or above its baseline, 100 when it stands.
    static ULONG LossPercentage(ULONG ulBaseline, ULONG ulCurrent);
    // Status 1 normal, 2 warning, 3 critical for a loss.
    static unsigned long ClassifyLoss(ULONG ulLoss, const CFanLossLimits& limits);

private:
    // The baseline that was stored with the fan's last event, 0 when there is none.
    ULONG StoredBaseline();

    CFanLossLimits m_limits;
};
