#include "notifications/sensors/CNotfyHardDisksSMART.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <cwchar>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kRetrieve[] = "CNotfyHardDisksSMART::RetrieveInstances";
constexpr char kSetEventData[] = "CNotfyHardDisksSMART::SetEventData";
constexpr ULONG kFailurePredictionSense = 0x5D;
constexpr LONG kFirstTextId = 1000;

// A 32-bit property as unsigned; false when it is absent or not an integer.
bool ReadU4(CCWMIAccess& access, const char* szProperty, ULONG* pulValue)
{
    LONG lValue = 0;
    if (FAILED(ReadI4(access, szProperty, &lValue)))
        return false;
    *pulValue = static_cast<ULONG>(lValue);
    return true;
}

bool ReadTrue(CCWMIAccess& access, const char* szProperty)
{
    bool bValue = false;
    return SUCCEEDED(ReadBool(access, szProperty, &bValue)) && bValue;
}

// At least two upper-case hex digits.
std::wstring HexByte(ULONG ulValue)
{
    constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
    std::wstring wsHex;
    do {
        wsHex.insert(wsHex.begin(), kDigits[ulValue & 0xF]);
        ulValue >>= 4;
    } while (ulValue);
    if (wsHex.size() < 2)
        wsHex.insert(wsHex.begin(), L'0');
    return wsHex;
}

std::string Narrow(const std::wstring& ws)
{
    CCStringConversion text(ws.c_str());
    const char* sz = text.Convert2A();
    return sz ? sz : "";
}

// Reads a text of the disk and writes it to the event under the same name.
std::wstring CopyText(CCWMIAccess& source, CCWMIAccess& event, const char* szProperty, const char* szGetFailed,
                      const char* szSetFailed)
{
    std::wstring wsValue;
    RaiseIfFailed(ReadText(source, szProperty, &wsValue), kSetEventData, szGetFailed);
    RaiseIfFailed(PutText(event, szProperty, wsValue), kSetEventData, szSetFailed);
    return wsValue;
}

}  // namespace

void CSmartFindings::Add(unsigned long ulFindingStatus, std::wstring wsEntry)
{
    if (ulFindingStatus > ulStatus)
        ulStatus = ulFindingStatus;
    entries.push_back(std::move(wsEntry));
}

CNotfyHardDisksSMART::CNotfyHardDisksSMART()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_HardDisksSMART_Static";
    m_sAuxiliary = "select * from COXL_SmartInformation";
    TraceLifetime("CNotfyHardDisksSMART", true);
}

CNotfyHardDisksSMART::~CNotfyHardDisksSMART()
{
    TraceLifetime("CNotfyHardDisksSMART", false);
}

void CNotfyHardDisksSMART::ClassifyAttribute(const CSmartAttribute& attribute, const CSmartLimits& limits,
                                             CSmartFindings* pFindings)
{
    // Advisory attributes only inform; a threshold of 0 means the attribute can never fail.
    if (!attribute.bPreFailure || attribute.ulThreshold == 0)
        return;
    unsigned long ulStatus = 1;
    if (attribute.ulValue <= attribute.ulThreshold)
        ulStatus = 3;
    else if (static_cast<LONGLONG>(attribute.ulValue) <= static_cast<LONGLONG>(attribute.ulThreshold) + limits.llMargin)
        ulStatus = 2;
    else
        return;
    pFindings->Add(ulStatus, std::to_wstring(attribute.ulId) + L" " + attribute.wsName + L" " +
                                 std::to_wstring(attribute.ulValue) + L"/" + std::to_wstring(attribute.ulThreshold));
}

void CNotfyHardDisksSMART::ClassifyScsiData(const CSmartScsiData& data, const CSmartLimits& limits,
                                            CSmartFindings* pFindings)
{
    if (data.bHasSenseCode && data.ulSenseCode == kFailurePredictionSense)
        pFindings->Add(3, L"ASC 0x" + HexByte(data.ulSenseCode) + L"/0x" + HexByte(data.ulSenseCodeQualifier));
    if (!data.bHasGrownDefects)
        return;
    const LONGLONG llDefects = data.ulGrownDefects;
    if (llDefects >= limits.llDefectsCritical)
        pFindings->Add(3, L"GrownDefects " + std::to_wstring(data.ulGrownDefects));
    else if (llDefects >= limits.llDefectsWarning)
        pFindings->Add(2, L"GrownDefects " + std::to_wstring(data.ulGrownDefects));
}

