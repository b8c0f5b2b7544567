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

constexpr CTemperatureMessages kGraphicCard = {7206, 7204, 7205, 7202, 7207, 7203};
constexpr CTemperatureMessages kHardDisk = {7101, 7102, 7103, 7104, -1, -1};
constexpr CTemperatureMessages kIndexedProbe = {7306, 7304, 7305, 7302, 7307, 7303};
constexpr CTemperatureMessages kSystemProbe = {7021, 7013, 7017, 7005, 7025, 7009};

// A success code raised to skip the probe; traced at Info because it is no error.
[[noreturn]] void Skip(HRESULT hr, const char* szQualifiedName, const char* szMessage)
{
    GetTrace().TraceMsg(TRACE_INFO, szQualifiedName, "Exception", szMessage, "hr 0x%X", static_cast<unsigned>(hr));
    throw HResultError{hr};
}

// Integers arrive as VT_I4 or VT_UI4 and are read as signed 32-bit; anything else is a mismatch.
HRESULT ReadInteger(CCWMIAccess& access, const char* szProperty, LONG* plValue)
{
    CCVariant value;
    const HRESULT hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (FAILED(hr))
        return hr;
    if (value.Type() == VT_I4)
        *plValue = V_I4(&value.Get());
    else if (value.Type() == VT_UI4)
        *plValue = static_cast<LONG>(V_UI4(&value.Get()));
    else
        return WBEM_E_TYPE_MISMATCH;
    return hr;
}

void ReadThreshold(CCWMIAccess& access, const char* szProperty, LONG* plValue)
{
    LONG lValue = 0;
    if (SUCCEEDED(ReadInteger(access, szProperty, &lValue)))
        *plValue = lValue;
}

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

HRESULT PutTextArray(CCWMIAccess& access, const char* szProperty, const std::vector<std::wstring>& texts)
{
    CCSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size())));
    if (!array.Get())
        return WBEM_E_OUT_OF_MEMORY;
    for (LONG l = 0; l < static_cast<LONG>(texts.size()); ++l) {
        CCBstr text(std::wstring_view(texts[l]));
        if (!text)
            return WBEM_E_OUT_OF_MEMORY;
        // SafeArrayPutElement copies the string.
        const HRESULT hr = SafeArrayPutElement(array.Get(), &l, text.Get());
        if (FAILED(hr))
            return hr;
    }
    CCVariant value;
    V_VT(value.Ptr()) = VT_ARRAY | VT_BSTR;
    V_ARRAY(value.Ptr()) = array.Detach();
    return access.SetProperty(szProperty, value.Ptr());
}

// True unless both values can be read and compare equal.
bool Differs(CCWMIAccess& current, CCWMIAccess& stored, const char* szProperty)
{
    CCVariant now;
    CCVariant before;
    if (FAILED(current.GetProperty(szProperty, now.GetAddress(), false, 0)) ||
        FAILED(stored.GetProperty(szProperty, before.GetAddress(), false, 0)))
        return true;
    return VarCmp(now.Ptr(), before.Ptr(), LOCALE_USER_DEFAULT, 0) != static_cast<HRESULT>(VARCMP_EQ);
}

}  // namespace

CNotfyTemperature::CNotfyTemperature()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_Temperature_Static";
    m_sAuxiliary = "select * from COXL_TemperatureProbe";
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyTemperature::CNotfyTemperature", "Internal",
                        "An instance of CNotfyTemperature has been created.", "");
}

CNotfyTemperature::~CNotfyTemperature()
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotfyTemperature::~CNotfyTemperature", "Internal",
                        "An instance of CNotfyTemperature has been destroyed.", "");
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

const CTemperatureMessages* CNotfyTemperature::GetMessages(ETemperatureFamily family)
{
    switch (family) {
    case ETemperatureFamily::GraphicCard: return &kGraphicCard;
    case ETemperatureFamily::HardDisk: return &kHardDisk;
    case ETemperatureFamily::IndexedProbe: return &kIndexedProbe;
    case ETemperatureFamily::SystemProbe: return &kSystemProbe;
    default: return nullptr;
    }
}

