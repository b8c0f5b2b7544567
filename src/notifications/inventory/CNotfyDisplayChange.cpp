#include "notifications/inventory/CNotfyDisplayChange.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <memory>
#include <type_traits>
#include <vector>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kKindName[] = "CNotfyDisplayChange";
constexpr char kSettingsKey[] = "SOFTWARE\\Tessaline Systems\\Larkspan\\Infrastructure\\Notification\\Moradel.dll\\"
                                "NotificationId";
constexpr char kEnclosureQuery[] = "select * from Win32_SystemEnclosure";

struct KeyCloser {
    void operator()(HKEY hKey) const { RegCloseKey(hKey); }
};
using KeyHandle = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

// SMBIOS chassis types portable, laptop, notebook, hand held and all in one.
bool IsPortableChassis(LONG lType)
{
    return lType == 8 || lType == 9 || lType == 10 || lType == 11 || lType == 13;
}

// The elements of a one-dimensional integer array (uint16[] arrives as VT_ARRAY | VT_I4, but
// narrower element types are read too); false for anything else or an empty array.
bool ReadIntegerArray(const VARIANT& value, std::vector<LONG>* pValues)
{
    SAFEARRAY* psa = (V_VT(&value) & VT_ARRAY) ? V_ARRAY(&value) : nullptr;
    if (!psa || SafeArrayGetDim(psa) != 1)
        return false;
    LONG lLower = 0;
    LONG lUpper = -1;
    if (FAILED(SafeArrayGetLBound(psa, 1, &lLower)) || FAILED(SafeArrayGetUBound(psa, 1, &lUpper)))
        return false;
    const VARTYPE vt = V_VT(&value) & VT_TYPEMASK;
    for (LONG l = lLower; l <= lUpper; ++l) {
        HRESULT hr = E_FAIL;
        LONG lElement = 0;
        if (vt == VT_I4 || vt == VT_UI4) {
            hr = SafeArrayGetElement(psa, &l, &lElement);
        } else if (vt == VT_I2 || vt == VT_UI2) {
            USHORT usElement = 0;
            hr = SafeArrayGetElement(psa, &l, &usElement);
            lElement = usElement;
        } else if (vt == VT_I1 || vt == VT_UI1) {
            BYTE bElement = 0;
            hr = SafeArrayGetElement(psa, &l, &bElement);
            lElement = bElement;
        }
        if (FAILED(hr))
            return false;
        pValues->push_back(lElement);
    }
    return !pValues->empty();
}

// A class name read back from a stored instance goes into a query as it is, so it may hold
// nothing but the characters of a class name.
bool IsClassName(const std::wstring& wsName)
{
    if (wsName.empty())
        return false;
    for (const wchar_t wc : wsName)
        if (!(wc == L'_' || (wc >= L'0' && wc <= L'9') || (wc >= L'A' && wc <= L'Z') || (wc >= L'a' && wc <= L'z')))
            return false;
    return true;
}

// The serial number becomes a WQL string literal: escaped, so that no serial can end the literal
// and add conditions of its own.
std::string SerialNumberQuery(const std::wstring& wsClass, const std::wstring& wsSerial)
{
    const std::wstring wsQuery = L"select * from " + wsClass + L" where SerialNumber = " + QuotedText(wsSerial);
    CCStringConversion query(wsQuery.c_str());
    const char* szQuery = query.Convert2A();
    return szQuery ? szQuery : "";
}

}  // namespace

CNotfyDisplayChange::CNotfyDisplayChange() : CNotfyInventoryChange(kKindName)
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_DisplayChange_Static";
    m_sAuxiliary = "select * from COXL_MonitorEnclosure";
    TraceLifetime("CNotfyDisplayChange", true);
}

CNotfyDisplayChange::~CNotfyDisplayChange()
{
    TraceLifetime("CNotfyDisplayChange", false);
}

bool CNotfyDisplayChange::IsSupported()
{
    constexpr char kName[] = "CNotfyDisplayChange::IsSupported";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const HRESULT hrResult = CatchHr([&]() -> HRESULT {
        CCWMIAccess enclosure;
        HRESULT hr = OpenAccess(enclosure, "root\\cimv2");
        if (SUCCEEDED(hr))
            hr = enclosure.ExecuteQuery(kEnclosureQuery, 0);
        if (FAILED(hr)) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "error executing query select * from Win32_SystemEnclosure",
                                "hr 0x%X", static_cast<unsigned>(hr));
            return S_FALSE;
        }
        CCVariant chassisTypes;
        std::vector<LONG> types;
        hr = enclosure.GetProperty("ChassisTypes", chassisTypes.GetAddress(), false, 0);
        if (FAILED(hr) || !ReadIntegerArray(chassisTypes.Get(), &types)) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "error getting chassistypes property", "hr 0x%X",
                                static_cast<unsigned>(hr));
            return S_FALSE;
        }
        for (const LONG lType : types)
            if (IsPortableChassis(lType))
                return S_FALSE;
        return S_OK;
    });
    return trace.ReturnBool(hrResult == S_OK);
}

