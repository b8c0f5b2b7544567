#include "notifications/sensors/CNotfyCoverOpening.h"

#include "core/EventValues.h"

#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <atomic>

namespace {

constexpr char kEntered[] = "has been entered.";

constexpr CEventStepTexts kTexts{
    .szNewInstance = "Raising exception because NetInstance failed",
    .szObject = "Raising exception because SetProperty on Object reference failed",
    .szDeviceId = "Raising exception because SetProperty on DeviceId failed",
    .szSetEventData = "Raising exception because SetEventData failed",
    .szNoPut = "Raising exception because SetQualifier with 'NoPut' failed",
    .szCommonData = "Raising exception because SetCommonData failed",
    .szAddToList = "Raising exception because AddToList failed",
};

constexpr char kSwitchFailed[] = "Raising exception because Accessing the switch instance failed";

// True: the next sensor reports the intrusion the hardware latched. Lives as long as the module and
// is shared by every request, which may run on several threads.
std::atomic<bool> g_bReadLatched{true};

}  // namespace

CNotfyCoverOpening::CNotfyCoverOpening() : m_sSwitchClassName("COXL_IntrusionSwitch")
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_CoverOpening_Static";
    m_sAuxiliary = "select * from COXL_CabinetIntrusion";
    TraceLifetime("CNotfyCoverOpening", true);
}

CNotfyCoverOpening::~CNotfyCoverOpening()
{
    TraceLifetime("CNotfyCoverOpening", false);
}

bool CNotfyCoverOpening::GetLatchFlag()
{
    return g_bReadLatched.load();
}

void CNotfyCoverOpening::SetLatchFlag(bool bReadLatched)
{
    g_bReadLatched.store(bReadLatched);
}

HRESULT CNotfyCoverOpening::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyCoverOpening::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& source) {
        // A latched intrusion gives a second event for the same sensor with the current reading.
        while (BuildEvent(source) == NOTFY_S_REPEAT) {
        }
    }));
}

HRESULT CNotfyCoverOpening::BuildEvent(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyCoverOpening::RetrieveInstances";
    BeginEvent(source, kTexts, kName);
    bool bSupported = false;
    if (FAILED(ReadBool(source, "SensorSupported", &bSupported)) || !bSupported)
        RaiseSkip(NOTFY_S_SKIP, kName, "Raising exception because Cabinet Intrusion NOT supported");

    std::wstring wsDeviceId;
    CCWMIAccess switchAccess;
    HRESULT hr = ReadText(source, "DeviceID", &wsDeviceId);
    if (SUCCEEDED(hr))
        hr = FetchSwitch(source, wsDeviceId, switchAccess);
    RaiseIfFailed(hr, kName, kSwitchFailed);
    CCVariant reading;
    hr = switchAccess.GetProperty("CurrentReading", reading.GetAddress(), false, 0);
    if (FAILED(hr) || (reading.Type() == VT_BOOL && V_BOOL(&reading.Get()) == VARIANT_FALSE))
        RaiseSkip(NOTFY_S_SKIP, kName,
                  "Raising exception because Cabinet Intrusion NOT supported because of missing switch");

    const HRESULT hrData = SetEventData(source);
    RaiseIfFailed(hrData, kName, kTexts.szSetEventData);
    CompleteEvent(hrData, kName, kTexts);
    return hrData;
}

HRESULT CNotfyCoverOpening::FetchSwitch(CCWMIAccess& from, const std::wstring& wsDeviceId, CCWMIAccess& target) const
{
    OpenAccess(target);
    target = static_cast<IWbemServices*>(from);
    const std::wstring wsPath =
        std::wstring(m_sSwitchClassName.begin(), m_sSwitchClassName.end()) + L".DeviceID=" + QuotedText(wsDeviceId);
    return GetObjectAt(target, wsPath.c_str());
}

HRESULT CNotfyCoverOpening::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyCoverOpening::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        bool bIntrusion = false;
        CCVariant reading;
        CCVariant asBool;
        if (SUCCEEDED(source.GetProperty("CurrentReading", reading.GetAddress(), false, 0)) &&
            SUCCEEDED(VariantChangeType(asBool.Ptr(), reading.Ptr(), 0, VT_BOOL)))
            bIntrusion = V_BOOL(asBool.Ptr()) != VARIANT_FALSE;

        HRESULT hrResult = S_OK;
        bool bTakeCurrent = false;
        if (!g_bReadLatched.exchange(true)) {
            bTakeCurrent = true;
            GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal",
                                "Old value was taken before, so take this time current one.", "");
        } else {
            bool bLatched = false;
            bool bExpected = true;
            // Another request may have taken the latched value in the meantime; then this one does not.
            if (SUCCEEDED(ReadBool(source, "IntrusionWasDetected", &bLatched)) && bLatched &&
                g_bReadLatched.compare_exchange_strong(bExpected, false)) {
                GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal",
                                    "Intrusion was detected before, so, don't take current reading flag.", "");
                bIntrusion = true;
                hrResult = NOTFY_S_REPEAT;
            }
        }

        const unsigned long ulStatus = bIntrusion ? 3 : 1;
        WriteEventState(m_wmi, static_cast<LONG>(ulStatus), bIntrusion ? 2003 : 2001, kName);
        SetEventType(ulStatus, bTakeCurrent);
        return hrResult;
    }));
}

HRESULT CNotfyCoverOpening::SetEventType(unsigned long dwStatus, bool bTakeCurrent)
{
    constexpr char kName[] = "CNotfyCoverOpening::SetEventType";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "dwStatus: %lu, bTakeCurrent: %d", dwStatus,
                        static_cast<int>(bTakeCurrent));
    if (!bTakeCurrent)
        return trace.Return(CNotfyBase::SetEventType(dwStatus));
    // Compared with the critical state just reported for the same sensor.
    if (dwStatus > 3) {
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Critical error, calculcated State not possible... ",
                            "dwStatus: %lu", dwStatus);
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    return trace.Return(PutI4(m_wmi, "EventType", dwStatus == 3 ? 3 : 2));
}

HRESULT CNotfyCoverOpening::DeleteObsoleteInstances()
{
    constexpr char kName[] = "CNotfyCoverOpening::DeleteObsoleteInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(DeleteObsoleteFirstInstance(kName, EMissingPath::EndWithSkip, [&](CCWMIAccess& live) {
        std::wstring wsDeviceId;
        CCWMIAccess switchAccess;
        HRESULT hr = ReadText(live, "DeviceID", &wsDeviceId);
        if (SUCCEEDED(hr))
            hr = FetchSwitch(live, wsDeviceId, switchAccess);
        RaiseIfFailed(hr, kName, kSwitchFailed);
        // An unplugged switch takes the sensor's reference with it.
        bool bPlugged = true;
        return SUCCEEDED(ReadBool(switchAccess, "CurrentReading", &bPlugged)) && !bPlugged;
    }));
}