HRESULT CNotfyHardDisksSMART::RetrieveInstances()
{
    CCMethodTrace trace(TRACE_INFO, kRetrieve, kEntered);
    // The limits cannot change within one request.
    m_limits = CSmartLimits{};
    GetThresholdState(0, &m_limits.llMargin, nullptr, &m_limits.llDefectsWarning, &m_limits.llDefectsCritical);
    const CEventStepTexts texts;
    LONG lNextDeviceId = 1;
    return trace.Return(ForEachSourceInstance(kRetrieve, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& disk) {
        if (!ReadTrue(disk, "SmartSupported") || !ReadTrue(disk, "SmartEnabled"))
            RaiseSkip(NOTFY_S_SKIP, kRetrieve, "Raising exception because SMART is not supported or not enabled.");
        BeginEvent(disk, texts, kRetrieve, false);
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", lNextDeviceId), kRetrieve, texts.szDeviceId);
        const HRESULT hrData = SetEventData(disk);
        RaiseIfFailed(hrData, kRetrieve, texts.szSetEventData);
        CompleteEvent(hrData, kRetrieve, texts);
        ++lNextDeviceId;
    }));
}

HRESULT CNotfyHardDisksSMART::SetEventData(CCWMIAccess& source)
{
    CCMethodTrace trace(TRACE_INFO, kSetEventData, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        const std::wstring wsName = CopyText(source, m_wmi, "Name", "Raising exception because error getting 'Name' property",
                                             "Raising exception because SetProperty on 'Name' failed");
        const std::wstring wsInterface =
            CopyText(source, m_wmi, "InterfaceType", "Raising exception because error getting 'InterfaceType' property",
                     "Raising exception because SetProperty on 'InterfaceType' failed");
        std::wstring wsDeviceId;
        RaiseIfFailed(ReadText(source, "DeviceID", &wsDeviceId), kSetEventData,
                      "Raising exception because error getting 'DeviceID' property");

        CSmartFindings findings;
        if (ReadTrue(source, "PredictFailure"))
            findings.Add(3, L"PredictFailure");
        if (_wcsicmp(wsInterface.c_str(), L"IDE") == 0)
            AddAttributeFindings(wsDeviceId, &findings);
        else
            AddScsiFindings(wsDeviceId, &findings);

        std::wstring wsJoined;
        for (const std::wstring& wsEntry : findings.entries)
            wsJoined += (wsJoined.empty() ? L"" : L", ") + wsEntry;
        RaiseIfFailed(PutTextArray(m_wmi, "FailingAttributes", findings.entries), kSetEventData,
                      "Raising exception because SetProperty on 'FailingAttributes' failed");
        WriteEventState(m_wmi, static_cast<LONG>(findings.ulStatus),
                        kFirstTextId + static_cast<LONG>(findings.ulStatus), kSetEventData);
        RaiseIfFailed(PutTextArray(m_wmi, "EventTextArguments", {wsName, wsDeviceId, wsJoined.empty() ? L"--" : wsJoined}),
                      kSetEventData, "Raising exception because error setting 'EventTextArguments' property");
        return SetEventType(findings.ulStatus);
    }));
}

void CNotfyHardDisksSMART::AddAttributeFindings(const std::wstring& wsDeviceId, CSmartFindings* pFindings)
{
    const std::string sQuery = Narrow(L"select * from COXL_SmartIdeData where DeviceID = " + QuotedText(wsDeviceId));
    const HRESULT hr = ForEachSourceInstance(kSetEventData, m_sReferencedNamespace.c_str(), sQuery.c_str(),
                                             [&](CCWMIAccess& item) {
        CSmartAttribute attribute;
        attribute.bPreFailure = ReadTrue(item, "PreFailure");
        if (!ReadU4(item, "Threshold", &attribute.ulThreshold) || !attribute.bPreFailure)
            return;
        if (!ReadU4(item, "AttributeId", &attribute.ulId) || !ReadU4(item, "Value", &attribute.ulValue))
            RaiseIfFailed(WBEM_E_TYPE_MISMATCH, kSetEventData, "Raising exception because error getting 'Value' property");
        ReadText(item, "AttributeName", &attribute.wsName);
        ClassifyAttribute(attribute, m_limits, pFindings);
    });
    RaiseIfFailed(hr, kSetEventData, "Raising exception because the SMART attributes could not be read");
}

void CNotfyHardDisksSMART::AddScsiFindings(const std::wstring& wsDeviceId, CSmartFindings* pFindings)
{
    CCWMIAccess data;
    OpenAccess(data, m_sReferencedNamespace.c_str());
    const HRESULT hr = GetObjectAt(data, (L"COXL_SmartScsiData.DeviceID=" + QuotedText(wsDeviceId)).c_str());
    if (hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND))
        return;
    RaiseIfFailed(hr, kSetEventData, "Raising exception because the SCSI sense data could not be read");
    CSmartScsiData scsi;
    scsi.bHasSenseCode = ReadU4(data, "AdditionalSenseCode", &scsi.ulSenseCode);
    ReadU4(data, "AdditionalSenseCodeQualifier", &scsi.ulSenseCodeQualifier);
    scsi.bHasGrownDefects = ReadU4(data, "GrownDefects", &scsi.ulGrownDefects);
    ClassifyScsiData(scsi, m_limits, pFindings);
}
