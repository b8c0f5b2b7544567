#include "cimstore/com/CimClassObject.h"

#include "access/ComHolders.h"
#include "cimstore/MofWriter.h"
#include "cimstore/com/CimQualifierSetObject.h"
#include "cimstore/com/StoreState.h"

namespace cimstore::com {

// {6D0C4E84-3F8B-4B7E-9A51-2E7C1B0D5A31}
const IID IID_CimStoreObject = {0x6d0c4e84, 0x3f8b, 0x4b7e, {0x9a, 0x51, 0x2e, 0x7c, 0x1b, 0x0d, 0x5a, 0x31}};

namespace {

constexpr long kOriginMask = 0x70;

HRESULT QualifierTypeOf(const VARIANT& v, CIMTYPE& type)
{
    const VARTYPE vt = static_cast<VARTYPE>(V_VT(&v) & ~VT_ARRAY);
    switch (vt) {
    case VT_BSTR:
        type = CIM_STRING;
        break;
    case VT_BOOL:
        type = CIM_BOOLEAN;
        break;
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
        type = CIM_SINT32;
        break;
    case VT_R4:
    case VT_R8:
        type = CIM_REAL64;
        break;
    default:
        return Hr(WBEM_E_TYPE_MISMATCH);
    }
    if (V_VT(&v) & VT_ARRAY)
        type |= CIM_FLAG_ARRAY;
    return S_OK;
}

bool IsTruthy(const CimValue& value)
{
    if (value.IsNull() || value.IsArray())
        return false;
    if (const bool* pb = std::get_if<bool>(&value.Scalar()))
        return *pb;
    return true;
}

}  // namespace

CimClassObject::CimClassObject(CimClassPtr cls, std::optional<CimInstance> instance)
    : m_class(std::move(cls)), m_instance(std::move(instance))
{
}

HRESULT CimClassObject::CreateForInstance(CimInstance instance, IWbemClassObject** ppObject)
{
    if (!ppObject)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppObject = nullptr;
    return CatchHr([&] {
        CimClassPtr cls = instance.ClassPtr();
        *ppObject = new CimClassObject(std::move(cls), std::move(instance));
        return S_OK;
    });
}

HRESULT CimClassObject::CreateForClass(CimClassPtr cls, IWbemClassObject** ppObject)
{
    if (!ppObject)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppObject = nullptr;
    return CatchHr([&] {
        *ppObject = new CimClassObject(std::move(cls), std::nullopt);
        return S_OK;
    });
}

CimClassObject* CimClassObject::FromUnknown(IUnknown* pUnknown)
{
    void* pv = nullptr;
    if (!pUnknown || FAILED(pUnknown->QueryInterface(IID_CimStoreObject, &pv)))
        return nullptr;
    return static_cast<CimClassObject*>(pv);
}

CimInstance CimClassObject::InstanceCopy() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_instance ? *m_instance : CimInstance();
}

HRESULT CimClassObject::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IWbemClassObject || riid == IID_CimStoreObject) {
        *ppv = static_cast<IWbemClassObject*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

HRESULT CimClassObject::FaultFor(const wchar_t* wszMethod) const
{
    return StoreState::Get().CheckFault(wszMethod, {m_class->Name()});
}

HRESULT CimClassObject::GetLocked(std::wstring_view wsName, VARIANT* pVal, CIMTYPE* pType, long* plFlavor) const
{
    CCVariant scratch;
    VARIANT* pTarget = pVal ? pVal : scratch.Ptr();
    if (m_instance)
        return m_instance->GetVariant(wsName, pTarget, pType, plFlavor);

    CimValue value;
    CIMTYPE type = CIM_EMPTY;
    long lFlavor = WBEM_FLAVOR_ORIGIN_SYSTEM;
    if (IsSystemPropertyName(wsName)) {
        const HRESULT hr = m_class->GetSystemProperty(wsName, value, type);
        if (FAILED(hr))
            return hr;
    } else {
        const int i = m_class->FindProperty(wsName);
        if (i < 0)
            return Hr(WBEM_E_NOT_FOUND);
        const CimProperty& property = m_class->Properties()[static_cast<size_t>(i)];
        value = property.defaultValue;
        type = property.type;
        lFlavor = EqualsNoCase(property.origin, m_class->Name()) ? WBEM_FLAVOR_ORIGIN_LOCAL
                                                                : WBEM_FLAVOR_ORIGIN_PROPAGATED;
    }
    const HRESULT hr = ToVariant(value, type, pTarget);
    if (FAILED(hr))
        return hr;
    if (pType)
        *pType = type;
    if (plFlavor)
        *plFlavor = lFlavor;
    return S_OK;
}

HRESULT CimClassObject::GetQualifierSet(IWbemQualifierSet** ppQualSet)
{
    if (!ppQualSet)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppQualSet = nullptr;
    const HRESULT hr = FaultFor(L"GetQualifierSet");
    if (FAILED(hr))
        return hr;
    return CimQualifierSetObject::Create(this, nullptr, ppQualSet);
}

HRESULT CimClassObject::Get(LPCWSTR wszName, long lFlags, VARIANT* pVal, CIMTYPE* pType, long* plFlavor)
{
    if (!wszName || lFlags != 0)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        const HRESULT hr = StoreState::Get().CheckFault(L"Get", {m_class->Name(), wszName});
        if (FAILED(hr))
            return hr;
        if (pVal)
            VariantInit(pVal);
        std::lock_guard<std::mutex> lock(m_mutex);
        return GetLocked(wszName, pVal, pType, plFlavor);
    });
}

