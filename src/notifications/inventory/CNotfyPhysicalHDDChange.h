// Notification id 65: physical hard disks. The kind is registered so that the id is known, but it
// collects nothing: both of its own operations answer "not supported".
#pragma once

#include "core/CNotfyBase.h"

class CNotfyPhysicalHDDChange : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 65;

    CNotfyPhysicalHDDChange();
    ~CNotfyPhysicalHDDChange() override;

    // Both answer WBEM_E_NOT_SUPPORTED without touching the management service.
    HRESULT RetrieveInstances() override;
    HRESULT GetObsoleteInstances() override;
};
