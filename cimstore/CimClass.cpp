#include "cimstore/CimClass.h"

#include <algorithm>

namespace cimstore {

const SystemPropertyRow g_SystemProperties[10] = {
    {L"__GENUS", CIM_SINT32},         {L"__CLASS", CIM_STRING},  {L"__SUPERCLASS", CIM_STRING},
    {L"__DYNASTY", CIM_STRING},       {L"__RELPATH", CIM_STRING}, {L"__PROPERTY_COUNT", CIM_SINT32},
    {L"__DERIVATION", CIM_STRING | CIM_FLAG_ARRAY}, {L"__SERVER", CIM_STRING}, {L"__NAMESPACE", CIM_STRING},
    {L"__PATH", CIM_STRING},
};

bool IsSystemPropertyName(std::wstring_view wsName)
{
    return wsName.size() > 2 && wsName[0] == L'_' && wsName[1] == L'_';
}

bool CimQualifier::operator==(const CimQualifier& other) const
{
    return EqualsNoCase(name, other.name) && value == other.value && type == other.type && flavor == other.flavor;
}

long DefaultQualifierFlavor(std::wstring_view wsName)
{
    if (EqualsNoCase(wsName, L"Abstract"))
        return WBEM_FLAVOR_DONT_PROPAGATE;
    if (EqualsNoCase(wsName, L"Key") || EqualsNoCase(wsName, L"Association"))
        return WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS | WBEM_FLAVOR_NOT_OVERRIDABLE;
    return WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS;
}

const CimQualifier* QualifierSet::Find(std::wstring_view wsName) const
{
    for (const CimQualifier& q : m_items)
        if (EqualsNoCase(q.name, wsName))
            return &q;
    return nullptr;
}

void QualifierSet::Set(CimQualifier qualifier)
{
    for (CimQualifier& q : m_items) {
        if (EqualsNoCase(q.name, qualifier.name)) {
            q = std::move(qualifier);
            return;
        }
    }
    m_items.push_back(std::move(qualifier));
}

bool QualifierSet::Remove(std::wstring_view wsName)
{
    const auto it = std::find_if(m_items.begin(), m_items.end(),
                                 [&](const CimQualifier& q) { return EqualsNoCase(q.name, wsName); });
    if (it == m_items.end())
        return false;
    m_items.erase(it);
    return true;
}

bool QualifierSet::IsTrue(std::wstring_view wsName) const
{
    const CimQualifier* pq = Find(wsName);
    if (!pq || pq->value.IsNull() || pq->value.IsArray())
        return false;
    const bool* pb = std::get_if<bool>(&pq->value.Scalar());
    return pb && *pb;
}

QualifierSet QualifierSet::Propagated(long propagateFlag) const
{
    QualifierSet out;
    for (const CimQualifier& q : m_items) {
        if (q.flavor & propagateFlag) {
            CimQualifier copy = q;
            copy.flavor = (copy.flavor & ~WBEM_FLAVOR_MASK_ORIGIN) | WBEM_FLAVOR_ORIGIN_PROPAGATED;
            out.m_items.push_back(std::move(copy));
        }
    }
    return out;
}

HRESULT QualifierSet::MergeInherited(const QualifierSet& inherited)
{
    std::vector<CimQualifier> merged = inherited.m_items;
    for (CimQualifier& local : m_items) {
        auto it = std::find_if(merged.begin(), merged.end(),
                               [&](const CimQualifier& q) { return EqualsNoCase(q.name, local.name); });
        if (it == merged.end()) {
            merged.push_back(std::move(local));
            continue;
        }
        if ((it->flavor & WBEM_FLAVOR_NOT_OVERRIDABLE) && !(it->value == local.value))
            return Hr(WBEM_E_OVERRIDE_NOT_ALLOWED);
        *it = std::move(local);
    }
    m_items = std::move(merged);
    return S_OK;
}

bool QualifierSet::operator==(const QualifierSet& other) const
{
    if (m_items.size() != other.m_items.size())
        return false;
    for (const CimQualifier& q : m_items) {
        const CimQualifier* po = other.Find(q.name);
        if (!po || !(*po == q))
            return false;
    }
    return true;
}

CimClass::CimClass(std::wstring wsName, CimClassPtr parent, std::wstring wsNamespace, std::wstring wsServer)
    : m_wsName(std::move(wsName)), m_parent(std::move(parent)), m_wsNamespace(std::move(wsNamespace)),
      m_wsServer(std::move(wsServer))
{
    if (!m_parent)
        return;
    m_derivation.push_back(m_parent->Name());
    m_derivation.insert(m_derivation.end(), m_parent->Derivation().begin(), m_parent->Derivation().end());
    m_qualifiers = m_parent->Qualifiers().Propagated(WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS);
    for (const CimProperty& inherited : m_parent->Properties()) {
        CimProperty p = inherited;
        p.qualifiers = inherited.qualifiers.Propagated(WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS);
        m_index.emplace(Fold(p.name), m_properties.size());
        m_properties.push_back(std::move(p));
    }
}

HRESULT CimClass::AddProperty(CimProperty property, bool& bLocalDuplicate)
{
    bLocalDuplicate = false;
    const std::wstring wsKey = Fold(property.name);
    const auto it = m_index.find(wsKey);
    if (it == m_index.end()) {
        property.origin = m_wsName;
        m_local.push_back(m_properties.size());
        m_index.emplace(wsKey, m_properties.size());
        m_properties.push_back(std::move(property));
        return S_OK;
    }
    if (std::find(m_local.begin(), m_local.end(), it->second) != m_local.end()) {
        bLocalDuplicate = true;
        return Hr(WBEM_E_ALREADY_EXISTS);
    }
    CimProperty& existing = m_properties[it->second];
    if (existing.type != property.type)
        return Hr(WBEM_E_TYPE_MISMATCH);
    const HRESULT hr = property.qualifiers.MergeInherited(existing.qualifiers);
    if (FAILED(hr))
        return hr;
    property.origin = existing.origin;
    property.name = existing.name;
    if (property.refClass.empty())
        property.refClass = existing.refClass;
    existing = std::move(property);
    m_local.push_back(it->second);
    return S_OK;
}

void CimClass::Finish()
{
    m_keys.clear();
    for (size_t i = 0; i < m_properties.size(); ++i) {
        m_properties[i].key = m_properties[i].qualifiers.IsTrue(L"Key");
        if (m_properties[i].key)
            m_keys.push_back(i);
    }
    std::sort(m_keys.begin(), m_keys.end(),
              [&](size_t a, size_t b) { return LessNoCase(m_properties[a].name, m_properties[b].name); });
    m_wsKeyRoot = m_wsName;
    if (m_keys.empty())
        return;
    // The key space is shared with ancestors that declare the same keys.
    for (const CimClass* p = m_parent.get(); p && p->KeyIndices().size() == m_keys.size(); p = p->Parent().get())
        m_wsKeyRoot = p->Name();
}

bool CimClass::SameDefinition(const CimClass& other) const
{
    if (m_wsName != other.m_wsName || m_parent != other.m_parent || !(m_qualifiers == other.m_qualifiers) ||
        m_properties.size() != other.m_properties.size() || m_local != other.m_local)
        return false;
    for (size_t i = 0; i < m_properties.size(); ++i) {
        const CimProperty& a = m_properties[i];
        const CimProperty& b = other.m_properties[i];
        if (a.name != b.name || a.type != b.type || !(a.defaultValue == b.defaultValue) ||
            !(a.qualifiers == b.qualifiers) || !EqualsNoCase(a.refClass, b.refClass))
            return false;
    }
    return true;
}

bool CimClass::InheritsFrom(std::wstring_view wsName) const
{
    if (EqualsNoCase(m_wsName, wsName))
        return true;
    for (const std::wstring& ws : m_derivation)
        if (EqualsNoCase(ws, wsName))
            return true;
    return false;
}

int CimClass::FindProperty(std::wstring_view wsName) const
{
    const auto it = m_index.find(Fold(wsName));
    return it == m_index.end() ? -1 : static_cast<int>(it->second);
}

std::wstring CimClass::ClassPath() const { return L"\\\\" + m_wsServer + L"\\" + m_wsNamespace + L":" + m_wsName; }

HRESULT CimClass::GetSystemProperty(std::wstring_view wsName, CimValue& value, CIMTYPE& type) const
{
    for (const SystemPropertyRow& row : g_SystemProperties) {
        if (!EqualsNoCase(wsName, row.wszName))
            continue;
        type = row.type;
        const std::wstring_view ws = row.wszName;
        if (ws == L"__GENUS")
            value = CimValue(int64_t{WBEM_GENUS_CLASS});
        else if (ws == L"__CLASS" || ws == L"__RELPATH")
            value = CimValue(m_wsName);
        else if (ws == L"__SUPERCLASS")
            value = m_parent ? CimValue(m_parent->Name()) : CimValue();
        else if (ws == L"__DYNASTY")
            value = CimValue(Dynasty());
        else if (ws == L"__PROPERTY_COUNT")
            value = CimValue(static_cast<int64_t>(m_properties.size()));
        else if (ws == L"__DERIVATION")
            value = CimValue::Array(std::vector<CimScalar>(m_derivation.begin(), m_derivation.end()));
        else if (ws == L"__SERVER")
            value = CimValue(m_wsServer);
        else if (ws == L"__NAMESPACE")
            value = CimValue(m_wsNamespace);
        else
            value = CimValue(ClassPath());
        return S_OK;
    }
    return Hr(WBEM_E_NOT_FOUND);
}

}  // namespace cimstore
