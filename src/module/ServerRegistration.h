// Registration of the module's class (ProgIDs, class key) and of its type library. The AppID
// keys come from the registry script resource instead (CCRegistrar).
#pragma once

#include <windows.h>

#include <string>

struct CCClassRegistration {
    const CLSID* pClsid;
    const wchar_t* wszFriendlyName;
    const wchar_t* wszProgId;
    const wchar_t* wszVersionIndependentProgId;
    const wchar_t* wszThreadingModel;
    const GUID* pLibId;
};

// hRoot is HKEY_CLASSES_ROOT except in tests.
HRESULT RegisterClassKeys(HKEY hRoot, const CCClassRegistration& reg, const std::wstring& wsModulePath);
HRESULT UnregisterClassKeys(HKEY hRoot, const CCClassRegistration& reg);

HRESULT RegisterModuleTypeLib();
HRESULT UnregisterModuleTypeLib();

std::wstring GuidText(REFGUID guid);
