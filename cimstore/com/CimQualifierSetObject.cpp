#include "cimstore/com/CimQualifierSetObject.h"

#include "access/ComHolders.h"

namespace cimstore::com {

HRESULT MakeNameArray(const std::vector<std::wstring>& names, SAFEARRAY** ppArray)
{
    CCSafeArray array(SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(names.size())));
    if (!array.Get())
        return E_OUTOFMEMORY;
    for (LONG i = 0; i < static_cast<LONG>(names.size()); ++i) {
        CCBstr bstrName(names[static_cast<size_t>(i)].c_str());
        const HRESULT hr = SafeArrayPutElement(array.Get(), &i, bstrName.Get());  // copies the string
        if (FAILED(hr))
            return hr;
    }
    *ppArray = array.Detach();
    return S_OK;
}

CimQualifierSetObject::CimQualifierSetObject(CimClassObject* pOwner, const std::wstring* pwsProperty)
    : m_pOwner(pOwner), m_wsProperty(pwsProperty ? *pwsProperty : std::wstring()), m_bProperty(pwsProperty != nullptr)
{
}

HRESULT CimQualifierSetObject::Create(CimClassObject* pOwner, const std::wstring* pwsProperty,
                                      IWbemQualifierSet** ppSet)
{
    return CatchHr([&] {
        *ppSet = new CimQualifierSetObject(pOwner, pwsProperty);
        return S_OK;
    });
}

HRESULT CimQualifierSetObject::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IWbemQualifierSet) {
        *ppv = static_cast<IWbemQualifierSet*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

HRESULT CimQualifierSetObject::Get(LPCWSTR wszName, long lFlags, VARIANT* pVal, long* plFlavor)
{
    if (!wszName || lFlags != 0)
        return Hr(WBEM_E_INVALID_PARAMETER);
    if (pVal)
        VariantInit(pVal);
    return CatchHr([&] { return m_pOwner->QualifierGet(Property(), wszName, pVal, plFlavor); });
}

HRESULT CimQualifierSetObject::Put(LPCWSTR wszName, VARIANT* pVal, long lFlavor)
{
    if (!wszName || !pVal)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] { return m_pOwner->QualifierPut(Property(), wszName, pVal, lFlavor); });
}

HRESULT CimQualifierSetObject::Delete(LPCWSTR wszName)
{
    if (!wszName)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] { return m_pOwner->QualifierDelete(Property(), wszName); });
}

HRESULT CimQualifierSetObject::GetNames(long lFlags, SAFEARRAY** pNames)
{
    if (!pNames || (lFlags != 0 && lFlags != WBEM_FLAG_LOCAL_ONLY && lFlags != WBEM_FLAG_PROPAGATED_ONLY))
        return Hr(WBEM_E_INVALID_PARAMETER);
    *pNames = nullptr;
    return CatchHr([&] {
        std::vector<CimQualifier> qualifiers;
        const HRESULT hr = m_pOwner->QualifierList(Property(), qualifiers);
        if (FAILED(hr))
            return hr;
        std::vector<std::wstring> names;
        for (const CimQualifier& qualifier : qualifiers) {
            const bool bPropagated = (qualifier.flavor & WBEM_FLAVOR_MASK_ORIGIN) == WBEM_FLAVOR_ORIGIN_PROPAGATED;
            if ((lFlags == WBEM_FLAG_LOCAL_ONLY && bPropagated) || (lFlags == WBEM_FLAG_PROPAGATED_ONLY && !bPropagated))
                continue;
            names.push_back(qualifier.name);
        }
        return MakeNameArray(names, pNames);
    });
}

HRESULT CimQualifierSetObject::BeginEnumeration(long lFlags)
{
    if (lFlags != 0 && lFlags != WBEM_FLAG_LOCAL_ONLY && lFlags != WBEM_FLAG_PROPAGATED_ONLY)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        std::vector<CimQualifier> qualifiers;
        const HRESULT hr = m_pOwner->QualifierList(Property(), qualifiers);
        if (FAILED(hr))
            return hr;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_enumNames.clear();
        for (const CimQualifier& qualifier : qualifiers) {
            const bool bPropagated = (qualifier.flavor & WBEM_FLAVOR_MASK_ORIGIN) == WBEM_FLAVOR_ORIGIN_PROPAGATED;
            if ((lFlags == WBEM_FLAG_LOCAL_ONLY && bPropagated) || (lFlags == WBEM_FLAG_PROPAGATED_ONLY && !bPropagated))
                continue;
            m_enumNames.push_back(qualifier.name);
        }
        m_enumPosition = 0;
        m_bEnumerating = true;
        return S_OK;
    });
}

HRESULT CimQualifierSetObject::Next(long lFlags, BSTR* pstrName, VARIANT* pVal, long* plFlavor)
{
    if (lFlags != 0)
        return Hr(WBEM_E_INVALID_PARAMETER);
    if (pstrName)
        *pstrName = nullptr;
    if (pVal)
        VariantInit(pVal);
    return CatchHr([&] {
        std::wstring wsName;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_bEnumerating)
                return Hr(WBEM_E_UNEXPECTED);
            if (m_enumPosition >= m_enumNames.size())
                return Hr(WBEM_S_NO_MORE_DATA);
            wsName = m_enumNames[m_enumPosition++];
        }
        CCBstr bstrName(wsName.c_str());
        if (!bstrName)
            return E_OUTOFMEMORY;
        const HRESULT hr = m_pOwner->QualifierGet(Property(), wsName.c_str(), pVal, plFlavor);
        if (FAILED(hr))
            return hr;
        if (pstrName)
            *pstrName = bstrName.Detach();
        return S_OK;
    });
}

HRESULT CimQualifierSetObject::EndEnumeration()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bEnumerating = false;
    m_enumNames.clear();
    return S_OK;
}

}  // namespace cimstore::com
