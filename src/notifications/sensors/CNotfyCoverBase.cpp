#include "notifications/sensors/CNotfyCoverBase.h"

#include "core/EventValues.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "framework/CCQuillTrace.h"
#include "framework/HResultError.h"

HRESULT CNotfyCoverBase::DeleteObsoleteFirstInstance(const char* szQualifiedName, EMissingPath missingPath,
                                                     const std::function<bool(CCWMIAccess& live)>& isLiveObsolete)
{
    constexpr char kNoPath[] = "Raising exception because Could not get the Path of the referenced object.";
    return CatchHr([&]() -> HRESULT {
        CCWMIAccess stored;
        if (!OpenStoredInstances(stored, szQualifiedName, false))
            return S_OK;
        CCVariant object;
        HRESULT hr = stored.GetProperty("Object", object.GetAddress(), false, 0);
        if (SUCCEEDED(hr) && object.Type() == VT_BSTR && V_BSTR(&object.Get())) {
            CCWMIAccess live;
            hr = OpenAccess(live, m_sReferencedNamespace.c_str());
            RaiseIfFailed(hr, szQualifiedName, kNoPath);
            hr = GetObjectAt(live, V_BSTR(&object.Get()));
            if (hr != static_cast<HRESULT>(WBEM_E_NOT_FOUND))
                RaiseIfFailed(hr, szQualifiedName, "Raising exception because error getting referenced object.");
            if (FAILED(hr) || isLiveObsolete(live))
                Append(m_obsoleteList, stored);
        } else if (missingPath == EMissingPath::EndWithSkip) {
            GetTrace().TraceMsg(TRACE_WARNING, szQualifiedName, "Exception", kNoPath, "hr 0x%X",
                                static_cast<unsigned>(hr));
            return NOTFY_S_SKIP;
        }
        return DeleteInstancesInList();
    });
}
