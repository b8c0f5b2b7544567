// The COM server exports: class object, unload check and self-registration.
#include "core/CNotificationHandler.h"
#include "framework/HResultError.h"
#include "module/CCClassFactory.h"
#include "module/CCComObject.h"
#include "module/CCRegistrar.h"
#include "module/CMoradeldllModule.h"
#include "module/ServerRegistration.h"
#include "module/resource.h"

#include <new>

namespace {

const CCClassRegistration kHandlerRegistration = {
    &CLSID_NotificationHandler,
    L"CNotificationHandler Object",
    L"Moradel.NotificationHandler.1.06",
    L"Moradel.NotificationHandler",
    L"both",
    &LIBID_MoradelLib,
};

// Registration runs under the neutral system-default locale and gives the caller's back.
class CCThreadLocaleScope {
public:
    CCThreadLocaleScope() : m_lcidSaved(GetThreadLocale()) { SetThreadLocale(MAKELCID(LANG_SYSTEM_DEFAULT, SORT_DEFAULT)); }
    ~CCThreadLocaleScope() { SetThreadLocale(m_lcidSaved); }
    CCThreadLocaleScope(const CCThreadLocaleScope&) = delete;
    CCThreadLocaleScope& operator=(const CCThreadLocaleScope&) = delete;

private:
    LCID m_lcidSaved;
};

HRESULT RunAppIdScript(bool bRegister)
{
    CCRegistrar registrar;
    registrar.AddReplacement(L"APPID", GuidText(kMoradelAppId));
    return registrar.RunResource(_Module.GetInstance(), IDR_MORADELDLL, L"REGISTRY", bRegister);
}

}  // namespace

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv)
{
    return CatchHr([&]() -> HRESULT {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        if (!IsEqualCLSID(rclsid, CLSID_NotificationHandler))
            return CLASS_E_CLASSNOTAVAILABLE;
        return CCClassFactory::Create(&CCComObject<CNotificationHandler>::CreateInstance, riid, ppv);
    });
}

STDAPI DllCanUnloadNow()
{
    return _Module.GetLockCount() == 0 ? S_OK : S_FALSE;
}

STDAPI DllRegisterServer()
{
    return CatchHr([&]() -> HRESULT {
        CCThreadLocaleScope locale;
        HRESULT hr = RunAppIdScript(true);
        if (SUCCEEDED(hr))
            hr = RegisterClassKeys(HKEY_CLASSES_ROOT, kHandlerRegistration, _Module.GetModulePath());
        if (SUCCEEDED(hr))
            hr = RegisterModuleTypeLib();
        return hr;
    });
}

STDAPI DllUnregisterServer()
{
    return CatchHr([&]() -> HRESULT {
        CCThreadLocaleScope locale;
        // Every step runs even after a failure, so as much as possible is removed; the first failure counts.
        HRESULT hr = UnregisterClassKeys(HKEY_CLASSES_ROOT, kHandlerRegistration);
        const HRESULT hrTypeLib = UnregisterModuleTypeLib();
        if (SUCCEEDED(hr))
            hr = hrTypeLib;
        const HRESULT hrScript = RunAppIdScript(false);
        if (SUCCEEDED(hr))
            hr = hrScript;
        return hr;
    });
}
