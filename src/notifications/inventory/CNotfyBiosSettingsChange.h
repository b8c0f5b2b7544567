// Notification id 63: the monitored BIOS settings compared with their nominal (wanted) values;
// a deviation is reported once, and so is the return to the nominal configuration.
#pragma once

#include "core/CNotfyBase.h"

class CNotfyBiosSettingsChange : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 63;
    static constexpr char kNominalClass[] = "COXL_BiosSettings_NominalCondition";

    CNotfyBiosSettingsChange();
    ~CNotfyBiosSettingsChange() override;

    HRESULT RetrieveInstances() override;
    // A deviation is a worsening (1); the return to nominal is reported like an unchanged state (3).
    HRESULT SetEventType(unsigned long dwStatus) override;

    // The settings instance is the current object of source; its property enumeration is used.
    HRESULT SetEventData(CCWMIAccess& source);
};
