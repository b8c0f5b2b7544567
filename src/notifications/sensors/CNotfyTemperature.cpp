#include "notifications/sensors/CNotfyTemperature.h"
#include "core/EventValues.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <string>
#include <vector>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr LONG kUnsupportedSensor = -1;
constexpr LONG kGraphicCardBit = 0x1000;
constexpr LONG kHardDiskBit = 0x2000;
constexpr LONG kIndexedProbeBit = 0x100;
constexpr HRESULT kHddSensorOff = static_cast<HRESULT>(WBEM_S_SOURCE_NOT_AVAILABLE);

// The lower non-critical and lower critical states share one number.
constexpr CSensorMessages kGraphicCard = {7206, 7204, 7205, 7202, 7207, 7207, 7203};
constexpr CSensorMessages kHardDisk = {7101, 7102, 7103, 7104, -1, -1, -1};
constexpr CSensorMessages kIndexedProbe = {7306, 7304, 7305, 7302, 7307, 7307, 7303};
constexpr CSensorMessages kSystemProbe = {7021, 7013, 7017, 7005, 7025, 7025, 7009};

// The first three pieces of a "|"-separated text; missing pieces are empty.
std::vector<std::wstring> SplitArguments(const std::wstring& wsText)
{
    std::vector<std::wstring> pieces;
    size_t uStart = 0;
    while (pieces.size() < 3) {
        if (uStart > wsText.size()) {
            pieces.emplace_back();
            continue;
        }
        const size_t uBar = wsText.find(L'|', uStart);
        const size_t uEnd = uBar == std::wstring::npos ? wsText.size() : uBar;
        pieces.push_back(wsText.substr(uStart, uEnd - uStart));
        uStart = uBar == std::wstring::npos ? wsText.size() + 1 : uBar + 1;
    }
    return pieces;
}

}  // namespace

CNotfyTemperature::CNotfyTemperature()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_Temperature_Static";
    m_sAuxiliary = "select * from COXL_TemperatureProbe";
    TraceLifetime("CNotfyTemperature", true);
}

CNotfyTemperature::~CNotfyTemperature()
{
    TraceLifetime("CNotfyTemperature", false);
}

ETemperatureFamily CNotfyTemperature::GetFamily(LONG lSensorId)
{
    // -1 first: every bit is set in it, so the bit tests would claim it.
    if (lSensorId == kUnsupportedSensor)
        return ETemperatureFamily::Unsupported;
    if (lSensorId & kGraphicCardBit)
        return ETemperatureFamily::GraphicCard;
    if (lSensorId & kHardDiskBit)
        return ETemperatureFamily::HardDisk;
    if (lSensorId & kIndexedProbeBit)
        return ETemperatureFamily::IndexedProbe;
    if (lSensorId == 1)
        return ETemperatureFamily::SystemProbe;
    return ETemperatureFamily::Unknown;
}

const CSensorMessages* CNotfyTemperature::GetMessages(ETemperatureFamily family)
{
    switch (family) {
    case ETemperatureFamily::GraphicCard: return &kGraphicCard;
    case ETemperatureFamily::HardDisk: return &kHardDisk;
    case ETemperatureFamily::IndexedProbe: return &kIndexedProbe;
    case ETemperatureFamily::SystemProbe: return &kSystemProbe;
    default: return nullptr;
    }
}

HRESULT CNotfyTemperature::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyTemperature::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts;
    return trace.Return(ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& source) {
        BeginEvent(source, texts, kName);
        CCVariant present;
        const HRESULT hr = source.GetProperty("SensorPresent", present.GetAddress(), false, 0);
        if (FAILED(hr) || present.Type() != VT_BOOL || V_BOOL(&present.Get()) == VARIANT_FALSE)
            RaiseSkip(NOTFY_S_SKIP, kName, "Raising exception because sensor not supported.");
        const HRESULT hrData = SetEventData(source);
        RaiseIfFailed(hrData, kName, texts.szSetEventData);
        if (hrData == kHddSensorOff)
            RaiseSkip(kHddSensorOff, kName,
                      "Raising exception because SetCommonData returned WBEM_S_SOURCE_NOT_AVAILABLE.");
        CompleteEvent(hrData, kName, texts);
    }));
}

