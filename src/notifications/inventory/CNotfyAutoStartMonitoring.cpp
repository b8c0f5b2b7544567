#include "notifications/inventory/CNotfyAutoStartMonitoring.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "core/EventValues.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"
#include "notifications/inventory/ListComparison.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <memory>
#include <type_traits>

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr char kSettingsRoot[] =
    "SOFTWARE\\Tessaline Systems\\Larkspan\\Infrastructure\\Notification\\Moradel.dll\\NotificationId";
constexpr char kDefaultShellFolders[] = ".DEFAULT\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders";
constexpr char kServiceStartupFolder[] = "%systemroot%\\system32\\config\\systemprofile\\Start Menu\\Programs\\Startup";
constexpr char kPrivateFailed[] = "Rasing exception because private mehtod return an error";

struct KeyCloser {
    void operator()(HKEY hKey) const { RegCloseKey(hKey); }
};
using KeyHandle = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

KeyHandle OpenKey(HKEY hRoot, const char* szPath, REGSAM samDesired)
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExA(hRoot, szPath, 0, samDesired, &hKey) != ERROR_SUCCESS)
        return KeyHandle();
    return KeyHandle(hKey);
}

// A REG_SZ or REG_EXPAND_SZ value (not expanded) of any length; false when absent or of another type.
bool ReadStringValue(HKEY hKey, const char* szName, std::string* psValue)
{
    // The value may grow between asking for its size and reading it.
    for (int iTry = 0; iTry < 3; ++iTry) {
        DWORD dwType = 0;
        DWORD cbSize = 0;
        if (RegQueryValueExA(hKey, szName, nullptr, &dwType, nullptr, &cbSize) != ERROR_SUCCESS ||
            (dwType != REG_SZ && dwType != REG_EXPAND_SZ))
            return false;
        std::string sBuffer(static_cast<size_t>(cbSize) + 1, '\0');
        DWORD cbRead = cbSize;
        const LONG lResult =
            RegQueryValueExA(hKey, szName, nullptr, &dwType, reinterpret_cast<BYTE*>(sBuffer.data()), &cbRead);
        if (lResult == ERROR_MORE_DATA)
            continue;
        if (lResult != ERROR_SUCCESS || (dwType != REG_SZ && dwType != REG_EXPAND_SZ))
            return false;
        // A stored value need not end with its terminator.
        psValue->assign(sBuffer.data(), strnlen(sBuffer.data(), cbRead));
        return true;
    }
    return false;
}

// Upper case in the system's ANSI code page, so that multibyte names map as a whole.
std::string ToUpper(const std::string& sText)
{
    if (sText.empty())
        return sText;
    if (sText.size() < static_cast<size_t>(INT_MAX)) {
        const int cchText = static_cast<int>(sText.size());
        const int cchUpper = LCMapStringA(LOCALE_SYSTEM_DEFAULT, LCMAP_UPPERCASE, sText.data(), cchText, nullptr, 0);
        if (cchUpper > 0) {
            std::string sUpper(static_cast<size_t>(cchUpper), '\0');
            if (LCMapStringA(LOCALE_SYSTEM_DEFAULT, LCMAP_UPPERCASE, sText.data(), cchText, sUpper.data(), cchUpper) ==
                cchUpper)
                return sUpper;
        }
    }
    std::string sUpper = sText;
    for (char& c : sUpper)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return sUpper;
}

// NT 5.x and older: the service account has no startup folder of its own, and DisableXP applies.
bool IsNtUpToVersion5()
{
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    OSVERSIONINFOW info = {};
    info.dwOSVersionInfoSize = sizeof(info);
    // RtlGetVersion tells the real version where GetVersionEx may answer for compatibility. Every
    // NT from 5.0 on has it; without it the system counts as a current one (nothing is changed).
    const HMODULE hNtdll = GetModuleHandleW(L"ntdll.dll");
    const auto pfnGetVersion = hNtdll ? reinterpret_cast<RtlGetVersionFn>(reinterpret_cast<void (*)()>(
                                            GetProcAddress(hNtdll, "RtlGetVersion")))
                                      : nullptr;
    return pfnGetVersion && pfnGetVersion(&info) == 0 && info.dwPlatformId == VER_PLATFORM_WIN32_NT &&
           info.dwMajorVersion <= 5;
}