HRESULT CimClassObject::Put(LPCWSTR wszName, long lFlags, VARIANT* pVal, CIMTYPE Type)
{
    if (!wszName || lFlags != 0)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        const HRESULT hr = StoreState::Get().CheckFault(L"Put", {m_class->Name(), wszName});
        if (FAILED(hr))
            return hr;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_instance)
            return Hr(WBEM_E_NOT_SUPPORTED);
        CCVariant null;
        V_VT(null.Ptr()) = VT_NULL;
        return m_instance->PutVariant(wszName, pVal ? *pVal : null.Get(), Type);
    });
}

HRESULT CimClassObject::Delete(LPCWSTR wszName)
{
    if (!wszName)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (IsSystemPropertyName(wszName))
            return Hr(WBEM_E_SYSTEM_PROPERTY);
        const int i = m_class->FindProperty(wszName);
        if (i < 0)
            return Hr(WBEM_E_NOT_FOUND);
        if (!m_instance)
            return Hr(WBEM_E_NOT_SUPPORTED);
        const HRESULT hr = m_instance->Put(wszName, m_class->Properties()[static_cast<size_t>(i)].defaultValue);
        return FAILED(hr) ? hr : Hr(WBEM_S_RESET_TO_DEFAULT);
    });
}

std::vector<std::wstring> CimClassObject::SelectNames(long lFlags) const
{
    const long lOrigin = lFlags & kOriginMask;
    std::vector<std::wstring> names;
    if (lOrigin == 0 || lOrigin == WBEM_FLAG_SYSTEM_ONLY) {
        if (!(lFlags & (WBEM_FLAG_KEYS_ONLY | WBEM_FLAG_REFS_ONLY))) {
            for (const SystemPropertyRow& row : g_SystemProperties)
                names.push_back(row.wszName);
        }
    }
    if (lOrigin == WBEM_FLAG_SYSTEM_ONLY)
        return names;
    const std::vector<CimProperty>& properties = m_class->Properties();
    for (const CimProperty& property : properties) {
        const bool bLocal = EqualsNoCase(property.origin, m_class->Name());
        if (lOrigin == WBEM_FLAG_LOCAL_ONLY && !bLocal)
            continue;
        if (lOrigin == WBEM_FLAG_PROPAGATED_ONLY && bLocal)
            continue;
        if ((lFlags & WBEM_FLAG_KEYS_ONLY) && !property.key)
            continue;
        if ((lFlags & WBEM_FLAG_REFS_ONLY) && (property.type & ~CIM_FLAG_ARRAY) != CIM_REFERENCE)
            continue;
        names.push_back(property.name);
    }
    return names;
}

