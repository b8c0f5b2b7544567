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
    TraceLifetime("CNotfyPhysicalHDDChange", true);
}

CNotfyPhysicalHDDChange::~CNotfyPhysicalHDDChange()
{
    TraceLifetime("CNotfyPhysicalHDDChange", false);
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
