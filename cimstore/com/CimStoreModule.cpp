// The in-process server: class factory, unloading, registration of its own class and,
// on request, of the two WMI locator classes of this Wine prefix.
#include "access/ComHolders.h"
#include "access/WbemGuids.h"
#include "cimstore/com/CimLocator.h"
#include "cimstore/com/CimStoreControl.h"
#include "cimstore/com/StoreState.h"

#include <cwchar>
#include <string>

// {B7C3E9A2-5D41-4F6B-8E0A-3C9D2F1A7B64}
const CLSID CLSID_CimStoreLocator = {0xb7c3e9a2, 0x5d41, 0x4f6b,
                                                {0x8e, 0x0a, 0x3c, 0x9d, 0x2f, 0x1a, 0x7b, 0x64}};

namespace cimstore::com {

std::atomic<long>& LiveObjects()
{
    static std::atomic<long> s_lObjects{0};
    return s_lObjects;
}

std::atomic<long>& ServerLocks()
{
    static std::atomic<long> s_lLocks{0};
    return s_lLocks;
}

namespace {

HMODULE g_hModule = nullptr;
constexpr wchar_t kPlatformServer[] = L"C:\\windows\\system32\\wbem\\wbemprox.dll";
constexpr wchar_t kSavedServersKey[] = L"SOFTWARE\\CimStore\\SavedServers";

// One factory per class the DLL serves, so that a created locator knows which class was asked for.
class LocatorFactory final : public IClassFactory {
public:
    explicit LocatorFactory(const CLSID& clsid) : m_clsid(clsid) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        if (!ppv)
            return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IClassFactory) {
            *ppv = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // The factory is static: its references only keep the server loaded.
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++ServerLocks()); }
    ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--ServerLocks()); }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* pOuter, REFIID riid, void** ppv) override
    {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (pOuter)
            return CLASS_E_NOAGGREGATION;
        return CatchHr([&] {
            StoreState::Get().RecordLocatorClass(m_clsid);
            Microsoft::WRL::ComPtr<CimLocator> pLocator;
            TakeOwnership(pLocator, new CimLocator());
            return pLocator->QueryInterface(riid, ppv);
        });
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL bLock) override
    {
        bLock ? ++ServerLocks() : --ServerLocks();
        return S_OK;
    }

private:
    const CLSID& m_clsid;
};

LocatorFactory g_ownFactory(CLSID_CimStoreLocator);
LocatorFactory g_wmiFactory(CLSID_WbemLocator);
LocatorFactory g_administrativeFactory(CLSID_WbemAdministrativeLocator);

std::wstring ClsidText(REFCLSID clsid)
{
    wchar_t wszClsid[40] = {};
    StringFromGUID2(clsid, wszClsid, 40);
    return wszClsid;
}

std::wstring ModulePath()
{
    wchar_t wszPath[MAX_PATH] = {};
    GetModuleFileNameW(g_hModule, wszPath, MAX_PATH);
    return wszPath;
}

