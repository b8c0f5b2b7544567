// Notification id 22: the main memory visible to the operating system has grown or shrunk, in
// whole megabytes and beyond a small tolerance, since the size stored with the last report.
#pragma once

#include "core/CNotfyBase.h"

class CNotfyMemoryChange : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 22;

    CNotfyMemoryChange();
    ~CNotfyMemoryChange() override;

    HRESULT RetrieveInstances() override;

    // The operating system is the current object of os. NOTFY_S_UNCHANGED when the size equals
    // the stored one exactly.
    HRESULT SetEventData(CCWMIAccess& os);

private:
    unsigned long m_ulTolerance = 4;  // megabytes
};