void CNotfyDisplayChange::CheckFirstCall()
{
    constexpr char kName[] = "CNotfyDisplayChange::CheckFirstCall";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    m_bFirstCall = true;
    const std::string sKey = std::string(kSettingsKey) + "\\" + std::to_string(m_ulNotfyId);
    HKEY hRaw = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, sKey.c_str(), 0, KEY_READ, &hRaw) == ERROR_SUCCESS) {
        const KeyHandle hKey(hRaw);
        DWORD dwType = 0;
        DWORD dwCalled = 0;
        DWORD cbCalled = sizeof(dwCalled);
        if (RegQueryValueExA(hKey.get(), "AlreadyCalled", nullptr, &dwType, reinterpret_cast<BYTE*>(&dwCalled),
                             &cbCalled) == ERROR_SUCCESS &&
            dwType == REG_DWORD && cbCalled == sizeof(dwCalled) && dwCalled != 0)
            m_bFirstCall = false;
    }
    // Written on every cycle, so even a first cycle that fails later on counts as done.
    hRaw = nullptr;
    LONG lResult = RegCreateKeyExA(HKEY_LOCAL_MACHINE, sKey.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &hRaw,
                                   nullptr);
    if (lResult == ERROR_SUCCESS) {
        const KeyHandle hKey(hRaw);
        const DWORD dwCalled = 1;
        lResult = RegSetValueExA(hKey.get(), "AlreadyCalled", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwCalled),
                                 sizeof(dwCalled));
    }
    if (lResult != ERROR_SUCCESS)
        GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Could not store 'AlreadyCalled'", "lResult: %ld",
                            static_cast<long>(lResult));
    GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "", "bFirstCall: %d", m_bFirstCall ? 1 : 0);
}

HRESULT CNotfyDisplayChange::RetrieveInstances()
{
    const std::string sName = QualifiedName("RetrieveInstances");
    const char* kName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    CheckFirstCall();
    const CEventStepTexts texts;
    LONG lDeviceId = 1;
    bool bHasData = false;
    const HRESULT hr = ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sAuxiliary.c_str(),
                                             [&](CCWMIAccess& enclosure) {
        bHasData = true;
        std::wstring wsSerial;
        if (FAILED(ReadText(enclosure, "SerialNumber", &wsSerial)) || wsSerial.empty())
            return;  // without a serial number a monitor has no key: not reported, no number used
        RaiseIfFailed(m_wmi.NewInstance(m_sEventClassName.c_str()), kName, texts.szNewInstance);
        CCVariant serial;
        serial.SetText(wsSerial.c_str());
        RaiseIfFailed(m_wmi.SetProperty("Serialnumber", serial.Ptr()), kName,
                      "Raising exception because SetProperty on 'Serialnumber' failed");
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", lDeviceId), kName, texts.szDeviceId);
        CCVariant objectClass;
        HRESULT hrClass = enclosure.GetProperty("__Class", objectClass.GetAddress(), false, 0);
        if (SUCCEEDED(hrClass))
            hrClass = m_wmi.SetProperty("ObjectClass", objectClass.Ptr());
        RaiseIfFailed(hrClass, kName, "Raising exception because SetProperty on Object reference failed");
        const HRESULT hrData = SetEventData(enclosure);
        RaiseIfFailed(hrData, kName, texts.szSetEventData);
        CompleteEvent(hrData, kName, texts);
        ++lDeviceId;
    });
    if (FAILED(hr)) {
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error executing assoc-query for MediaAccessDevices",
                            "hr 0x%X", static_cast<unsigned>(hr));
        return trace.Return(hr);
    }
    // No enclosure at all: nothing to compare, so no removals either.
    if (!bHasData)
        return trace.Return(S_OK);
    return trace.Return(AddObsoleteInstances());
}

