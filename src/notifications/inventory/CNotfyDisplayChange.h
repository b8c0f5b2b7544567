// Notification id 60: monitors connected to or removed from a desktop machine, keyed by their
// serial numbers and compared with the stored KM_DisplayChange_Static.
#pragma once

#include "notifications/inventory/CNotfyInventoryChange.h"

#include <string>

class CNotfyDisplayChange : public CNotfyInventoryChange {
public:
    static constexpr unsigned long kNotfyId = 60;

    CNotfyDisplayChange();
    ~CNotfyDisplayChange() override;

    HRESULT RetrieveInstances() override;
    // Stored monitors whose serial number no longer turns up among the enclosures.
    HRESULT GetObsoleteInstances() override;
    // False on portable machines and on machines whose enclosure cannot be read.
    bool IsSupported() override;

    // Only the very first cycle after installation is a first inventory; the registry remembers it.
    void CheckFirstCall();
    // szPropertyName of the desktop monitor associated with the enclosure on which source stands.
    HRESULT GetAssocProperty(CCWMIAccess& source, const char* szPropertyName, VARIANT* pvValue);
    // The enclosure is the current object of source.
    HRESULT SetEventData(CCWMIAccess& source);

private:
    std::string m_sMonitorClass = "COXL_DesktopMonitor";
    bool m_bFirstCall = false;
};