// Gives the default profile a startup folder when it has none, so that its entries can be listed.
void EnsureDefaultStartupFolder()
{
    std::string sStartup;
    {
        const KeyHandle hKey = OpenKey(HKEY_USERS, kDefaultShellFolders, KEY_READ);
        if (hKey && ReadStringValue(hKey.get(), "Startup", &sStartup) && !sStartup.empty())
            return;
    }
    HKEY hRaw = nullptr;
    if (RegCreateKeyExA(HKEY_USERS, kDefaultShellFolders, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &hRaw,
                        nullptr) != ERROR_SUCCESS)
        return;
    const KeyHandle hKey(hRaw);
    char szFolder[MAX_PATH] = {};
    const DWORD cchFolder = ExpandEnvironmentStringsA(kServiceStartupFolder, szFolder, MAX_PATH);
    if (cchFolder == 0 || cchFolder > MAX_PATH)
        return;
    RegSetValueExA(hKey.get(), "Startup", 0, REG_SZ, reinterpret_cast<const BYTE*>(szFolder),
                   static_cast<DWORD>(strlen(szFolder) + 1));
}

// An integer array (uint32 arrives as VT_I4); a NULL value is an empty list.
HRESULT ReadIntegerList(CCWMIAccess& access, const char* szProperty, std::vector<long>* pValues)
{
    CCVariant value;
    HRESULT hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (FAILED(hr))
        return hr;
    pValues->clear();
    if (value.Type() == VT_NULL || value.Type() == VT_EMPTY)
        return hr;
    if ((value.Type() != (VT_ARRAY | VT_I4) && value.Type() != (VT_ARRAY | VT_UI4)) || !V_ARRAY(&value.Get()))
        return WBEM_E_TYPE_MISMATCH;
    SAFEARRAY* psa = V_ARRAY(&value.Get());
    LONG lLower = 0;
    LONG lUpper = -1;
    if (FAILED(SafeArrayGetLBound(psa, 1, &lLower)) || FAILED(SafeArrayGetUBound(psa, 1, &lUpper)))
        return WBEM_E_TYPE_MISMATCH;
    for (LONG l = lLower; l <= lUpper; ++l) {
        LONG lElement = 0;
        const HRESULT hrElement = SafeArrayGetElement(psa, &l, &lElement);
        if (FAILED(hrElement))
            return hrElement;
        pValues->push_back(lElement);
    }
    return hr;
}

// The lists of one user are parallel: an index of the commands must exist in the other list.
void RaiseIfShorter(size_t uSize, size_t uNeeded, const char* szQualifiedName, const char* szMessage)
{
    if (uSize < uNeeded)
        RaiseHr(DISP_E_BADINDEX, szQualifiedName, szMessage, "entries: %u, needed: %u", static_cast<unsigned>(uSize),
                static_cast<unsigned>(uNeeded));
}

void CopyProperty(CCWMIAccess& source, const char* szFrom, CCWMIAccess& event, const char* szTo,
                  const char* szQualifiedName, const char* szReadFailed, const char* szWriteFailed)
{
    CCVariant value;
    RaiseIfFailed(source.GetProperty(szFrom, value.GetAddress(), false, 0), szQualifiedName, szReadFailed);
    RaiseIfFailed(event.SetProperty(szTo, value.Ptr()), szQualifiedName, szWriteFailed);
}

std::string Narrow(const std::wstring& wsText)
{
    CCStringConversion text(wsText.c_str());
    const char* sz = text.Convert2A();
    return sz ? std::string(sz) : std::string();
}

}  // namespace

CNotfyAutoStartMonitoring::CNotfyAutoStartMonitoring() : CNotfyInventoryChange("CNotfyAutoStartMonitoring")
{
    m_ulNotfyId = kNotfyId;
    m_sEventClassName = "KM_AutoStart_Static";
    // The data namespace, where stored users are also looked up for obsolescence.
    m_sReferencedNamespace = "root\\oxl1v2\\KM_Inventory";
    TraceLifetime("CNotfyAutoStartMonitoring", true);
}

CNotfyAutoStartMonitoring::~CNotfyAutoStartMonitoring()
{
    TraceLifetime("CNotfyAutoStartMonitoring", false);
}

std::string CNotfyAutoStartMonitoring::SettingsKey() const
{
    return std::string(kSettingsRoot) + "\\" + std::to_string(m_ulNotfyId);
}

