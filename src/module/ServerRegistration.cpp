#include "module/ServerRegistration.h"

#include "module/CMoradeldllModule.h"
#include "module/TypeLibrary.h"

#include <oleauto.h>
#include <wrl/client.h>

#include <cwchar>
#include <memory>
#include <vector>

namespace {

struct KeyCloser {
    void operator()(HKEY hKey) const { RegCloseKey(hKey); }
};
using KeyHolder = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

struct Value {
    std::wstring wsKey;   // below the root
    const wchar_t* wszName;  // null: the default value
    std::wstring wsData;
};

LSTATUS DeleteTree(HKEY hRoot, const std::wstring& wsKey)
{
    const LSTATUS status = RegDeleteTreeW(hRoot, wsKey.c_str());
    return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

HRESULT FromStatus(LSTATUS status)
{
    return status == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(status);
}

}  // namespace

std::wstring GuidText(REFGUID guid)
{
    wchar_t wszGuid[40] = {};
    StringFromGUID2(guid, wszGuid, 40);
    return wszGuid;
}

HRESULT RegisterClassKeys(HKEY hRoot, const CCClassRegistration& reg, const std::wstring& wsModulePath)
{
    // Stale keys of an earlier registration go first, so nothing of them survives.
    HRESULT hr = UnregisterClassKeys(hRoot, reg);
    if (FAILED(hr))
        return hr;
    const std::wstring wsClsid = GuidText(*reg.pClsid);
    const std::wstring wsClassKey = L"CLSID\\" + wsClsid;
    const std::wstring wsProgId = reg.wszProgId;
    const std::wstring wsViProgId = reg.wszVersionIndependentProgId;
    const std::vector<Value> values = {
        {wsProgId, nullptr, reg.wszFriendlyName},
        {wsProgId + L"\\CLSID", nullptr, wsClsid},
        {wsViProgId, nullptr, reg.wszFriendlyName},
        {wsViProgId + L"\\CLSID", nullptr, wsClsid},
        {wsViProgId + L"\\CurVer", nullptr, wsProgId},
        {wsClassKey, nullptr, reg.wszFriendlyName},
        {wsClassKey + L"\\ProgID", nullptr, wsProgId},
        {wsClassKey + L"\\VersionIndependentProgID", nullptr, wsViProgId},
        {wsClassKey + L"\\InprocServer32", nullptr, wsModulePath},
        {wsClassKey + L"\\InprocServer32", L"ThreadingModel", reg.wszThreadingModel},
        {wsClassKey + L"\\TypeLib", nullptr, GuidText(*reg.pLibId)},
    };
    for (const Value& value : values) {
        HKEY hRaw = nullptr;
        LSTATUS status = RegCreateKeyExW(hRoot, value.wsKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                         KEY_SET_VALUE, nullptr, &hRaw, nullptr);
        if (status != ERROR_SUCCESS)
            return FromStatus(status);
        KeyHolder hKey(hRaw);
        status = RegSetValueExW(hKey.get(), value.wszName, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.wsData.c_str()),
                                static_cast<DWORD>((value.wsData.size() + 1) * sizeof(wchar_t)));
        if (status != ERROR_SUCCESS)
            return FromStatus(status);
    }
    return S_OK;
}

HRESULT UnregisterClassKeys(HKEY hRoot, const CCClassRegistration& reg)
{
    for (const std::wstring& wsKey : {std::wstring(reg.wszProgId), std::wstring(reg.wszVersionIndependentProgId),
                                      L"CLSID\\" + GuidText(*reg.pClsid)}) {
        const LSTATUS status = DeleteTree(hRoot, wsKey);
        if (status != ERROR_SUCCESS)
            return FromStatus(status);
    }
    return S_OK;
}

HRESULT RegisterModuleTypeLib()
{
    Microsoft::WRL::ComPtr<ITypeLib> pTypeLib;
    HRESULT hr = LoadModuleTypeLib(pTypeLib.GetAddressOf());
    if (FAILED(hr))
        return hr;
    std::wstring wsPath = _Module.GetModulePath();
    return RegisterTypeLib(pTypeLib.Get(), wsPath.data(), nullptr);
}

HRESULT UnregisterModuleTypeLib()
{
    Microsoft::WRL::ComPtr<ITypeLib> pTypeLib;
    HRESULT hr = LoadModuleTypeLib(pTypeLib.GetAddressOf());
    if (FAILED(hr))
        return hr;
    TLIBATTR* pAttr = nullptr;
    hr = pTypeLib->GetLibAttr(&pAttr);
    if (FAILED(hr))
        return hr;
    const TLIBATTR attr = *pAttr;
    pTypeLib->ReleaseTLibAttr(pAttr);
    // Already gone is what unregistering asks for (Wine answers E_INVALIDARG, Windows a registry error).
    wchar_t wszVersion[16] = {};
    swprintf(wszVersion, 16, L"\\%x.%x", attr.wMajorVerNum, attr.wMinorVerNum);
    const std::wstring wsKey = L"TypeLib\\" + GuidText(attr.guid) + wszVersion;
    HKEY hRaw = nullptr;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, wsKey.c_str(), 0, KEY_READ, &hRaw) == ERROR_FILE_NOT_FOUND)
        return S_OK;
    KeyHolder hKey(hRaw);
    return UnRegisterTypeLib(attr.guid, attr.wMajorVerNum, attr.wMinorVerNum, attr.lcid, attr.syskind);
}
