#include "notifications/inventory/CNotfyBiosSettingsChange.h"
#include "core/EventValues.h"

#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr LONG kTextNominal = 63001;
constexpr LONG kTextDeviation = 63003;
constexpr DWORD kPropertyNameSize = 260;

// Ends the property enumeration of an access object on every way out, raised failures included.
class CPropertyEnumeration {
public:
    explicit CPropertyEnumeration(CCWMIAccess& access) : m_access(access) {}
    ~CPropertyEnumeration()
    {
        if (m_bOpen)
            m_access.EndPropertyEnumeration();
    }
    CPropertyEnumeration(const CPropertyEnumeration&) = delete;
    CPropertyEnumeration& operator=(const CPropertyEnumeration&) = delete;

    HRESULT Begin()
    {
        const HRESULT hr = m_access.BeginPropertyEnumeration();
        m_bOpen = SUCCEEDED(hr);
        return hr;
    }
    HRESULT End()
    {
        m_bOpen = false;
        return m_access.EndPropertyEnumeration();
    }

private:
    CCWMIAccess& m_access;
    bool m_bOpen = false;
};

// A property is monitored when its BiossetParam qualifier names a BIOS parameter. System
// properties have no qualifiers at all, which the service answers with WBEM_E_SYSTEM_PROPERTY.
bool IsMonitored(CCWMIAccess& source, const char* szProperty, const char* szQualifiedName)
{
    CCVariant param;
    const HRESULT hr = source.GetQualifier("BiossetParam", param.GetAddress(), szProperty);
    if (hr == static_cast<HRESULT>(WBEM_E_NOT_FOUND) || hr == static_cast<HRESULT>(WBEM_E_SYSTEM_PROPERTY))
        return false;
    if (FAILED(hr))
        RaiseHr(hr, szQualifiedName, "Raising exception because GetQualifier failed", "Value: %s, hr: 0x%x",
                szProperty, static_cast<unsigned>(hr));
    switch (param.Type()) {
    case VT_EMPTY:
    case VT_NULL:
        return false;
    case VT_BSTR:
        return SysStringLen(V_BSTR(&param.Get())) != 0;
    default:
        return true;
    }
}

// VARCMP_EQ when the setting has its nominal value. Anything else is a deviation, including a
// failure: VarCmp does not take arrays, so an array setting is never taken as equal.
HRESULT CompareSetting(CCVariant& current, CCVariant& nominal)
{
    if (current.Type() == VT_NULL && nominal.Type() == VT_NULL)
        return VARCMP_EQ;
    if ((current.Type() & VT_ARRAY) || (nominal.Type() & VT_ARRAY))
        return DISP_E_TYPEMISMATCH;
    return VarCmp(current.Ptr(), nominal.Ptr(), LOCALE_USER_DEFAULT, NORM_IGNORECASE);
}

}  // namespace

CNotfyBiosSettingsChange::CNotfyBiosSettingsChange()
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_BiosSettingsChange_Static";
    // Object holds the settings instance's path in this namespace, where the obsolescence scan looks it up.
    m_sReferencedNamespace = "root\\oxl1v2\\KM_Bios";
    m_sAuxiliary = "select * from COXL_BiosSettings";
    TraceLifetime("CNotfyBiosSettingsChange", true);
}

CNotfyBiosSettingsChange::~CNotfyBiosSettingsChange()
{
    TraceLifetime("CNotfyBiosSettingsChange", false);
}

HRESULT CNotfyBiosSettingsChange::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyBiosSettingsChange::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts;
    return trace.Return(ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                              [&](CCWMIAccess& source) {
        BeginEvent(source, texts, kName, false);
        CCVariant objId;
        HRESULT hr = source.GetProperty("ObjId", objId.GetAddress(), false, 0);
        if (SUCCEEDED(hr))
            hr = m_wmi.SetProperty("DeviceId", objId.Ptr());
        RaiseIfFailed(hr, kName, texts.szDeviceId);
        const HRESULT hrData = SetEventData(source);
        RaiseIfFailed(hrData, kName, texts.szSetEventData);
        CompleteEvent(hrData, kName, texts);
    }));
}

HRESULT CNotfyBiosSettingsChange::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyBiosSettingsChange::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        unsigned long ulStatus = 1;
        LONG lTextId = kTextNominal;

        CPropertyEnumeration properties(source);
        RaiseIfFailed(properties.Begin(), kName, "Raising exception because BeginPropertyEnumeration failed");

        CCWMIAccess nominal;
        nominal = static_cast<IWbemServices*>(source);
        OpenAccess(nominal);
        RaiseIfFailed(nominal.GetClassInstances(kNominalClass, 0), kName,
                      "Raising exception because GetClassInstances on nominal class failed");

        for (;;) {
            char szProperty[kPropertyNameSize] = {};
            CCVariant current;
            const HRESULT hrNext = source.GetNextProperty(szProperty, current.GetAddress(), kPropertyNameSize, false, 0);
            if (hrNext == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE))
                break;
            // A property that cannot be read (or whose name does not fit) might be a monitored one.
            RaiseIfFailed(hrNext, kName, "Raising exception because GetNextProperty failed");
            if (!IsMonitored(source, szProperty, kName))
                continue;

            CCVariant wanted;
            RaiseIfFailed(nominal.GetProperty(szProperty, wanted.GetAddress(), false, 0), kName,
                          "Raising exception because GetProperty on nominal value failed");
            const HRESULT hrCmp = CompareSetting(current, wanted);
            if (hrCmp != static_cast<HRESULT>(VARCMP_EQ)) {
                ulStatus = 3;
                lTextId = kTextDeviation;
                GetTrace().TraceMsg(TRACE_INFO, kName, "Internal", "Property differs.", "PropName: %s, hrCmp: 0x%x",
                                    szProperty, static_cast<unsigned>(hrCmp));
                break;
            }
        }
        RaiseIfFailed(properties.End(), kName, "Raising exception because EndPropertyEnumeration failed");

        WriteEventState(m_wmi, static_cast<LONG>(ulStatus), lTextId, kName);
        return SetEventType(ulStatus);
    }));
}

HRESULT CNotfyBiosSettingsChange::SetEventType(unsigned long dwStatus)
{
    constexpr char kName[] = "CNotfyBiosSettingsChange::SetEventType";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "dwStatus: %d", static_cast<int>(dwStatus));
    // A return towards the nominal state is no event of its own kind: never 2.
    return trace.Return(SetEventTypeFromStored(dwStatus, 3, kName, "This instance has already been set."));
}