HRESULT CimClassObject::GetNames(LPCWSTR wszQualifierName, long lFlags, VARIANT* pQualifierVal, SAFEARRAY** pNames)
{
    if (!pNames)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *pNames = nullptr;
    const long lCondition = lFlags & 0x3;
    if (lCondition != WBEM_FLAG_ALWAYS && !wszQualifierName)
        return Hr(WBEM_E_INVALID_PARAMETER);
    if (lCondition == WBEM_FLAG_ONLY_IF_IDENTICAL && !pQualifierVal)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::wstring> names = SelectNames(lFlags & ~0x3L);
        if (wszQualifierName) {
            CimValue wanted;
            if (lCondition == WBEM_FLAG_ONLY_IF_IDENTICAL) {
                CIMTYPE type = CIM_EMPTY;
                HRESULT hr = QualifierTypeOf(*pQualifierVal, type);
                if (SUCCEEDED(hr))
                    hr = FromVariant(*pQualifierVal, type, wanted);
                if (FAILED(hr))
                    return Hr(WBEM_E_INVALID_PARAMETER);
            }
            std::vector<std::wstring> kept;
            for (const std::wstring& wsName : names) {
                const CimQualifier* pQualifier = nullptr;
                QualifierSet qualifiers;
                if (!IsSystemPropertyName(wsName)) {
                    if (m_instance) {
                        m_instance->GetPropertyQualifiers(wsName, qualifiers);
                    } else {
                        const int i = m_class->FindProperty(wsName);
                        if (i >= 0)
                            qualifiers = m_class->Properties()[static_cast<size_t>(i)].qualifiers;
                    }
                    pQualifier = qualifiers.Find(wszQualifierName);
                }
                bool bKeep = false;
                switch (lCondition) {
                case WBEM_FLAG_ALWAYS:
                    bKeep = pQualifier != nullptr;
                    break;
                case WBEM_FLAG_ONLY_IF_TRUE:
                    bKeep = pQualifier && IsTruthy(pQualifier->value);
                    break;
                case WBEM_FLAG_ONLY_IF_FALSE:
                    bKeep = !pQualifier || !IsTruthy(pQualifier->value);
                    break;
                default:
                    bKeep = pQualifier && pQualifier->value == wanted;
                    break;
                }
                if (bKeep)
                    kept.push_back(wsName);
            }
            names.swap(kept);
        }
        return MakeNameArray(names, pNames);
    });
}

HRESULT CimClassObject::BeginEnumeration(long lEnumFlags)
{
    const long lAllowed = WBEM_FLAG_KEYS_ONLY | WBEM_FLAG_REFS_ONLY | kOriginMask;
    const long lOrigin = lEnumFlags & kOriginMask;
    if ((lEnumFlags & ~lAllowed) || (lOrigin != 0 && lOrigin != WBEM_FLAG_LOCAL_ONLY &&
                                     lOrigin != WBEM_FLAG_PROPAGATED_ONLY && lOrigin != WBEM_FLAG_SYSTEM_ONLY &&
                                     lOrigin != WBEM_FLAG_NONSYSTEM_ONLY))
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_enumNames = SelectNames(lEnumFlags);
        m_enumPosition = 0;
        m_bEnumerating = true;
        return S_OK;
    });
}

HRESULT CimClassObject::Next(long lFlags, BSTR* strName, VARIANT* pVal, CIMTYPE* pType, long* plFlavor)
{
    if (lFlags != 0)
        return Hr(WBEM_E_INVALID_PARAMETER);
    if (strName)
        *strName = nullptr;
    if (pVal)
        VariantInit(pVal);
    return CatchHr([&] {
        const HRESULT hrFault = FaultFor(L"Next");
        if (FAILED(hrFault))
            return hrFault;
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_bEnumerating)
            return Hr(WBEM_E_UNEXPECTED);
        if (m_enumPosition >= m_enumNames.size())
            return Hr(WBEM_S_NO_MORE_DATA);
        const std::wstring& wsName = m_enumNames[m_enumPosition++];
        CCBstr bstrName(wsName.c_str());
        if (!bstrName)
            return E_OUTOFMEMORY;
        const HRESULT hr = GetLocked(wsName, pVal, pType, plFlavor);
        if (FAILED(hr))
            return hr;
        if (strName)
            *strName = bstrName.Detach();
        return S_OK;
    });
}

HRESULT CimClassObject::EndEnumeration()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bEnumerating = false;
    m_enumNames.clear();
    m_enumPosition = 0;
    return S_OK;
}

HRESULT CimClassObject::GetPropertyQualifierSet(LPCWSTR wszProperty, IWbemQualifierSet** ppQualSet)
{
    if (!wszProperty || !ppQualSet)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppQualSet = nullptr;
    return CatchHr([&] {
        const HRESULT hr = StoreState::Get().CheckFault(L"GetPropertyQualifierSet", {m_class->Name(), wszProperty});
        if (FAILED(hr))
            return hr;
        if (IsSystemPropertyName(wszProperty))
            return Hr(WBEM_E_SYSTEM_PROPERTY);
        const int i = m_class->FindProperty(wszProperty);
        if (i < 0)
            return Hr(WBEM_E_NOT_FOUND);
        const std::wstring wsProperty = m_class->Properties()[static_cast<size_t>(i)].name;
        return CimQualifierSetObject::Create(this, &wsProperty, ppQualSet);
    });
}

HRESULT CimClassObject::Clone(IWbemClassObject** ppCopy)
{
    if (!ppCopy)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppCopy = nullptr;
    return CatchHr([&] {
        std::lock_guard<std::mutex> lock(m_mutex);
        *ppCopy = new CimClassObject(m_class, m_instance);
        return S_OK;
    });
}

