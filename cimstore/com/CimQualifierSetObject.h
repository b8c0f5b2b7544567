// IWbemQualifierSet over the qualifiers of one object or one of its properties.
#pragma once

#include "cimstore/com/CimClassObject.h"

#include <wrl/client.h>

namespace cimstore::com {

class CimQualifierSetObject final : public IWbemQualifierSet, private CountedObject {
    CIMSTORE_IMPLEMENT_REFCOUNT()

public:
    // pwsProperty null: the object's own qualifiers.
    static HRESULT Create(CimClassObject* pOwner, const std::wstring* pwsProperty, IWbemQualifierSet** ppSet);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE Get(LPCWSTR wszName, long lFlags, VARIANT* pVal, long* plFlavor) override;
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR wszName, VARIANT* pVal, long lFlavor) override;
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR wszName) override;
    HRESULT STDMETHODCALLTYPE GetNames(long lFlags, SAFEARRAY** pNames) override;
    HRESULT STDMETHODCALLTYPE BeginEnumeration(long lFlags) override;
    HRESULT STDMETHODCALLTYPE Next(long lFlags, BSTR* pstrName, VARIANT* pVal, long* plFlavor) override;
    HRESULT STDMETHODCALLTYPE EndEnumeration() override;

private:
    CimQualifierSetObject(CimClassObject* pOwner, const std::wstring* pwsProperty);
    ~CimQualifierSetObject() = default;
    const std::wstring* Property() const { return m_bProperty ? &m_wsProperty : nullptr; }

    Microsoft::WRL::ComPtr<CimClassObject> m_pOwner;
    std::wstring m_wsProperty;
    bool m_bProperty;
    std::mutex m_mutex;
    std::vector<std::wstring> m_enumNames;
    size_t m_enumPosition = 0;
    bool m_bEnumerating = false;
};

// Names as a SAFEARRAY of BSTR.
HRESULT MakeNameArray(const std::vector<std::wstring>& names, SAFEARRAY** ppArray);

}  // namespace cimstore::com
