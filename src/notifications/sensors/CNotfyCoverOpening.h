// Notification id 2: whether the cabinet has been opened, from the cabinet-intrusion sensors whose
// switch is plugged. An intrusion the hardware latched is reported once as critical and then, for
// the same sensor, with the current reading.
#pragma once

#include "notifications/sensors/CNotfyCoverBase.h"

#include <string>

class CNotfyCoverOpening : public CNotfyCoverBase {
public:
    static constexpr unsigned long kNotfyId = 2;

    CNotfyCoverOpening();
    ~CNotfyCoverOpening() override;

    HRESULT RetrieveInstances() override;
    HRESULT DeleteObsoleteInstances() override;
    using CNotfyBase::SetEventType;

    // The sensor is the current object of source. NOTFY_S_REPEAT when the latched intrusion was
    // reported and the sensor is to be processed once more.
    HRESULT SetEventData(CCWMIAccess& source);
    // bTakeCurrent: the event follows the latched one of the same sensor in this request, so its
    // type is decided against that critical state instead of the stored instance.
    virtual HRESULT SetEventType(unsigned long dwStatus, bool bTakeCurrent);

    // Whether the latched value is read next; shared by every request of the process.
    static bool GetLatchFlag();
    static void SetLatchFlag(bool bReadLatched);

    static constexpr HRESULT NOTFY_S_REPEAT = 0x00040010;

private:
    // Builds and lists one event for the sensor; raises to skip it. Returns SetEventData's result.
    HRESULT BuildEvent(CCWMIAccess& source);
    // Fetches into target, on the namespace of from, the switch of the sensor with this DeviceID.
    HRESULT FetchSwitch(CCWMIAccess& from, const std::wstring& wsDeviceId, CCWMIAccess& target) const;

    std::string m_sSwitchClassName;
};
