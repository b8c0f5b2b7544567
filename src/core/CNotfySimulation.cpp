#include "core/CNotfySimulation.h"
#include "core/EventValues.h"

#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

namespace {

constexpr char kEntered[] = "has been entered.";

}  // namespace

CNotfySimulation::CNotfySimulation()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_Notifications";
    TraceLifetime("CNotfySimulation", true);
}

CNotfySimulation::~CNotfySimulation()
{
    TraceLifetime("CNotfySimulation", false);
}

HRESULT CNotfySimulation::DeleteObsoleteInstances()
{
    CCMethodTrace trace(TRACE_INFO, "CNotfySimulation::DeleteObsoleteInstances", kEntered);
    // Simulated events never refer to a live object, so none can become obsolete.
    return trace.Return(NOTFY_S_NOTHING_TO_DELETE);
}

HRESULT CNotfySimulation::RetrieveInstances()
{
    constexpr char kName[] = "CNotfySimulation::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kName, "Raising exception because NewInstance failed.");
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", 1), kName, "Raising exception because SetProperty on 'DeviceId' failed.");
        RaiseIfFailed(SetEventData(), kName, "Raising exception because SetEventData failed.");
        CompleteEvent(S_OK, kName);  // a simulated event is always new
        return S_OK;
    }));
}

HRESULT CNotfySimulation::SetEventData()
{
    constexpr char kName[] = "CNotfySimulation::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        WriteEventState(m_wmi, 1, 59001, kName);
        // Set directly, not through SetEventType: 5 marks a simulated event and compares with nothing.
        RaiseIfFailed(PutI4(m_wmi, "EventType", 5), kName, "Raising exception because SetProperty on 'EventType' failed");
        return S_OK;
    }));
}
