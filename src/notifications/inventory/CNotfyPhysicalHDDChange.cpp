#include "notifications/inventory/CNotfyPhysicalHDDChange.h"

#include "framework/CCMethodTrace.h"

namespace {

constexpr char kEntered[] = "has been entered.";

}  // namespace

CNotfyPhysicalHDDChange::CNotfyPhysicalHDDChange()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_PhysicalHDDChange_Static";
    m_sAuxiliary = "select * from COXL_PhysicalHardDisk";  // configured, never executed
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyPhysicalHDDChange::CNotfyPhysicalHDDChange", "Internal",
                        "An instance of CNotfyPhysicalHDDChange has been created.", "");
}

CNotfyPhysicalHDDChange::~CNotfyPhysicalHDDChange()
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyPhysicalHDDChange::~CNotfyPhysicalHDDChange", "Internal",
                        "An instance of CNotfyPhysicalHDDChange has been destroyed.", "");
}

HRESULT CNotfyPhysicalHDDChange::RetrieveInstances()
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyPhysicalHDDChange::RetrieveInstances", kEntered);
    return trace.Return(WBEM_E_NOT_SUPPORTED);
}

HRESULT CNotfyPhysicalHDDChange::GetObsoleteInstances()
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyPhysicalHDDChange::GetObsoleteInstances", kEntered);
    return trace.Return(WBEM_E_NOT_SUPPORTED);
}
