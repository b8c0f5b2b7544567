#include "notifications/sensors/CNotfyVoltage.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr LONG kUnsupportedSensor = -1;
constexpr LONG kVoltageSensor = 1;

}  // namespace

CNotfyVoltage::CNotfyVoltage()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_Voltage_Static";
    m_sAuxiliary = "select * from COXL_VoltageProbe";
    TraceLifetime("CNotfyVoltage", true);
}

CNotfyVoltage::~CNotfyVoltage()
{
    TraceLifetime("CNotfyVoltage", false);
}

HRESULT CNotfyVoltage::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyVoltage::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts;
    return trace.Return(RetrieveSourceEvents(kName, texts, [&](CCWMIAccess& source) { return SetEventData(source); }));
}

HRESULT CNotfyVoltage::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyVoltage::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        CopySensorName(source, m_wmi, name.Ptr(), kName);

        const LONG lSensorId = CopySensorId(source, m_wmi, kName);

        LONG lReading = 0;
        RaiseIfFailed(ReadI4(source, "CurrentReading", &lReading), kName,
                      "Raising exception because Could not get the current value!");
        const CSensorThresholds limits = ReadThresholds(source);

        if (lSensorId == kUnsupportedSensor)
            RaiseHr(WBEM_E_NOT_SUPPORTED, kName, "Raising exception because of unsupported Voltage sensor", "%d",
                    static_cast<int>(lSensorId));
        if (lSensorId != kVoltageSensor)
            RaiseHr(WBEM_E_UNKNOWN_OBJECT_TYPE, kName, "Raising exception because of unknown Voltage sensor", "%d",
                    static_cast<int>(lSensorId));

        unsigned long ulStatus = 1;
        LONG lTextId = 0;
        ClassifyReading(kMessages, lReading, limits, &ulStatus, &lTextId);

        WriteEventState(m_wmi, static_cast<LONG>(ulStatus), lTextId, kName);
        return SetEventType(ulStatus);
    }));
}

HRESULT CNotfyVoltage::SetEventType(unsigned long dwStatus)
{
    constexpr char kName[] = "CNotfyVoltage::SetEventType";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "dwStatus: %lu", dwStatus);
    return trace.Return(CatchHr([&]() -> HRESULT {
        const HRESULT hr = CNotfyBase::SetEventType(dwStatus);
        // Same status with another message is still news; a renamed probe is not.
        if (hr == NOTFY_S_UNCHANGED && StoredDiffers({"EventTextId"}))
            return S_OK;
        return hr;
    }));
}
