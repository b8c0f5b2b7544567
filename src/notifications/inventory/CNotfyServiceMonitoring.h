// Notification id 61: services installed or removed since the previous cycle. One event for the
// whole machine holds the captions of all services and is compared with the stored one.
#pragma once

#include "notifications/inventory/CNotfyInventoryChange.h"

#include <string>
#include <vector>

class CNotfyServiceMonitoring : public CNotfyInventoryChange {
public:
    static constexpr unsigned long kNotfyId = 61;

    CNotfyServiceMonitoring();
    ~CNotfyServiceMonitoring() override;

    HRESULT RetrieveInstances() override;

    // enumerator stands on the first service; reads every Caption up to the end of the enumeration.
    // The result of CheckChanges, or a failure.
    HRESULT SetEventData(CCWMIAccess& enumerator);
    // Compares captions with the stored list; on a change arguments becomes [installed, removed].
    // 0, NOTFY_S_NO_REFERENCE, NOTFY_S_LIST_CHANGED or a failure.
    HRESULT CheckChanges(const std::vector<std::wstring>& captions, std::vector<std::wstring>& arguments);

private:
    std::string m_sDataQuery = "select * from Win32_Service";
};