HRESULT CimClassObject::GetObjectText(long lFlags, BSTR* pstrObjectText)
{
    if (!pstrObjectText || (lFlags & ~WBEM_FLAG_NO_FLAVORS))
        return Hr(WBEM_E_INVALID_PARAMETER);
    *pstrObjectText = nullptr;
    return CatchHr([&] {
        std::wstring wsText;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_instance)
                WriteInstanceMof(*m_instance, wsText);
            else
                WriteClassMof(*m_class, wsText);
        }
        CCBstr bstrText(wsText.c_str());
        if (!bstrText)
            return E_OUTOFMEMORY;
        *pstrObjectText = bstrText.Detach();
        return S_OK;
    });
}

HRESULT CimClassObject::SpawnDerivedClass(long, IWbemClassObject** ppNewClass)
{
    if (ppNewClass)
        *ppNewClass = nullptr;
    return m_instance ? Hr(WBEM_E_ILLEGAL_OPERATION) : Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimClassObject::SpawnInstance(long lFlags, IWbemClassObject** ppNewInstance)
{
    if (!ppNewInstance || lFlags != 0)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *ppNewInstance = nullptr;
    return CatchHr([&] {
        const HRESULT hr = FaultFor(L"SpawnInstance");
        if (FAILED(hr))
            return hr;
        if (m_class->IsAbstract())
            return Hr(WBEM_E_INVALID_OPERATION);
        return CreateForInstance(CimInstance(m_class), ppNewInstance);
    });
}

HRESULT CimClassObject::CompareTo(long lFlags, IWbemClassObject* pCompareTo)
{
    if (!pCompareTo)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return CatchHr([&] {
        Microsoft::WRL::ComPtr<CimClassObject> pOther;
        TakeOwnership(pOther, FromUnknown(pCompareTo));
        if (!pOther)
            return Hr(WBEM_E_INVALID_PARAMETER);
        if (pOther.Get() == this)
            return Hr(WBEM_S_SAME);
        const bool bIgnoreQualifiers = (lFlags & WBEM_FLAG_IGNORE_QUALIFIERS) != 0;
        const CimInstance other = pOther->InstanceCopy();
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_instance.has_value() != other.IsValid())
            return Hr(WBEM_S_DIFFERENT);
        if (!m_instance)
            return m_class == pOther->ClassPtr() ? Hr(WBEM_S_SAME) : Hr(WBEM_S_DIFFERENT);
        return m_instance->Equals(other, bIgnoreQualifiers) ? Hr(WBEM_S_SAME) : Hr(WBEM_S_DIFFERENT);
    });
}

HRESULT CimClassObject::GetPropertyOrigin(LPCWSTR wszName, BSTR* pstrClassName)
{
    if (!wszName || !pstrClassName)
        return Hr(WBEM_E_INVALID_PARAMETER);
    *pstrClassName = nullptr;
    return CatchHr([&] {
        std::wstring wsOrigin;
        if (IsSystemPropertyName(wszName))
            return Hr(WBEM_E_SYSTEM_PROPERTY);
        const int i = m_class->FindProperty(wszName);
        if (i < 0)
            return Hr(WBEM_E_NOT_FOUND);
        wsOrigin = m_class->Properties()[static_cast<size_t>(i)].origin;
        CCBstr bstrOrigin(wsOrigin.c_str());
        if (!bstrOrigin)
            return E_OUTOFMEMORY;
        *pstrClassName = bstrOrigin.Detach();
        return S_OK;
    });
}

HRESULT CimClassObject::InheritsFrom(LPCWSTR strAncestor)
{
    if (!strAncestor)
        return Hr(WBEM_E_INVALID_PARAMETER);
    return !EqualsNoCase(m_class->Name(), strAncestor) && m_class->InheritsFrom(strAncestor) ? S_OK
                                                                                              : Hr(WBEM_S_FALSE);
}

HRESULT CimClassObject::GetMethod(LPCWSTR, long, IWbemClassObject** ppInSignature, IWbemClassObject** ppOutSignature)
{
    if (ppInSignature)
        *ppInSignature = nullptr;
    if (ppOutSignature)
        *ppOutSignature = nullptr;
    return Hr(WBEM_E_NOT_FOUND);
}

HRESULT CimClassObject::PutMethod(LPCWSTR, long, IWbemClassObject*, IWbemClassObject*)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimClassObject::DeleteMethod(LPCWSTR)
{
    return Hr(WBEM_E_NOT_SUPPORTED);
}

HRESULT CimClassObject::BeginMethodEnumeration(long)
{
    return S_OK;
}

