#include "cimstore/CimInstance.h"

#include "cimstore/ObjectPath.h"

namespace cimstore {

CimInstance::CimInstance(CimClassPtr cls) : m_class(std::move(cls))
{
    m_values.reserve(m_class->Properties().size());
    for (const CimProperty& p : m_class->Properties())
        m_values.push_back(p.defaultValue);
}

HRESULT CimInstance::Get(std::wstring_view wsName, CimValue& value, CIMTYPE* pType, long* pFlavor) const
{
    if (!m_class)
        return Hr(WBEM_E_FAILED);
    if (IsSystemPropertyName(wsName)) {
        CIMTYPE type = CIM_EMPTY;
        HRESULT hr = m_class->GetSystemProperty(wsName, value, type);
        if (FAILED(hr))
            return hr;
        if (EqualsNoCase(wsName, L"__GENUS")) {
            value = CimValue(int64_t{WBEM_GENUS_INSTANCE});
        } else if (EqualsNoCase(wsName, L"__RELPATH") || EqualsNoCase(wsName, L"__PATH")) {
            const std::wstring ws = EqualsNoCase(wsName, L"__PATH") ? Path() : RelPath();
            value = ws.empty() ? CimValue() : CimValue(ws);
        }
        if (pType)
            *pType = type;
        if (pFlavor)
            *pFlavor = WBEM_FLAVOR_ORIGIN_SYSTEM;
        return S_OK;
    }
    const int i = m_class->FindProperty(wsName);
    if (i < 0)
        return Hr(WBEM_E_NOT_FOUND);
    value = m_values[static_cast<size_t>(i)];
    if (pType)
        *pType = m_class->Properties()[static_cast<size_t>(i)].type;
    if (pFlavor)
        *pFlavor = WBEM_FLAVOR_ORIGIN_PROPAGATED;
    return S_OK;
}

HRESULT CimInstance::Put(std::wstring_view wsName, const CimValue& value)
{
    if (!m_class)
        return Hr(WBEM_E_FAILED);
    if (IsSystemPropertyName(wsName))
        return Hr(WBEM_E_READ_ONLY);
    const int i = m_class->FindProperty(wsName);
    if (i < 0)
        return Hr(WBEM_E_NOT_FOUND);
    CimValue coerced;
    const HRESULT hr = Coerce(value, m_class->Properties()[static_cast<size_t>(i)].type, coerced);
    if (FAILED(hr))
        return hr;
    m_values[static_cast<size_t>(i)] = std::move(coerced);
    return S_OK;
}

HRESULT CimInstance::GetVariant(std::wstring_view wsName, VARIANT* pv, CIMTYPE* pType, long* pFlavor) const
{
    CimValue value;
    CIMTYPE type = CIM_EMPTY;
    const HRESULT hr = Get(wsName, value, &type, pFlavor);
    if (FAILED(hr))
        return hr;
    if (pType)
        *pType = type;
    return ToVariant(value, type, pv);
}

HRESULT CimInstance::PutVariant(std::wstring_view wsName, const VARIANT& v, CIMTYPE type)
{
    if (!m_class)
        return Hr(WBEM_E_FAILED);
    if (IsSystemPropertyName(wsName))
        return Hr(WBEM_E_READ_ONLY);
    const int i = m_class->FindProperty(wsName);
    if (i < 0)
        return Hr(WBEM_E_NOT_FOUND);
    const CIMTYPE propertyType = m_class->Properties()[static_cast<size_t>(i)].type;
    if (type != 0 && type != propertyType)
        return Hr(WBEM_E_TYPE_MISMATCH);
    CimValue value;
    const HRESULT hr = FromVariant(v, propertyType, value);
    if (FAILED(hr))
        return hr;
    m_values[static_cast<size_t>(i)] = std::move(value);
    return S_OK;
}

std::vector<std::wstring> CimInstance::PropertyNames(bool bSystem) const
{
    std::vector<std::wstring> names;
    if (bSystem)
        for (const SystemPropertyRow& row : g_SystemProperties)
            names.emplace_back(row.wszName);
    for (const CimProperty& p : m_class->Properties())
        names.push_back(p.name);
    return names;
}

QualifierSet CimInstance::EffectiveQualifiers() const
{
    QualifierSet out = m_qualifiers;
    out.MergeInherited(m_class->Qualifiers().Propagated(WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE));
    return out;
}

HRESULT CimInstance::GetPropertyQualifiers(std::wstring_view wsName, QualifierSet& out) const
{
    const int i = m_class->FindProperty(wsName);
    if (i < 0)
        return Hr(WBEM_E_NOT_FOUND);
    const auto it = m_propertyQualifiers.find(Fold(wsName));
    out = it == m_propertyQualifiers.end() ? QualifierSet() : it->second;
    const CimProperty& p = m_class->Properties()[static_cast<size_t>(i)];
    out.MergeInherited(p.qualifiers.Propagated(WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE));
    return S_OK;
}

QualifierSet* CimInstance::LocalPropertyQualifiers(std::wstring_view wsName, bool bCreate)
{
    if (m_class->FindProperty(wsName) < 0)
        return nullptr;
    const std::wstring wsKey = Fold(wsName);
    auto it = m_propertyQualifiers.find(wsKey);
    if (it == m_propertyQualifiers.end()) {
        if (!bCreate)
            return nullptr;
        it = m_propertyQualifiers.emplace(wsKey, QualifierSet()).first;
    }
    return &it->second;
}

HRESULT CimInstance::GetPropertyOrigin(std::wstring_view wsName, std::wstring& wsOrigin) const
{
    if (IsSystemPropertyName(wsName)) {
        wsOrigin = L"___SYSTEM";
        return S_OK;
    }
    const int i = m_class->FindProperty(wsName);
    if (i < 0)
        return Hr(WBEM_E_NOT_FOUND);
    wsOrigin = m_class->Properties()[static_cast<size_t>(i)].origin;
    return S_OK;
}

std::wstring CimInstance::RelPath() const
{
    const std::vector<size_t>& keys = m_class->KeyIndices();
    if (keys.empty())
        return m_class->Name() + L"=@";
    std::wstring out = m_class->Name();
    for (size_t k = 0; k < keys.size(); ++k) {
        const CimValue& v = m_values[keys[k]];
        if (v.IsNull() || v.IsArray())
            return {};
        const CimProperty& p = m_class->Properties()[keys[k]];
        out += k == 0 ? L"." : L",";
        out += p.name + L"=" + FormatKeyValue(v.Scalar(), p.type);
    }
    return out;
}

std::wstring CimInstance::Path() const
{
    const std::wstring wsRel = RelPath();
    if (wsRel.empty())
        return {};
    return L"\\\\" + m_class->Server() + L"\\" + m_class->Namespace() + L":" + wsRel;
}

std::wstring BuildIdentityKey(const CimClass& cls, const std::vector<const CimScalar*>& keyValues)
{
    std::wstring out = Fold(cls.KeyRoot());
    if (cls.KeyIndices().empty())
        return out + L"=@";
    for (size_t k = 0; k < keyValues.size(); ++k) {
        const CimProperty& p = cls.Properties()[cls.KeyIndices()[k]];
        out += k == 0 ? L"." : L",";
        out += Fold(p.name);
        out += L'=';
        const CimScalar& v = *keyValues[k];
        const CIMTYPE type = p.type & ~CIM_FLAG_ARRAY;
        if (type == CIM_REFERENCE)
            out += QuoteString(CanonicalReference(std::get<std::wstring>(v)));
        else if (const std::wstring* pws = std::get_if<std::wstring>(&v))
            out += QuoteString(Fold(*pws));
        else
            out += ScalarText(v, type);
    }
    return out;
}

std::wstring CimInstance::IdentityKey() const
{
    std::vector<const CimScalar*> keyValues;
    for (size_t i : m_class->KeyIndices()) {
        if (m_values[i].IsNull() || m_values[i].IsArray())
            return {};
        keyValues.push_back(&m_values[i].Scalar());
    }
    return BuildIdentityKey(*m_class, keyValues);
}

bool CimInstance::Equals(const CimInstance& other, bool bIgnoreQualifiers) const
{
    if (!m_class || !other.m_class || !EqualsNoCase(ClassName(), other.ClassName()))
        return false;
    if (m_values != other.m_values)
        return false;
    if (bIgnoreQualifiers)
        return true;
    if (!(m_qualifiers == other.m_qualifiers) || m_propertyQualifiers.size() != other.m_propertyQualifiers.size())
        return false;
    for (const auto& [name, set] : m_propertyQualifiers) {
        const auto it = other.m_propertyQualifiers.find(name);
        if (it == other.m_propertyQualifiers.end() || !(it->second == set))
            return false;
    }
    return true;
}

}  // namespace cimstore
