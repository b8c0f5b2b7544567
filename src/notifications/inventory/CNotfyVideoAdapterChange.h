// Notification id 64: video adapters added or removed, on the association walk of the device
// change kind with the adapter's own Plug and Play entity as the key.
#pragma once

#include "notifications/inventory/CNotfyDeviceChange.h"

class CNotfyVideoAdapterChange : public CNotfyDeviceChange {
public:
    static constexpr unsigned long kNotfyId = 64;

    CNotfyVideoAdapterChange();
};