HRESULT CNotfyAutoStartMonitoring::Init(IWbemServices* pNamespace, const CNotfyNames* pNames)
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyAutoStartMonitoring::Init", kEntered);
    const HRESULT hr = CNotfyBase::Init(pNamespace, pNames);
    if (FAILED(hr))
        return trace.Return(hr);
    // The settings are optional: whatever fails here leaves them as they were.
    CatchHr([&]() -> HRESULT {
        if (IsNtUpToVersion5())
            EnsureDefaultStartupFolder();
        return S_OK;
    });
    CatchHr([&]() -> HRESULT {
        ReadExcludeList();
        return S_OK;
    });
    return trace.Return(S_OK);
}

void CNotfyAutoStartMonitoring::ReadExcludeList()
{
    m_sExcludeList.clear();
    const KeyHandle hKey = OpenKey(HKEY_LOCAL_MACHINE, SettingsKey().c_str(), KEY_READ);
    std::string sList;
    if (hKey && ReadStringValue(hKey.get(), "ExcludeList", &sList))
        m_sExcludeList = ToUpper(sList);
}

bool CNotfyAutoStartMonitoring::IsSupported()
{
    CCMethodTrace trace(TRACE_INFO, "CNotfyAutoStartMonitoring::IsSupported", kEntered);
    const HRESULT hr = CatchHr([&]() -> HRESULT {
        if (!IsNtUpToVersion5())
            return S_OK;
        const KeyHandle hKey = OpenKey(HKEY_LOCAL_MACHINE, SettingsKey().c_str(), KEY_READ);
        DWORD dwType = 0;
        DWORD dwValue = 0;
        DWORD cbValue = sizeof(dwValue);
        const bool bDisabled =
            hKey &&
            RegQueryValueExA(hKey.get(), "DisableXP", nullptr, &dwType, reinterpret_cast<BYTE*>(&dwValue), &cbValue) ==
                ERROR_SUCCESS &&
            dwType == REG_DWORD && cbValue == sizeof(dwValue) && dwValue != 0;
        return bDisabled ? S_FALSE : S_OK;
    });
    return trace.ReturnBool(hr != S_FALSE);
}

bool CNotfyAutoStartMonitoring::IsApplicationFiltered(const char* szAppName)
{
    constexpr char kName[] = "CNotfyAutoStartMonitoring::IsApplicationFiltered";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const char* szName = szAppName ? szAppName : "";
    GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "", "szAppName: %s", szName);
    // A plain substring test: the list is not split at any separator.
    const bool bFiltered = m_sExcludeList.find(ToUpper(szName)) != std::string::npos;
    GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "", "retval: %d", bFiltered ? 1 : 0);
    return trace.ReturnBool(bFiltered);
}

HRESULT CNotfyAutoStartMonitoring::RetrieveInstances()
{
    constexpr char kName[] = "CNotfyAutoStartMonitoring::RetrieveInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    const CEventStepTexts texts{.szDeviceId = "Raising exception because SetProperty on 'DeviceId' failed."};
    LONG lDeviceId = 1;
    return trace.Return(ForEachSourceInstance(kName, m_sReferencedNamespace.c_str(), m_sDataQuery.c_str(),
                                              [&](CCWMIAccess& source) {
        BeginEvent(source, texts, kName, false);
        CCVariant user;
        HRESULT hr = source.GetProperty("User", user.GetAddress(), false, 0);
        if (SUCCEEDED(hr))
            hr = m_wmi.SetProperty("User", user.Ptr());
        RaiseIfFailed(hr, kName, "Raising exception because setting 'Name' property failed.");
        RaiseIfFailed(PutI4(m_wmi, "DeviceId", lDeviceId), kName, texts.szDeviceId);
        const HRESULT hrData = SetEventData(source);
        RaiseIfFailed(hrData, kName, texts.szSetEventData);
        CompleteEvent(hrData, kName, texts);
        ++lDeviceId;  // a user that failed uses no number
    }));
}

HRESULT CNotfyAutoStartMonitoring::SetEventData(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyAutoStartMonitoring::SetEventData";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        RaiseIfFailed(CopyProperties(source), kName, kPrivateFailed);
        std::wstring wsUser;
        RaiseIfFailed(ReadText(source, "User", &wsUser), kName, "Rasing exception because error getting 'User' property");
        std::vector<std::wstring> arguments{wsUser};
        const HRESULT hr = CheckChanges(source, arguments);
        if (hr != S_OK && hr != NOTFY_S_NO_REFERENCE && hr != NOTFY_S_LIST_CHANGED)
            RaiseHr(FAILED(hr) ? hr : E_UNEXPECTED, kName, kPrivateFailed, "hr 0x%X", static_cast<unsigned>(hr));
        WriteListOutcome(m_wmi, m_ulNotfyId, hr, &arguments, kName);
        return hr;  // never "unchanged": the reference always takes the latest lists
    }));
}