void CNotfyTemperature::Classify(const CTemperatureMessages& messages, LONG lReading,
                                 const CTemperatureThresholds& limits, unsigned long* pulStatus, LONG* plTextId)
{
    // Each later test overrides an earlier one, so the most severe limit reached wins.
    unsigned long ulStatus = 1;
    LONG lTextId = messages.lNormal;
    if (lReading >= limits.lUpperNonCritical) {
        ulStatus = 2;
        lTextId = messages.lUpperNonCritical;
    }
    if (lReading >= limits.lUpperCritical) {
        ulStatus = 3;
        lTextId = messages.lUpperCritical;
    }
    if (lReading >= limits.lUpperDefect) {
        ulStatus = 3;
        lTextId = messages.lUpperDefect;
    }
    if (lReading <= limits.lLowerNonCritical) {
        ulStatus = 2;
        lTextId = messages.lLower;
    }
    if (lReading <= limits.lLowerCritical) {
        ulStatus = 3;
        lTextId = messages.lLower;
    }
    if (lReading <= limits.lLowerDefect) {
        ulStatus = 3;
        lTextId = messages.lLowerDefect;
    }
    *pulStatus = ulStatus;
    *plTextId = lTextId;
}

HRESULT CNotfyTemperature::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyTemperature::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess source;
        source.SetContext(m_context);
        HRESULT hr = source.ConnectToNamespace(m_sReferencedNamespace.c_str(), -1, nullptr);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Raising exception because ConnectToNamespace failed.", "Namespace: %s, hr: 0x%x",
                    m_sReferencedNamespace.c_str(), static_cast<unsigned>(hr));
        hr = source.ExecuteQuery(m_sAuxiliary.c_str(), 0);
        if (hr == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE)) {
            GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "Query did not return data. Continue with success.",
                                "Query: %s", m_sAuxiliary.c_str());
            return S_OK;
        }
        if (FAILED(hr)) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error executing query", "Query: %s, hr: 0x%x",
                                m_sAuxiliary.c_str(), static_cast<unsigned>(hr));
            return hr;
        }

        do {
            const HRESULT hrProbe = CatchHr([&]() -> HRESULT {
                RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kName,
                      "Raising exception because NewInstance failed.");
                CCVariant relPath;
                HRESULT hrStep = source.GetProperty("__RelPath", relPath.GetAddress(), false, 0);
                if (SUCCEEDED(hrStep))
                    hrStep = m_wmi.SetProperty("Object", relPath.Ptr());
                RaiseIfFailed(hrStep, kName, "Raising exception because setting 'Object' reference failed.");
                CCVariant deviceId;
                hrStep = source.GetProperty("DeviceID", deviceId.GetAddress(), false, 0);
                if (SUCCEEDED(hrStep))
                    hrStep = m_wmi.SetProperty("DeviceId", deviceId.Ptr());
                RaiseIfFailed(hrStep, kName, "Raising exception because setting 'DeviceId' failed.");

                CCVariant present;
                hrStep = source.GetProperty("SensorPresent", present.GetAddress(), false, 0);
                if (FAILED(hrStep) || present.Type() != VT_BOOL || V_BOOL(&present.Get()) == VARIANT_FALSE)
                    Skip(NOTFY_S_SKIP, kName, "Raising exception because sensor not supported.");

                const HRESULT hrData = SetEventData(source);
                RaiseIfFailed(hrData, kName, "Raising exception because SetEventData failed.");
                if (hrData == kHddSensorOff)
                    Skip(kHddSensorOff, kName,
                         "Raising exception because SetCommonData returned WBEM_S_SOURCE_NOT_AVAILABLE.");
                CompleteEvent(hrData, kName);
                return S_OK;
            });
            if (FAILED(hrProbe))
                TraceContinue(kName, hrProbe);
        } while (SUCCEEDED(source.GetNextWMIInstanceInEnumerator()));
        return S_OK;
    }));
}

