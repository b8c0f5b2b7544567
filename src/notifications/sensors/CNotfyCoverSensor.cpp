#include "notifications/sensors/CNotfyCoverSensor.h"

#include "core/EventValues.h"

#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

namespace {

constexpr char kEntered[] = "has been entered.";

constexpr CEventStepTexts kTexts{
    .szObject = "Raising exception because setting 'Object' reference  failed.",
    .szDeviceId = "Raising exception because SetProperty 'DeviceId' failed.",
};

}  // namespace

CNotfyCoverSensor::CNotfyCoverSensor()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_CoverSensor_Static";
    m_sAuxiliary = "select * from COXL_IntrusionSwitch";
    TraceLifetime("CNotfyCoverSensor", true);
}

CNotfyCoverSensor::~CNotfyCoverSensor()
{
    TraceLifetime("CNotfyCoverSensor", false);
}

HRESULT CNotfyCoverSensor::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyCoverSensor::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& source) {
        BeginEvent(source, kTexts, kName);
        const HRESULT hrData = SetEventData(source);
        RaiseIfFailed(hrData, kName, kTexts.szSetEventData);
        if (hrData == NOTFY_S_SKIP)
            RaiseSkip(NOTFY_S_SKIP, kName, "Raising exception because no instance has to be set.");
        CompleteEvent(hrData, kName, kTexts);
    }));
}

HRESULT CNotfyCoverSensor::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyCoverSensor::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        // Only a readable true counts as closed.
        bool bClosed = false;
        ReadBool(source, "CurrentReading", &bClosed);

        CCWMIAccess stored;
        const HRESULT hrStored = GetStoredInstance(stored);
        if (hrStored == static_cast<HRESULT>(WBEM_E_NOT_FOUND) && !bClosed)
            RaiseSkip(NOTFY_S_SKIP, kName,
                      "Raising exception because Cabinet Intrusion Switch NOT plugged. It is optional, so don't do "
                      "anything.");
        if (hrStored != static_cast<HRESULT>(WBEM_E_NOT_FOUND))
            RaiseIfFailed(hrStored, kName, "Raising exception because error getting old object!");

        // Closed is normal, and unchanged once stored; open after a stored reading is critical.
        const bool bKnown = SUCCEEDED(hrStored);
        const LONG lStatus = bClosed ? 1 : 3;
        const HRESULT hrResult = (bClosed && bKnown) ? NOTFY_S_UNCHANGED : S_OK;
        WriteEventState(m_wmi, lStatus, bClosed ? 3001 : 3003, kName);
        RaiseIfFailed(PutI4(m_wmi, "EventType", bClosed ? 3 : 1), kName,
                      "Raising exception because SetProperty on 'EventType' failed");
        return hrResult;
    }));
}

HRESULT CNotfyCoverSensor::DeleteObsoleteInstances()
{
    constexpr char kName[] = "CNotfyCoverSensor::DeleteObsoleteInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    // A switch that reads open has lost its reference, so that closing it again is reported as new.
    return trace.Return(DeleteObsoleteFirstInstance(kName, EMissingPath::KeepAll, [](CCWMIAccess& live) {
        bool bClosed = true;
        return SUCCEEDED(ReadBool(live, "CurrentReading", &bClosed)) && !bClosed;
    }));
}
