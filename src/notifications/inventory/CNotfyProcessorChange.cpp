#include "notifications/inventory/CNotfyProcessorChange.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <limits>
#include <optional>
#include <vector>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kKindName[] = "CNotfyProcessorChange";

// What the change test looks at, from a source processor or a stored event; a value of the
// wrong type counts as absent.
struct CProcessorValues {
    std::optional<LONG> family;
    std::optional<LONG> maxSpeed;
    std::optional<std::wstring> processorId;
    std::optional<std::wstring> name;
};

CProcessorValues ReadProcessorValues(CCWMIAccess& access, const char* szFamily, const char* szMaxSpeed,
                                     const char* szProcessorId, const char* szName)
{
    CProcessorValues values;
    LONG lValue = 0;
    std::wstring wsValue;
    if (SUCCEEDED(ReadI4(access, szFamily, &lValue)))
        values.family = lValue;
    if (SUCCEEDED(ReadI4(access, szMaxSpeed, &lValue)))
        values.maxSpeed = lValue;
    if (SUCCEEDED(ReadText(access, szProcessorId, &wsValue)))
        values.processorId = wsValue;
    if (SUCCEEDED(ReadText(access, szName, &wsValue)))
        values.name = wsValue;
    return values;
}

// Clock speeds are uint32 but arrive as VT_I4.
std::wstring SpeedText(const std::optional<LONG>& speed)
{
    return std::to_wstring(static_cast<unsigned long>(speed.value_or(0)));
}

wchar_t FoldLetter(wchar_t wc)
{
    return (wc >= L'a' && wc <= L'z') ? static_cast<wchar_t>(wc - L'a' + L'A') : wc;
}

}  // namespace

CNotfyProcessorChange::CNotfyProcessorChange() : CNotfyInventoryChange(kKindName)
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_ProcessorChange_Static";
    m_sReferencedNamespace = "root\\oxl1v2\\KM_Inventory";
    m_sAuxiliary = "select * from COXL_PhysicalProcessor";
    TraceLifetime("CNotfyProcessorChange", true);
}

CNotfyProcessorChange::~CNotfyProcessorChange()
{
    TraceLifetime("CNotfyProcessorChange", false);
}

LONG CNotfyProcessorChange::GetProcessorNumber(const std::wstring& wsDeviceId)
{
    const size_t uCpu = wsDeviceId.find(L"CPU");
    constexpr LONG kMax = std::numeric_limits<LONG>::max();
    LONG lNumber = 0;
    for (size_t u = uCpu == std::wstring::npos ? 0 : uCpu + 3;
         u < wsDeviceId.size() && wsDeviceId[u] >= L'0' && wsDeviceId[u] <= L'9'; ++u) {
        const LONG lDigit = wsDeviceId[u] - L'0';
        // An endless digit string saturates, as the C runtime's atoi does, instead of overflowing.
        if (lNumber > (kMax - lDigit) / 10)
            return kMax;
        lNumber = lNumber * 10 + lDigit;
    }
    return lNumber;
}

bool CNotfyProcessorChange::ProcessorIdsDiffer(const std::wstring& wsStored, const std::wstring& wsCurrent)
{
    // A processor that does not report its id is judged by family and speed alone.
    if (wsStored.empty() || wsCurrent.empty())
        return false;
    if (wsStored.size() != wsCurrent.size())
        return true;
    for (size_t u = 0; u < wsStored.size(); ++u)
        if (FoldLetter(wsStored[u]) != FoldLetter(wsCurrent[u]))
            return true;
    return false;
}

HRESULT CNotfyProcessorChange::RetrieveInstances()
{
    const std::string sName = QualifiedName("RetrieveInstances");
    const char* kName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts{.szDeviceId = "Raising exception because Could not set key property."};
    bool bHasData = false;
    const HRESULT hr = ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                             [&](CCWMIAccess& source) {
        bHasData = true;
        BeginEvent(source, texts, kName, false);
        std::wstring wsDeviceId;
        RaiseIfFailed(ReadText(source, "DeviceID", &wsDeviceId), kName,
                      "Raising exception because error getting 'DeviceID' property");
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", GetProcessorNumber(wsDeviceId)), kName, texts.szDeviceId);
        const HRESULT hrData = SetEventData(source);
        RaiseIfFailed(hrData, kName, texts.szSetEventData);
        CompleteEvent(hrData, kName, texts);
    });
    // Without any processor there is nothing to compare, so no removals either.
    if (FAILED(hr) || !bHasData)
        return trace.Return(hr);
    return trace.Return(AddObsoleteInstances());
}

bool CNotfyProcessorChange::IsFirstInventory(const char* szQualifiedName)
{
    CCWMIAccess stored;
    stored = static_cast<IWbemServices*>(m_wmi);
    OpenAccess(stored);
    const std::string sPath = m_sEventClassName + ".DeviceId=0";
    const HRESULT hr = stored.GetObject(sPath.c_str());
    if (hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND))
        return true;
    if (FAILED(hr))
        RaiseHr(hr, szQualifiedName, "GetOldObject returned an unexpected WMI HRESULT", "hr 0x%X",
                static_cast<unsigned>(hr));
    return false;
}

HRESULT CNotfyProcessorChange::SetEventData(CCWMIAccess& source)
{
    const std::string sName = QualifiedName("SetEventData");
    const char* kName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        const CProcessorValues current = ReadProcessorValues(source, "Family", "MaxClockSpeed", "ProcessorId",
                                                             "Description");
        if (current.family)
            RaiseIfFailed(PutI4(m_wmi, "FamilyId", *current.family), kName,
                          "Raising exception because SetProperty on 'FamilyId' failed");
        if (current.maxSpeed)
            RaiseIfFailed(PutI4(m_wmi, "MaxSpeed", *current.maxSpeed), kName,
                          "Raising exception because SetProperty on 'MaxSpeed' failed");
        if (current.processorId)
            RaiseIfFailed(PutText(m_wmi, "ProcessorId", *current.processorId), kName,
                          "Raising exception because SetProperty on 'ProcessorId' failed");
        if (current.name)
            RaiseIfFailed(PutText(m_wmi, "Name", *current.name), kName,
                          "Raising exception because SetProperty on 'Name' failed");

        std::vector<std::wstring> arguments{current.name.value_or(L""), SpeedText(current.maxSpeed)};
        EInventoryOutcome outcome = EInventoryOutcome::FirstInventory;
        if (!IsFirstInventory(kName)) {
            CCWMIAccess stored;
            outcome = LookupStored(stored, kName);
            if (outcome == EInventoryOutcome::Unchanged) {
                const CProcessorValues previous = ReadProcessorValues(stored, "FamilyId", "MaxSpeed", "ProcessorId",
                                                                      "Name");
                if (previous.family.value_or(0) != current.family.value_or(0) ||
                    previous.maxSpeed.value_or(0) != current.maxSpeed.value_or(0) ||
                    ProcessorIdsDiffer(previous.processorId.value_or(L""), current.processorId.value_or(L""))) {
                    outcome = EInventoryOutcome::Changed;
                    arguments.push_back(previous.name.value_or(L""));
                    arguments.push_back(SpeedText(previous.maxSpeed));
                }
            }
        }
        return WriteOutcome(outcome, arguments, kName);
    }));
}
