// Notification id 23: drives and other media access devices attached to or removed from
// the IDE and SCSI controllers, found by comparing with the stored KM_DeviceChange_Static.
#pragma once

#include "core/CNotfyBase.h"

#include <array>

class CNotfyDeviceChange : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 23;

    CNotfyDeviceChange();
    ~CNotfyDeviceChange() override;

    HRESULT RetrieveInstances() override;

    // Key of the device on which enumerator stands: the __PATH of its controller association.
    // False when it has none (the device is not reported).
    bool GetUniqueId(CCWMIAccess& enumerator, VARIANT* pvId);
    // 0 for an event to be stored, NOTFY_S_UNCHANGED for a known device, else a failure.
    HRESULT SetEventData(CCWMIAccess& enumerator);
    HRESULT AddObsoleteInstances();

private:
    // Puts the failing class or query into the event log when logging is on for the feature.
    void ReportQueryFailure(const char* szArgument);

    std::string m_sResultClass = "Win32_PnPEntity";
    std::string m_sSourceClass = "CIM_MediaAccessDevice";
    std::array<const char*, 2> m_aszControllerAssociations = {"Win32_IDEControllerDevice",
                                                              "Win32_SCSIControllerDevice"};
};
