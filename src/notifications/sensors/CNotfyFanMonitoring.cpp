#include "notifications/sensors/CNotfyFanMonitoring.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "notifications/sensors/SensorReadings.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <iterator>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr LONG kFamily1000Bit = 0x1000;
constexpr LONG kFamily2000Bit = 0x2000;

struct CFanMessages {
    LONG lNoFault;
    LONG lFault;
};

// Fans 1 to 12; fans 1 and 3 kept their numbers from an older range.
constexpr CFanMessages kNumberedFans[] = {
    {8007, 8008}, {8501, 8502}, {8005, 8006}, {8511, 8512}, {8521, 8522}, {8531, 8532},
    {8541, 8542}, {8551, 8552}, {8561, 8562}, {8571, 8572}, {8581, 8582}, {8591, 8592},
};
constexpr CFanMessages kFamily1000 = {8711, 8712};
constexpr CFanMessages kFamily2000 = {8701, 8702};

}  // namespace

CNotfyFanMonitoring::CNotfyFanMonitoring()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_FanMonitoring_Static";
    m_sAuxiliary = "select * from COXL_FanTachometer";
    TraceLifetime("CNotfyFanMonitoring", true);
}

CNotfyFanMonitoring::~CNotfyFanMonitoring()
{
    TraceLifetime("CNotfyFanMonitoring", false);
}

bool CNotfyFanMonitoring::ClassifyFan(LONG lSensorId, bool bFanFault, CFanState* pState)
{
    // The bit tests come first, so a negative SensorId belongs to the 0x1000 family.
    const CFanMessages* pMessages = nullptr;
    bool bHasIndex = true;
    LONG lIndex = 0;
    if (lSensorId & kFamily1000Bit) {
        pMessages = &kFamily1000;
        lIndex = SensorIndex(lSensorId, 0x1001);
    } else if (lSensorId & kFamily2000Bit) {
        pMessages = &kFamily2000;
        lIndex = SensorIndex(lSensorId, 0x2000);
    } else if (lSensorId >= 1 && lSensorId <= static_cast<LONG>(std::size(kNumberedFans))) {
        pMessages = &kNumberedFans[lSensorId - 1];
        bHasIndex = false;
    } else {
        return false;
    }
    pState->ulStatus = bFanFault ? 3 : 1;
    pState->lTextId = bFanFault ? pMessages->lFault : pMessages->lNoFault;
    pState->arguments.clear();
    if (bHasIndex)
        pState->arguments.push_back(std::to_wstring(lIndex));
    return true;
}

HRESULT CNotfyFanMonitoring::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyFanMonitoring::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts{.szDeviceId = "Raising exception because SetProperty on 'DeviceId' failed."};
    return trace.Return(RetrieveSourceEvents(kName, texts, [&](CCWMIAccess& source) { return SetEventData(source); }));
}

HRESULT CNotfyFanMonitoring::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyFanMonitoring::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        CopySensorName(source, m_wmi, name.Ptr(), kName);

        const LONG lSensorId = CopySensorId(source, m_wmi, kName);

        CCVariant fault;
        HRESULT hr = source.GetProperty("FanFault", fault.GetAddress(), false, 0);
        if (SUCCEEDED(hr) && fault.Type() != VT_BOOL)
            hr = WBEM_E_TYPE_MISMATCH;
        RaiseIfFailed(hr, kName, "Raising exception because error getting 'FanFault' property");

        CFanState state;
        if (!ClassifyFan(lSensorId, V_BOOL(&fault.Get()) != VARIANT_FALSE, &state))
            RaiseHr(WBEM_E_UNKNOWN_OBJECT_TYPE, kName, "Unknown fan", "Fan: %d", static_cast<int>(lSensorId));

        WriteEventState(m_wmi, static_cast<LONG>(state.ulStatus), state.lTextId, kName);
        if (!state.arguments.empty())
            RaiseIfFailed(PutTextArray(m_wmi, "EventTextArguments", state.arguments), kName,
                          "Raising exception because error setting 'EventTextArguments' property");
        return SetEventType(state.ulStatus);
    }));
}
