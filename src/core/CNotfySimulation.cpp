#include "core/CNotfySimulation.h"

#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

namespace {

constexpr char kEntered[] = "has been entered.";

HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_I4;
    V_I4(value.Ptr()) = lValue;
    return access.SetProperty(szProperty, value.Ptr());
}

void Check(HRESULT hr, const char* szQualifiedName, const char* szMessage)
{
    if (FAILED(hr))
        RaiseHr(hr, szQualifiedName, szMessage, "hr 0x%X", static_cast<unsigned>(hr));
}

}  // namespace

CNotfySimulation::CNotfySimulation()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_Notifications";
    GetTrace().TraceMsg(TRACE_INFO, "CNotfySimulation::CNotfySimulation", "Internal",
                        "An instance of CNotfySimulation has been created.", "");
}

CNotfySimulation::~CNotfySimulation()
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotfySimulation::~CNotfySimulation", "Internal",
                        "An instance of CNotfySimulation has been destroyed.", "");
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
        Check(m_wmi.NewInstance(m_sEventClassName.c_str()), kName, "Raising exception because NewInstance failed.");
        Check(PutI4(m_wmi, "DeviceId", 1), kName, "Raising exception because SetProperty on 'DeviceId' failed.");
        Check(SetEventData(), kName, "Raising exception because SetEventData failed.");
        Check(SetCommonData(), kName, "Raising exception because SetCommonData failed.");
        Check(AddToList(), kName, "Raising exception because AddToList failed.");
        return S_OK;
    }));
}

HRESULT CNotfySimulation::SetEventData()
{
    constexpr char kName[] = "CNotfySimulation::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        Check(PutI4(m_wmi, "EventStatus", 1), kName, "Raising exception because SetProperty on 'EventStatus' failed");
        Check(PutI4(m_wmi, "EventTextId", 59001), kName,
              "Raising exception because SetProperty on 'EventTextId' failed");
        // Set directly, not through SetEventType: 5 marks a simulated event and compares with nothing.
        Check(PutI4(m_wmi, "EventType", 5), kName, "Raising exception because SetProperty on 'EventType' failed");
        return S_OK;
    }));
}