HRESULT CNotfyAutoStartMonitoring::CopyProperties(CCWMIAccess& source)
{
    constexpr char kName[] = "CNotfyAutoStartMonitoring::CopyProperties";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CopyProperty(source, "Name", m_wmi, "AppName", kName, "Rasing exception because error getting 'Name' property",
                     "Rasing exception because error setting 'Name' property");
        CopyProperty(source, "Command", m_wmi, "Command", kName,
                     "Rasing exception because error getting 'Command' property",
                     "Rasing exception because error setting 'Command' property");
        CCVariant location;
        if (SUCCEEDED(source.GetProperty("Location", location.GetAddress(), false, 0))) {
            const HRESULT hr = m_wmi.SetProperty("Location", location.Ptr());
            if (FAILED(hr))
                GetTrace().TraceMsg(TRACE_WARNING, kName, "Internal", "Minor error when setting the 'Location' property.",
                                    "hr 0x%X", static_cast<unsigned>(hr));
        }
        CCVariant locationType;
        RaiseIfFailed(source.GetProperty("LocationType", locationType.GetAddress(), false, 0), kName,
                      "Rasing exception because error getting 'LocationType' property");
        m_wmi.SetProperty("LocationType", locationType.Ptr());  // tolerated: the type only labels the lists
        return S_OK;
    }));
}

HRESULT CNotfyAutoStartMonitoring::CheckChanges(CCWMIAccess& source, std::vector<std::wstring>& arguments)
{
    constexpr char kName[] = "CNotfyAutoStartMonitoring::CheckChanges";
    constexpr char kCurrentNames[] = "Rasing exception because error getting 'Name' property";
    constexpr char kOldNames[] = "Rasing exception because error getting 'varOldAppName' property from ref instance";
    constexpr char kCurrentTypes[] = "Rasing exception because error getting 'LocationType' property";
    constexpr char kOldTypes[] = "Rasing exception because error getting 'LocationType' property from ref instance";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        CCWMIAccess stored;
        if (LookupStored(stored, kName) == EInventoryOutcome::Added)
            return NOTFY_S_NO_REFERENCE;

        std::vector<std::wstring> currentCommands;
        std::vector<std::wstring> oldCommands;
        std::vector<std::wstring> currentNames;
        std::vector<std::wstring> oldNames;
        RaiseIfFailed(ReadEntryList(source, "Command", &currentCommands), kName,
                      "Rasing exception because error getting 'Command' property");
        RaiseIfFailed(ReadEntryList(stored, "Command", &oldCommands), kName,
                      "Rasing exception because error getting 'Command' property from ref instance");
        RaiseIfFailed(ReadEntryList(source, "Name", &currentNames), kName, kCurrentNames);
        RaiseIfFailed(ReadEntryList(stored, "AppName", &oldNames), kName, kOldNames);
        RaiseIfShorter(currentNames.size(), currentCommands.size(), kName, kCurrentNames);
        RaiseIfShorter(oldNames.size(), oldCommands.size(), kName, kOldNames);

        const auto filterBy = [&](const std::vector<std::wstring>& names) -> CEntryFilter {
            return [&, pNames = &names](size_t u) {
                if (!IsApplicationFiltered(Narrow((*pNames)[u]).c_str()))
                    return false;
                GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "Application is filtered by exclude list", "");
                return true;
            };
        };
        const CListChanges changes =
            CompareLists(currentCommands, oldCommands, filterBy(currentNames), filterBy(oldNames));
        if (changes.Empty())
            return S_OK;

        std::wstring wsAdded = L"--";
        if (!changes.added.empty()) {
            std::vector<long> types;
            RaiseIfFailed(ReadIntegerList(source, "LocationType", &types), kName, kCurrentTypes);
            RaiseIfShorter(types.size(), changes.added.back() + 1, kName, kCurrentTypes);
            wsAdded = FormatEntries(changes.added, currentNames, &types);
        }
        std::wstring wsRemoved = L"--";
        if (!changes.removed.empty()) {
            std::vector<long> types;
            RaiseIfFailed(ReadIntegerList(stored, "LocationType", &types), kName, kOldTypes);
            RaiseIfShorter(types.size(), changes.removed.back() + 1, kName, kOldTypes);
            wsRemoved = FormatEntries(changes.removed, oldNames, &types);
        }
        arguments.push_back(wsAdded);
        arguments.push_back(wsRemoved);
        return NOTFY_S_LIST_CHANGED;
    }));
}
