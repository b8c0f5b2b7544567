#include "module/CCClassFactory.h"

#include "framework/HResultError.h"
#include "module/CMoradeldllModule.h"

#include <wrl/client.h>

#include <new>

CCClassFactory::CCClassFactory(CreateFn pfnCreate) : m_pfnCreate(pfnCreate)
{
    _Module.Lock();
}

CCClassFactory::~CCClassFactory()
{
    _Module.Unlock();
}

HRESULT CCClassFactory::Create(CreateFn pfnCreate, REFIID riid, void** ppv) noexcept
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    return CatchHr([&] {
        // The factory starts without references; the holder takes the first one.
        const Microsoft::WRL::ComPtr<CCClassFactory> pFactory(new CCClassFactory(pfnCreate));
        return pFactory->QueryInterface(riid, ppv);
    });
}

HRESULT CCClassFactory::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
        *ppv = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG CCClassFactory::AddRef()
{
    return ++m_ulRefCount;
}

ULONG CCClassFactory::Release()
{
    const ULONG ulCount = --m_ulRefCount;
    if (ulCount == 0)
        delete this;
    return ulCount;
}

HRESULT CCClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (pUnkOuter)
        return CLASS_E_NOAGGREGATION;
    return m_pfnCreate(riid, ppv);
}

HRESULT CCClassFactory::LockServer(BOOL fLock)
{
    if (fLock)
        _Module.Lock();
    else
        _Module.Unlock();
    return S_OK;
}