HRESULT CimClassObject::NextMethod(long, BSTR* pstrName, IWbemClassObject** ppInSignature,
                                   IWbemClassObject** ppOutSignature)
{
    if (pstrName)
        *pstrName = nullptr;
    if (ppInSignature)
        *ppInSignature = nullptr;
    if (ppOutSignature)
        *ppOutSignature = nullptr;
    return Hr(WBEM_S_NO_MORE_DATA);
}

HRESULT CimClassObject::EndMethodEnumeration()
{
    return S_OK;
}

HRESULT CimClassObject::GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet** ppQualSet)
{
    if (ppQualSet)
        *ppQualSet = nullptr;
    return Hr(WBEM_E_NOT_FOUND);
}

HRESULT CimClassObject::GetMethodOrigin(LPCWSTR, BSTR* pstrClassName)
{
    if (pstrClassName)
        *pstrClassName = nullptr;
    return Hr(WBEM_E_NOT_FOUND);
}

HRESULT CimClassObject::QualifierList(const std::wstring* pwsProperty, std::vector<CimQualifier>& out)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    QualifierSet qualifiers;
    if (m_instance) {
        if (pwsProperty) {
            const HRESULT hr = m_instance->GetPropertyQualifiers(*pwsProperty, qualifiers);
            if (FAILED(hr))
                return hr;
        } else {
            qualifiers = m_instance->EffectiveQualifiers();
        }
    } else if (pwsProperty) {
        const int i = m_class->FindProperty(*pwsProperty);
        if (i < 0)
            return Hr(WBEM_E_NOT_FOUND);
        qualifiers = m_class->Properties()[static_cast<size_t>(i)].qualifiers;
    } else {
        qualifiers = m_class->Qualifiers();
    }
    out = qualifiers.Items();
    return S_OK;
}

HRESULT CimClassObject::QualifierGet(const std::wstring* pwsProperty, const wchar_t* wszName, VARIANT* pVal,
                                     long* plFlavor)
{
    std::vector<CimQualifier> qualifiers;
    const HRESULT hr = QualifierList(pwsProperty, qualifiers);
    if (FAILED(hr))
        return hr;
    for (const CimQualifier& qualifier : qualifiers) {
        if (!EqualsNoCase(qualifier.name, wszName))
            continue;
        if (pVal) {
            const HRESULT hrValue = ToVariant(qualifier.value, qualifier.type, pVal);
            if (FAILED(hrValue))
                return hrValue;
        }
        if (plFlavor)
            *plFlavor = qualifier.flavor;
        return S_OK;
    }
    return Hr(WBEM_E_NOT_FOUND);
}

HRESULT CimClassObject::QualifierPut(const std::wstring* pwsProperty, const wchar_t* wszName, const VARIANT* pVal,
                                     long lFlavor)
{
    if (!pVal)
        return Hr(WBEM_E_INVALID_PARAMETER);
    CimQualifier qualifier;
    qualifier.name = wszName;
    HRESULT hr = QualifierTypeOf(*pVal, qualifier.type);
    if (SUCCEEDED(hr))
        hr = FromVariant(*pVal, qualifier.type, qualifier.value);
    if (FAILED(hr))
        return Hr(WBEM_E_INVALID_QUALIFIER_TYPE);
    qualifier.flavor = lFlavor & ~WBEM_FLAVOR_MASK_ORIGIN;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_instance)
        return Hr(WBEM_E_NOT_SUPPORTED);
    QualifierSet* pSet = pwsProperty ? m_instance->LocalPropertyQualifiers(*pwsProperty, true)
                                     : &m_instance->Qualifiers();
    if (!pSet)
        return Hr(WBEM_E_NOT_FOUND);
    pSet->Set(std::move(qualifier));
    return S_OK;
}

HRESULT CimClassObject::QualifierDelete(const std::wstring* pwsProperty, const wchar_t* wszName)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_instance)
        return Hr(WBEM_E_NOT_SUPPORTED);
    QualifierSet* pSet = pwsProperty ? m_instance->LocalPropertyQualifiers(*pwsProperty, false)
                                     : &m_instance->Qualifiers();
    if (pSet && pSet->Remove(wszName))
        return S_OK;
    // A qualifier that only comes from the class cannot be removed here.
    QualifierSet effective;
    if (pwsProperty)
        m_instance->GetPropertyQualifiers(*pwsProperty, effective);
    else
        effective = m_instance->EffectiveQualifiers();
    return effective.Find(wszName) ? Hr(WBEM_E_PROPAGATED_QUALIFIER) : Hr(WBEM_E_NOT_FOUND);
}

}  // namespace cimstore::com
