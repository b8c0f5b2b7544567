// Moradel.dll loaded into the test process, and handlers created through its class factory
// (no registration needed).
#pragma once

#include "module/INotifications.h"

#include <windows.h>
#include <wrl/client.h>

class MoradelModule {
public:
    MoradelModule() : m_h(LoadLibraryW(L"Moradel.dll")) {}
    ~MoradelModule()
    {
        if (m_h)
            FreeLibrary(m_h);
    }
    MoradelModule(const MoradelModule&) = delete;
    MoradelModule& operator=(const MoradelModule&) = delete;

    bool Loaded() const
    {
        return m_pfnGetClass && Proc("DllCanUnloadNow") && Proc("DllRegisterServer") &&
               Proc("DllUnregisterServer");
    }
    HMODULE Handle() const { return m_h; }
    void* Proc(const char* szFn) const { return m_h ? reinterpret_cast<void*>(GetProcAddress(m_h, szFn)) : nullptr; }
    HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** ppv) const { return m_pfnGetClass(clsid, iid, ppv); }
    HRESULT CanUnloadNow() const { return Call("DllCanUnloadNow"); }
    HRESULT Register() const { return Call("DllRegisterServer"); }
    HRESULT Unregister() const { return Call("DllUnregisterServer"); }
    HRESULT CreateHandler(Microsoft::WRL::ComPtr<INotifications>& pHandler) const
    {
        Microsoft::WRL::ComPtr<IClassFactory> pFactory;
        const HRESULT hr = GetClassObject(CLSID_NotificationHandler, IID_IClassFactory, &pFactory);
        return FAILED(hr) ? hr : pFactory->CreateInstance(nullptr, IID_INotifications, &pHandler);
    }

private:
    HRESULT Call(const char* szFn) const { return reinterpret_cast<HRESULT(WINAPI*)()>(Proc(szFn))(); }

    HMODULE m_h;
    HRESULT(WINAPI* m_pfnGetClass)(REFCLSID, REFIID, void**) =
        reinterpret_cast<HRESULT(WINAPI*)(REFCLSID, REFIID, void**)>(Proc("DllGetClassObject"));
};
