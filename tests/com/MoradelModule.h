// Moradel.dll loaded into the test process, and handlers created through its class factory
// (no registration needed).
#pragma once

#include "module/INotifications.h"

#include <windows.h>
#include <wrl/client.h>

class MoradelModule {
public:
    using GetClassObjectFn = HRESULT(WINAPI*)(REFCLSID, REFIID, void**);
    using CanUnloadNowFn = HRESULT(WINAPI*)();
    using RegisterFn = HRESULT(WINAPI*)();

    MoradelModule() : m_h(LoadLibraryW(L"Moradel.dll"))
    {
        m_pfnGetClassObject = reinterpret_cast<GetClassObjectFn>(Proc("DllGetClassObject"));
        m_pfnCanUnloadNow = reinterpret_cast<CanUnloadNowFn>(Proc("DllCanUnloadNow"));
        m_pfnRegister = reinterpret_cast<RegisterFn>(Proc("DllRegisterServer"));
        m_pfnUnregister = reinterpret_cast<RegisterFn>(Proc("DllUnregisterServer"));
    }
    ~MoradelModule()
    {
        if (m_h)
            FreeLibrary(m_h);
    }
    MoradelModule(const MoradelModule&) = delete;
    MoradelModule& operator=(const MoradelModule&) = delete;

    bool Loaded() const
    {
        return m_h && m_pfnGetClassObject && m_pfnCanUnloadNow && m_pfnRegister && m_pfnUnregister;
    }
    HMODULE Handle() const { return m_h; }

    HRESULT GetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) const { return m_pfnGetClassObject(rclsid, riid, ppv); }
    HRESULT CanUnloadNow() const { return m_pfnCanUnloadNow(); }
    HRESULT Register() const { return m_pfnRegister(); }
    HRESULT Unregister() const { return m_pfnUnregister(); }

    HRESULT CreateHandler(Microsoft::WRL::ComPtr<INotifications>& pHandler) const
    {
        Microsoft::WRL::ComPtr<IClassFactory> pFactory;
        HRESULT hr = GetClassObject(CLSID_NotificationHandler, IID_IClassFactory,
                                    reinterpret_cast<void**>(pFactory.GetAddressOf()));
        if (FAILED(hr))
            return hr;
        return pFactory->CreateInstance(nullptr, IID_INotifications, reinterpret_cast<void**>(pHandler.ReleaseAndGetAddressOf()));
    }

private:
    void* Proc(const char* szName) const { return m_h ? reinterpret_cast<void*>(GetProcAddress(m_h, szName)) : nullptr; }

    HMODULE m_h;
    GetClassObjectFn m_pfnGetClassObject = nullptr;
    CanUnloadNowFn m_pfnCanUnloadNow = nullptr;
    RegisterFn m_pfnRegister = nullptr;
    RegisterFn m_pfnUnregister = nullptr;
};
