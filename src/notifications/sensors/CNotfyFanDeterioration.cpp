#include "notifications/sensors/CNotfyFanDeterioration.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"
#include "notifications/sensors/SensorReadings.h"

#include <string>
#include <vector>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr LONG kFirstTextId = 9000;

// A speed as unsigned; 0 when it is absent or not an integer.
ULONG ReadSpeed(CCWMIAccess& access, const char* szProperty)
{
    LONG lValue = 0;
    if (FAILED(ReadI4(access, szProperty, &lValue)))
        return 0;
    return static_cast<ULONG>(lValue);
}

}  // namespace

CNotfyFanDeterioration::CNotfyFanDeterioration()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_FanDeterioration_Static";
    m_sAuxiliary = "select * from COXL_FanTachometer";
    TraceLifetime("CNotfyFanDeterioration", true);
}

CNotfyFanDeterioration::~CNotfyFanDeterioration()
{
    TraceLifetime("CNotfyFanDeterioration", false);
}

ULONG CNotfyFanDeterioration::LossPercentage(ULONG ulBaseline, ULONG ulCurrent)
{
    if (ulBaseline == 0 || ulCurrent >= ulBaseline)
        return 0;
    return static_cast<ULONG>((static_cast<ULONGLONG>(ulBaseline) - ulCurrent) * 100 / ulBaseline);
}

unsigned long CNotfyFanDeterioration::ClassifyLoss(ULONG ulLoss, const CFanLossLimits& limits)
{
    if (static_cast<LONGLONG>(ulLoss) >= limits.llCritical)
        return 3;
    if (static_cast<LONGLONG>(ulLoss) >= limits.llWarning)
        return 2;
    return 1;
}

HRESULT CNotfyFanDeterioration::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyFanDeterioration::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    // The limits cannot change within one request.
    m_limits = CFanLossLimits{};
    GetThresholdState(0, nullptr, nullptr, &m_limits.llWarning, &m_limits.llCritical);
    const CEventStepTexts texts{.szDeviceId = "Raising exception because SetProperty on 'DeviceId' failed."};
    return trace.Return(RetrieveSourceEvents(kName, texts, [&](CCWMIAccess& source) { return SetEventData(source); }));
}

ULONG CNotfyFanDeterioration::StoredBaseline()
{
    CCWMIAccess stored;
    if (FAILED(GetStoredInstance(stored)))
        return 0;
    return ReadSpeed(stored, "BaselineReading");
}

HRESULT CNotfyFanDeterioration::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyFanDeterioration::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        CopySensorName(source, m_wmi, name.Ptr(), kName);
        CopySensorId(source, m_wmi, kName);

        LONG lCurrent = 0;
        RaiseIfFailed(ReadI4(source, "CurrentReading", &lCurrent), kName,
                      "Raising exception because Could not get the current value!");
        const ULONG ulCurrent = static_cast<ULONG>(lCurrent);

        ULONG ulBaseline = ReadSpeed(source, "NominalReading");
        const ULONG ulStoredBaseline = StoredBaseline();
        if (ulBaseline == 0) {
            // Without a nominal speed the fan's own best speed is its baseline: a replaced or
            // cleaned fan starts a new one.
            ulBaseline = ulStoredBaseline ? ulStoredBaseline : ulCurrent;
            if (ulCurrent > ulBaseline)
                ulBaseline = ulCurrent;
        }
        if (ulBaseline == 0)
            RaiseSkip(NOTFY_S_SKIP, kName, "Raising exception because the fan has no baseline.");

        const ULONG ulLoss = LossPercentage(ulBaseline, ulCurrent);
        const unsigned long ulStatus = ClassifyLoss(ulLoss, m_limits);
        RaiseIfFailed(PutI4(m_wmi, "BaselineReading", static_cast<LONG>(ulBaseline)), kName,
                      "Raising exception because SetProperty on 'BaselineReading' failed");
        RaiseIfFailed(PutI4(m_wmi, "CurrentReading", static_cast<LONG>(ulCurrent)), kName,
                      "Raising exception because SetProperty on 'CurrentReading' failed");
        RaiseIfFailed(PutI4(m_wmi, "LossPercentage", static_cast<LONG>(ulLoss)), kName,
                      "Raising exception because SetProperty on 'LossPercentage' failed");
        WriteEventState(m_wmi, static_cast<LONG>(ulStatus), kFirstTextId + static_cast<LONG>(ulStatus), kName);
        if (ulStatus != 1) {
            const std::vector<std::wstring> arguments = {
                std::wstring(V_BSTR(name.Ptr()) ? V_BSTR(name.Ptr()) : L""), std::to_wstring(ulBaseline),
                std::to_wstring(ulCurrent), std::to_wstring(ulLoss)};
            RaiseIfFailed(PutTextArray(m_wmi, "EventTextArguments", arguments), kName,
                          "Raising exception because error setting 'EventTextArguments' property");
        }
        const HRESULT hr = SetEventType(ulStatus);
        // The status stays, but a new baseline must still be stored.
        if (hr == NOTFY_S_UNCHANGED && ulBaseline != ulStoredBaseline)
            return S_OK;
        return hr;
    }));
}
