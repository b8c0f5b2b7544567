// Notification id 23: drives and other media access devices attached to or removed from
// the IDE and SCSI controllers, found by comparing with the stored KM_DeviceChange_Static.
#pragma once

#include "notifications/inventory/CNotfyInventoryChange.h"

#include <vector>

class CNotfyDeviceChange : public CNotfyInventoryChange {
public:
    static constexpr unsigned long kNotfyId = 23;

    CNotfyDeviceChange();
    ~CNotfyDeviceChange() override;

    HRESULT RetrieveInstances() override;

    // Key of the device on which enumerator stands: the __PATH of its controller association
    // (or, for a kind without controller associations, of the PnP entity itself). False when it
    // has none (the device is not reported).
    bool GetUniqueId(CCWMIAccess& enumerator, VARIANT* pvId);
    // 0 for an event to be stored, NOTFY_S_UNCHANGED for a known device, else a failure.
    HRESULT SetEventData(CCWMIAccess& enumerator);

protected:
    // What a kind on the same association walk changes.
    struct CAssociationKind {
        const char* szKindName;
        unsigned long ulNotfyId;
        const char* szEventClass;
        const char* szSourceClass;
        std::vector<const char*> controllerAssociations;  // empty: the PnP entity is its own key
        bool bWriteDeviceIdTarget;
    };
    explicit CNotfyDeviceChange(const CAssociationKind& kind);

private:
    std::string m_sResultClass = "Win32_PnPEntity";
    std::string m_sSourceClass;
    std::vector<const char*> m_controllerAssociations;
    bool m_bWriteDeviceIdTarget;
};
