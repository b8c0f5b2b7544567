// The class factory of the module's creatable class. A factory counts as a module lock while
// it lives, so DllCanUnloadNow never answers S_OK under a client that still holds one.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>

class CCClassFactory final : public IClassFactory {
public:
    using CreateFn = HRESULT (*)(REFIID riid, void** ppv);

    // Hands out riid of a new factory that creates objects through pfnCreate.
    static HRESULT Create(CreateFn pfnCreate, REFIID riid, void** ppv) noexcept;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
    STDMETHODIMP LockServer(BOOL fLock) override;

private:
    explicit CCClassFactory(CreateFn pfnCreate);
    ~CCClassFactory();

    std::atomic<ULONG> m_ulRefCount{0};
    CreateFn m_pfnCreate;
};
