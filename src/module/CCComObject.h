// The COM identity around a class that implements a dual interface's own methods: reference
// count, QueryInterface, the module lock, and IDispatch answered from the embedded type library.
// T provides FinalConstruct, FinalRelease and a static InterfaceId() of its dual interface.
#pragma once

#include "framework/HResultError.h"
#include "module/CMoradeldllModule.h"
#include "module/TypeLibrary.h"

#include <oleauto.h>
#include <wrl/client.h>

#include <atomic>
#include <mutex>
#include <new>

template <class T>
class CCComObject final : public T {
public:
    // Creates the object and hands out riid; the object is gone again when that fails.
    static HRESULT CreateInstance(REFIID riid, void** ppv) noexcept
    {
        if (!ppv)
            return E_POINTER;
        *ppv = nullptr;
        return CatchHr([&] {
            // The object starts without references; the holder takes the first one.
            const Microsoft::WRL::ComPtr<CCComObject> pObject(new CCComObject());
            HRESULT hr = pObject->FinalConstruct();
            if (SUCCEEDED(hr))
                hr = pObject->QueryInterface(riid, ppv);
            return hr;
        });
    }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override
    {
        if (!ppv)
            return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch) || IsEqualIID(riid, T::InterfaceId())) {
            *ppv = static_cast<typename T::Interface*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_ulRefCount; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG ulCount = --m_ulRefCount;
        if (ulCount == 0) {
            this->FinalRelease();
            delete this;
        }
        return ulCount;
    }

    STDMETHODIMP GetTypeInfoCount(UINT* pctinfo) override
    {
        if (!pctinfo)
            return E_POINTER;
        *pctinfo = 1;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT iTInfo, LCID, ITypeInfo** ppTInfo) override
    {
        if (!ppTInfo)
            return E_POINTER;
        *ppTInfo = nullptr;
        if (iTInfo != 0)
            return DISP_E_BADINDEX;
        ITypeInfo* pTypeInfo = nullptr;
        const HRESULT hr = TypeInfo(&pTypeInfo);
        if (FAILED(hr))
            return hr;
        pTypeInfo->AddRef();
        *ppTInfo = pTypeInfo;
        return S_OK;
    }
    STDMETHODIMP GetIDsOfNames(REFIID riid, LPOLESTR* rgszNames, UINT cNames, LCID, DISPID* rgDispId) override
    {
        if (!IsEqualIID(riid, IID_NULL))
            return DISP_E_UNKNOWNINTERFACE;
        ITypeInfo* pTypeInfo = nullptr;
        const HRESULT hr = TypeInfo(&pTypeInfo);
        if (FAILED(hr))
            return hr;
        return DispGetIDsOfNames(pTypeInfo, rgszNames, cNames, rgDispId);
    }
    STDMETHODIMP Invoke(DISPID dispIdMember, REFIID riid, LCID, WORD wFlags, DISPPARAMS* pDispParams,
                        VARIANT* pVarResult, EXCEPINFO* pExcepInfo, UINT* puArgErr) override
    {
        if (!IsEqualIID(riid, IID_NULL))
            return DISP_E_UNKNOWNINTERFACE;
        ITypeInfo* pTypeInfo = nullptr;
        const HRESULT hr = TypeInfo(&pTypeInfo);
        if (FAILED(hr))
            return hr;
        return InvokeThroughTypeInfo(pTypeInfo, static_cast<typename T::Interface*>(this), dispIdMember, wFlags,
                                     pDispParams, pVarResult, pExcepInfo, puArgErr);
    }

private:
    CCComObject() { _Module.Lock(); }
    ~CCComObject() override { _Module.Unlock(); }

    // Loaded on the first late-bound call only; vtable clients never pay for it.
    HRESULT TypeInfo(ITypeInfo** ppTypeInfo) noexcept
    {
        try {
            std::lock_guard<std::mutex> lock(m_typeInfoLock);
            if (!m_pTypeInfo) {
                const HRESULT hr = LoadModuleTypeInfo(T::InterfaceId(), &m_pTypeInfo);
                if (FAILED(hr))
                    return hr;
            }
            *ppTypeInfo = m_pTypeInfo.Get();
            return S_OK;
        } catch (...) {
            return E_UNEXPECTED;
        }
    }

    std::atomic<ULONG> m_ulRefCount{0};
    std::mutex m_typeInfoLock;
    Microsoft::WRL::ComPtr<ITypeInfo> m_pTypeInfo;
};