HRESULT CNotfyTemperature::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyTemperature::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        HRESULT hr = source.GetProperty("Name", name.GetAddress(), false, 0);
        if (SUCCEEDED(hr) && name.Type() != VT_BSTR)
            hr = WBEM_E_TYPE_MISMATCH;
        RaiseIfFailed(hr, kName, "Raising exception because error getting 'Name' property");

        LONG lSensorId = 0;
        RaiseIfFailed(ReadInteger(source, "SensorId", &lSensorId), kName,
              "Raising exception because error getting 'SensorId' property");
        RaiseIfFailed(PutI4(m_wmi, "SensorId", lSensorId), kName, "Raising exception because SetProperty on 'SensorId' failed");

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
        hr = ReadInteger(source, "CurrentReading", &lReading);
        RaiseIfFailed(hr, kName, "Raising exception because Could not get the current value!");
        CTemperatureThresholds limits;
        ReadThreshold(source, "UpperThresholdNonCritical", &limits.lUpperNonCritical);
        ReadThreshold(source, "UpperThresholdCritical", &limits.lUpperCritical);
        ReadThreshold(source, "UpperThresholdDefect", &limits.lUpperDefect);
        ReadThreshold(source, "LowerThresholdNonCritical", &limits.lLowerNonCritical);
        ReadThreshold(source, "LowerThresholdCritical", &limits.lLowerCritical);
        ReadThreshold(source, "LowerThresholdDefect", &limits.lLowerDefect);

        const ETemperatureFamily family = GetFamily(lSensorId);
        if (family == ETemperatureFamily::Unsupported)
            RaiseHr(WBEM_E_NOT_SUPPORTED, kName, "Raising exception because of unsupported Temperature sensor", "%d",
                    static_cast<int>(lSensorId));
        const CTemperatureMessages* pMessages = GetMessages(family);
        if (!pMessages)
            RaiseHr(WBEM_E_UNKNOWN_OBJECT_TYPE, kName, "Raising exception because unknown Temperature sensor", "%d",
                    static_cast<int>(lSensorId));

        unsigned long ulStatus = 1;
        LONG lTextId = 0;
        Classify(*pMessages, lReading, limits, &ulStatus, &lTextId);

        std::vector<std::wstring> arguments;
        bool bHasArguments = true;
        switch (family) {
        case ETemperatureFamily::GraphicCard:
            arguments.push_back(std::to_wstring(lSensorId - 0x1001));
            break;
        case ETemperatureFamily::IndexedProbe:
            arguments.push_back(std::to_wstring(lSensorId - 0x100));
            break;
        case ETemperatureFamily::HardDisk:
            arguments = SplitArguments(wsDescription);
            break;
        default:
            bHasArguments = false;
            break;
        }

        RaiseIfFailed(PutI4(m_wmi, "EventStatus", static_cast<LONG>(ulStatus)), kName,
              "Raising exception because SetProperty on 'EventStatus' failed");
        RaiseIfFailed(PutI4(m_wmi, "EventTextId", lTextId), kName,
              "Raising exception because SetProperty on 'EventTextId' failed");
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
        if (hr != NOTFY_S_UNCHANGED)
            return hr;
        // Same status: a different message or a renamed probe is still a change worth reporting.
        CCVariant relPath;
        if (FAILED(m_wmi.GetProperty("__RelPath", relPath.GetAddress(), false, 0)) || relPath.Type() != VT_BSTR)
            return hr;
        CCWMIAccess stored;
        stored = static_cast<IWbemServices*>(m_wmi);
        stored.SetContext(m_context);
        CCStringConversion path(V_BSTR(&relPath.Get()));
        if (FAILED(stored.GetObject(path.Convert2A())))
            return hr;
        if (Differs(m_wmi, stored, "EventTextId") || Differs(m_wmi, stored, "Name"))
            return S_OK;
        return hr;
    }));
}