HRESULT CNotfyTemperature::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyTemperature::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        ReadSensorName(source, name.Ptr(), kName);

        const LONG lSensorId = CopySensorId(source, m_wmi, kName);

        HRESULT hr = S_OK;
        std::wstring wsDescription;
        if (lSensorId != kUnsupportedSensor && (lSensorId & kHardDiskBit)) {
            // Hard-disk probes are opt-in: only an explicit false on KM_Temperature reports them.
            CCVariant deactivated;
            hr = m_wmi.GetClassQualifier("KM_Temperature", "HDDSensorDeactivated", deactivated.GetAddress(), nullptr);
            if (FAILED(hr) || deactivated.Type() != VT_BOOL || V_BOOL(&deactivated.Get()) != VARIANT_FALSE) {
                GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "HDD sensor deactivated", "hr 0x%X",
                                    static_cast<unsigned>(hr));
                return kHddSensorOff;
            }
            CCVariant description;
            if (SUCCEEDED(source.GetProperty("Description", description.GetAddress(), false, 0)) &&
                description.Type() == VT_BSTR && V_BSTR(&description.Get()))
                wsDescription = V_BSTR(&description.Get());
        }

        RaiseIfFailed(m_wmi.SetProperty("Name", name.Ptr()), kName, "Raising exception because SetProperty on 'Name' failed");

        LONG lReading = 0;
        hr = ReadI4(source, "CurrentReading", &lReading);
        RaiseIfFailed(hr, kName, "Raising exception because Could not get the current value!");
        const CSensorThresholds limits = ReadThresholds(source);

        const ETemperatureFamily family = GetFamily(lSensorId);
        if (family == ETemperatureFamily::Unsupported)
            RaiseHr(WBEM_E_NOT_SUPPORTED, kName, "Raising exception because of unsupported Temperature sensor", "%d",
                    static_cast<int>(lSensorId));
        const CSensorMessages* pMessages = GetMessages(family);
        if (!pMessages)
            RaiseHr(WBEM_E_UNKNOWN_OBJECT_TYPE, kName, "Raising exception because unknown Temperature sensor", "%d",
                    static_cast<int>(lSensorId));

        unsigned long ulStatus = 1;
        LONG lTextId = 0;
        ClassifyReading(*pMessages, lReading, limits, &ulStatus, &lTextId);

        std::vector<std::wstring> arguments;
        bool bHasArguments = true;
        switch (family) {
        case ETemperatureFamily::GraphicCard:
            arguments.push_back(std::to_wstring(SensorIndex(lSensorId, 0x1001)));
            break;
        case ETemperatureFamily::IndexedProbe:
            arguments.push_back(std::to_wstring(SensorIndex(lSensorId, 0x100)));
            break;
        case ETemperatureFamily::HardDisk:
            arguments = SplitArguments(wsDescription);
            break;
        default:
            bHasArguments = false;
            break;
        }

        WriteEventState(m_wmi, static_cast<LONG>(ulStatus), lTextId, kName);
        if (bHasArguments)
            RaiseIfFailed(PutTextArray(m_wmi, "EventTextArguments", arguments), kName,
                  "Raising exception because error setting 'EventTextArguments' property");
        return SetEventType(ulStatus);
    }));
}

HRESULT CNotfyTemperature::SetEventType(unsigned long dwStatus)
{
    constexpr char kName[] = "CNotfyTemperature::SetEventType";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "dwStatus: %lu", dwStatus);
    return trace.Return(CatchHr([&]() -> HRESULT {
        const HRESULT hr = CNotfyBase::SetEventType(dwStatus);
        // Same status: a different message or a renamed probe is still a change worth reporting.
        if (hr == NOTFY_S_UNCHANGED && StoredDiffers({"EventTextId", "Name"}))
            return S_OK;
        return hr;
    }));
}
