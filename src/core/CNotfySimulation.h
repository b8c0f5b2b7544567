// Notification id 59: one fixed, simulated event on every request, without reading the machine.
// The model after which the other kinds are built.
#pragma once

#include "core/CNotfyBase.h"

class CNotfySimulation : public CNotfyBase {
public:
    static constexpr unsigned long kNotfyId = 59;

    CNotfySimulation();
    ~CNotfySimulation() override;

    HRESULT DeleteObsoleteInstances() override;
    HRESULT RetrieveInstances() override;

    HRESULT SetEventData();
};
