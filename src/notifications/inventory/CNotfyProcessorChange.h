// Notification id 58: processors added, removed or changed (another family, maximum clock speed or
// processor id in the same socket), keyed by the processor number and compared with the stored
// KM_ProcessorChange_Static.
#pragma once

#include "notifications/inventory/CNotfyInventoryChange.h"

#include <string>

class CNotfyProcessorChange : public CNotfyInventoryChange {
public:
    static constexpr unsigned long kNotfyId = 58;

    CNotfyProcessorChange();
    ~CNotfyProcessorChange() override;

    HRESULT RetrieveInstances() override;

    // The processor is the current object of source. 0 for an event to be stored,
    // NOTFY_S_UNCHANGED for a known and unchanged processor, else a failure.
    HRESULT SetEventData(CCWMIAccess& source);

    // The number behind the first "CPU" of a DeviceID (or at its start when there is none): its
    // leading digits, 0 when there are none.
    static LONG GetProcessorNumber(const std::wstring& wsDeviceId);
    // True only when both ids are reported and differ, letters A to Z compared without case.
    static bool ProcessorIdsDiffer(const std::wstring& wsStored, const std::wstring& wsCurrent);

private:
    // The stored instance of the first processor is missing before the first report.
    bool IsFirstInventory(const char* szQualifiedName);
};
