#include "notifications/inventory/CNotfyVideoAdapterChange.h"

CNotfyVideoAdapterChange::CNotfyVideoAdapterChange()
    : CNotfyDeviceChange({"CNotfyVideoAdapterChange", kNotfyId, "KM_VideoAdapterChange_Static", "COXL_VideoController",
                          {}, false})
{
}