LONG SetText(HKEY hRoot, const std::wstring& wsKey, const wchar_t* wszName, const std::wstring& wsValue)
{
    HKEY hKey = nullptr;
    LONG lResult = RegCreateKeyExW(hRoot, wsKey.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, &hKey, nullptr);
    if (lResult != ERROR_SUCCESS)
        return lResult;
    lResult = RegSetValueExW(hKey, wszName, 0, REG_SZ, reinterpret_cast<const BYTE*>(wsValue.c_str()),
                             static_cast<DWORD>((wsValue.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(hKey);
    return lResult;
}

std::wstring GetText(HKEY hRoot, const std::wstring& wsKey, const wchar_t* wszName)
{
    wchar_t wszValue[MAX_PATH * 2] = {};
    DWORD cb = sizeof(wszValue) - sizeof(wchar_t);
    if (RegGetValueW(hRoot, wsKey.c_str(), wszName, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr,
                     wszValue, &cb) != ERROR_SUCCESS)
        return std::wstring();
    return wszValue;
}

HRESULT RegisterServer(REFCLSID clsid, const wchar_t* wszName)
{
    const std::wstring wsKey = L"CLSID\\" + ClsidText(clsid);
    RegDeleteTreeW(HKEY_CLASSES_ROOT, wsKey.c_str());
    LONG lResult = SetText(HKEY_CLASSES_ROOT, wsKey, nullptr, wszName);
    if (lResult == ERROR_SUCCESS)
        lResult = SetText(HKEY_CLASSES_ROOT, wsKey + L"\\InprocServer32", nullptr, ModulePath());
    if (lResult == ERROR_SUCCESS)
        lResult = SetText(HKEY_CLASSES_ROOT, wsKey + L"\\InprocServer32", L"ThreadingModel", L"Both");
    return HRESULT_FROM_WIN32(lResult);
}

// Points a WMI class at this DLL, keeping the former server to put back later.
HRESULT TakeOverClass(REFCLSID clsid)
{
    const std::wstring wsServerKey = L"CLSID\\" + ClsidText(clsid) + L"\\InprocServer32";
    const std::wstring wsFormer = GetText(HKEY_CLASSES_ROOT, wsServerKey, nullptr);
    if (!wsFormer.empty() && _wcsicmp(wsFormer.c_str(), ModulePath().c_str()) != 0) {
        const LONG lResult = SetText(HKEY_LOCAL_MACHINE, kSavedServersKey, ClsidText(clsid).c_str(), wsFormer);
        if (lResult != ERROR_SUCCESS)
            return HRESULT_FROM_WIN32(lResult);
    }
    LONG lResult = SetText(HKEY_CLASSES_ROOT, wsServerKey, nullptr, ModulePath());
    if (lResult == ERROR_SUCCESS)
        lResult = SetText(HKEY_CLASSES_ROOT, wsServerKey, L"ThreadingModel", L"Both");
    return HRESULT_FROM_WIN32(lResult);
}

HRESULT GiveBackClass(REFCLSID clsid)
{
    const std::wstring wsClsid = ClsidText(clsid);
    std::wstring wsFormer = GetText(HKEY_LOCAL_MACHINE, kSavedServersKey, wsClsid.c_str());
    if (wsFormer.empty())
        wsFormer = kPlatformServer;
    const LONG lResult = SetText(HKEY_CLASSES_ROOT, L"CLSID\\" + wsClsid + L"\\InprocServer32", nullptr, wsFormer);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSavedServersKey, wsClsid.c_str());
    return HRESULT_FROM_WIN32(lResult);
}

}  // namespace
}  // namespace cimstore::com

using namespace cimstore::com;

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, LPVOID)
{
    if (dwReason == DLL_PROCESS_ATTACH) {
        g_hModule = hInstance;
        DisableThreadLibraryCalls(hInstance);
    }
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (rclsid == CLSID_CimStoreLocator)
        return g_ownFactory.QueryInterface(riid, ppv);
    if (rclsid == CLSID_WbemLocator)
        return g_wmiFactory.QueryInterface(riid, ppv);
    if (rclsid == CLSID_WbemAdministrativeLocator)
        return g_administrativeFactory.QueryInterface(riid, ppv);
    return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow()
{
    return LiveObjects() == 0 && ServerLocks() == 0 ? S_OK : S_FALSE;
}

STDAPI DllRegisterServer()
{
    return CatchHr([] { return RegisterServer(CLSID_CimStoreLocator, L"CimStore Locator"); });
}

STDAPI DllUnregisterServer()
{
    return CatchHr([] {
        const LONG lResult = RegDeleteTreeW(HKEY_CLASSES_ROOT, (L"CLSID\\" + ClsidText(CLSID_CimStoreLocator)).c_str());
        return lResult == ERROR_SUCCESS || lResult == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(lResult);
    });
}

// regsvr32 /n /i:wmi makes this DLL the WMI locator of the prefix; regsvr32 /u /n /i:wmi undoes it.
STDAPI DllInstall(BOOL bInstall, LPCWSTR pszCmdLine)
{
    if (!pszCmdLine || _wcsicmp(pszCmdLine, L"wmi") != 0)
        return E_INVALIDARG;
    return CatchHr([&] {
        for (const CLSID* pClsid : {&CLSID_WbemLocator, &CLSID_WbemAdministrativeLocator}) {
            const HRESULT hr = bInstall ? TakeOverClass(*pClsid) : GiveBackClass(*pClsid);
            if (FAILED(hr))
                return hr;
        }
        return S_OK;
    });
}