HRESULT CNotfyDisplayChange::GetAssocProperty(CCWMIAccess& source, const char* szPropertyName, VARIANT* pvValue)
{
    constexpr char kName[] = "CNotfyDisplayChange::GetAssocProperty";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "szPropertyName: %s", szPropertyName ? szPropertyName : "(null)");
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant relPath;
        HRESULT hr = source.GetProperty("__RELPATH", relPath.GetAddress(), false, 0);
        if (SUCCEEDED(hr) && (relPath.Type() != VT_BSTR || !V_BSTR(&relPath.Get())))
            hr = WBEM_E_TYPE_MISMATCH;
        RaiseIfFailed(hr, kName, "Throwing exception because GetProperty on __RELPATH property failed!");
        // Built as a string, so no path is too long for it.
        const std::string sQuery = "ASSOCIATORS OF {" + NarrowText(relPath.Get()) +
                                   "} WHERE ResultClass = " + m_sMonitorClass;
        CCWMIAccess monitor;
        monitor = static_cast<IWbemServices*>(source);
        OpenAccess(monitor);
        RaiseIfFailed(monitor.ExecuteQuery(sQuery.c_str(), 0), kName,
                      "Throwing exception because ExecuteQuery with assocation failed!");
        RaiseIfFailed(monitor.GetProperty(szPropertyName, pvValue, false, 0), kName,
                      "Throwing exception because GetProperty on requested property failed!");
        return S_OK;
    }));
}

HRESULT CNotfyDisplayChange::SetEventData(CCWMIAccess& source)
{
    const std::string sName = QualifiedName("SetEventData");
    const char* kName = sName.c_str();
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCVariant name;
        HRESULT hr = GetAssocProperty(source, "Name", name.GetAddress());
        if (FAILED(hr))
            RaiseHr(hr, kName, "Rasing exception because error getting 'Name' property", "hr 0x%X",
                    static_cast<unsigned>(hr));
        hr = m_wmi.SetProperty("Name", name.Ptr());
        if (FAILED(hr))
            GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Error setting 'Name' property", "hr 0x%X",
                                static_cast<unsigned>(hr));
        const std::wstring wsName = (name.Type() == VT_BSTR && V_BSTR(&name.Get())) ? V_BSTR(&name.Get()) : L"";
        std::wstring wsSerial;
        ReadText(source, "SerialNumber", &wsSerial);  // read and checked by the caller already

        EInventoryOutcome outcome = EInventoryOutcome::FirstInventory;
        if (!m_bFirstCall) {
            CCWMIAccess stored;
            outcome = LookupStored(stored, kName);
        }
        return WriteOutcome(outcome, {wsName, wsSerial}, kName);
    }));
}

HRESULT CNotfyDisplayChange::GetObsoleteInstances()
{
    constexpr char kName[] = "CNotfyDisplayChange::GetObsoleteInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess stored;
        if (!OpenStoredInstances(stored, kName, true))
            return S_OK;
        CCWMIAccess data;
        // A failed connection shows as the failure of the first search.
        OpenAccess(data, m_sReferencedNamespace.c_str());
        do {
            const HRESULT hrItem = CatchHr([&]() -> HRESULT {
                std::wstring wsClass;
                if (FAILED(ReadText(stored, "ObjectClass", &wsClass)) || !IsClassName(wsClass))
                    RaiseSkip(NOTFY_S_SKIP, kName,
                              "Raising exception because Could not get the class of the referenced object.");
                std::wstring wsSerial;
                if (FAILED(ReadText(stored, "Serialnumber", &wsSerial)))
                    RaiseSkip(NOTFY_S_SKIP, kName,
                              "Raising exception because could not get the serialnumber of the static instance.");
                const std::string sQuery = SerialNumberQuery(wsClass, wsSerial);
                const HRESULT hr = data.ExecuteQuery(sQuery.c_str(), 0);
                if (hr == static_cast<HRESULT>(WBEM_E_NOT_AVAILABLE))
                    Append(m_obsoleteList, stored);  // no monitor with that serial number any more
                else if (FAILED(hr))
                    RaiseHr(hr, kName,
                            "Raising exception because an error occured (not WBEM_E_NOT_FOUND) when accessing the "
                            "reference object.",
                            "Query: %s, hr: 0x%x", sQuery.c_str(), static_cast<unsigned>(hr));
                return S_OK;
            });
            if (FAILED(hrItem))
                return hrItem;
        } while (SUCCEEDED(stored.GetNextWMIInstanceInEnumerator()));
        return S_OK;
    }));
}
