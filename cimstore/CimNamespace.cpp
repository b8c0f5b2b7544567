#include "cimstore/CimNamespace.h"

#include <algorithm>

namespace cimstore {

CimNamespace::CimNamespace(const CimNamespace& other)
    : m_wsName(other.m_wsName), m_classes(other.m_classes), m_classIndex(other.m_classIndex), m_byKey(other.m_byKey)
{
    for (const auto& [identity, instance] : m_byKey)
        m_byClass[Fold(instance->ClassName())].emplace(identity, instance);
}

CimClassPtr CimNamespace::FindClass(std::wstring_view wsName) const
{
    const auto it = m_classIndex.find(Fold(wsName));
    return it == m_classIndex.end() ? nullptr : m_classes[it->second];
}

HRESULT CimNamespace::PutClass(CimClassPtr cls)
{
    const std::wstring wsKey = Fold(cls->Name());
    const auto it = m_classIndex.find(wsKey);
    if (it == m_classIndex.end()) {
        m_classIndex.emplace(wsKey, m_classes.size());
        m_classes.push_back(std::move(cls));
        return S_OK;
    }
    if (m_classes[it->second]->SameDefinition(*cls))
        return S_OK;
    for (const CimClassPtr& other : m_classes)
        if (other->Parent() && EqualsNoCase(other->Parent()->Name(), cls->Name()))
            return Hr(WBEM_E_CLASS_HAS_CHILDREN);
    if (HasInstances(cls->Name()))
        return Hr(WBEM_E_CLASS_HAS_INSTANCES);
    m_classes[it->second] = std::move(cls);
    return S_OK;
}

std::vector<CimClassPtr> CimNamespace::ClassFamily(const CimClass& cls) const
{
    std::vector<CimClassPtr> out;
    for (const CimClassPtr& c : m_classes)
        if (c->InheritsFrom(cls.Name()))
            out.push_back(c);
    return out;
}

bool CimNamespace::HasInstances(std::wstring_view wsClass) const
{
    const auto it = m_byClass.find(Fold(wsClass));
    return it != m_byClass.end() && !it->second.empty();
}

HRESULT CimNamespace::ResolveInstancePath(const ObjectPath& path, CimClassPtr& cls, std::wstring& wsIdentity) const
{
    cls = FindClass(path.className);
    if (!cls)
        return Hr(WBEM_E_NOT_FOUND);
    const std::vector<size_t>& keys = cls->KeyIndices();
    if (path.IsClassPath() || path.singleton != keys.empty() || path.keys.size() != keys.size())
        return Hr(WBEM_E_INVALID_OBJECT_PATH);
    std::vector<CimScalar> values(keys.size());
    std::vector<bool> seen(keys.size(), false);
    for (const KeyBinding& binding : path.keys) {
        size_t k = 0;
        if (binding.name.empty()) {
            if (keys.size() != 1)
                return Hr(WBEM_E_INVALID_OBJECT_PATH);
        } else {
            while (k < keys.size() && !EqualsNoCase(cls->Properties()[keys[k]].name, binding.name))
                ++k;
        }
        if (k == keys.size() || seen[k])
            return Hr(WBEM_E_INVALID_OBJECT_PATH);
        seen[k] = true;
        if (FAILED(CoerceScalar(binding.value, cls->Properties()[keys[k]].type, values[k])))
            return Hr(WBEM_E_INVALID_OBJECT_PATH);
    }
    std::vector<const CimScalar*> pointers;
    for (const CimScalar& v : values)
        pointers.push_back(&v);
    wsIdentity = BuildIdentityKey(*cls, pointers);
    return S_OK;
}

CimInstancePtr CimNamespace::FindInstance(const std::wstring& wsIdentity) const
{
    const auto it = m_byKey.find(wsIdentity);
    return it == m_byKey.end() ? nullptr : it->second;
}

HRESULT CimNamespace::GetInstance(const ObjectPath& path, CimInstancePtr& out) const
{
    CimClassPtr cls;
    std::wstring wsIdentity;
    const HRESULT hr = ResolveInstancePath(path, cls, wsIdentity);
    if (FAILED(hr))
        return hr;
    out = FindInstance(wsIdentity);
    if (!out || !out->Class().InheritsFrom(cls->Name())) {
        out = nullptr;
        return Hr(WBEM_E_NOT_FOUND);
    }
    return S_OK;
}

HRESULT CimNamespace::PutInstance(const CimInstance& instance, long lFlags, CimInstancePtr* pStored)
{
    if (!instance.IsValid())
        return Hr(WBEM_E_INVALID_PARAMETER);
    const CimClassPtr cls = FindClass(instance.ClassName());
    if (!cls)
        return Hr(WBEM_E_INVALID_CLASS);
    if (cls != instance.ClassPtr())
        return Hr(WBEM_E_INVALID_OBJECT);
    if (cls->IsAbstract())
        return Hr(WBEM_E_INVALID_OPERATION);
    const std::wstring wsIdentity = instance.IdentityKey();
    if (wsIdentity.empty())
        return Hr(WBEM_E_ILLEGAL_NULL);
    const auto it = m_byKey.find(wsIdentity);
    if (it != m_byKey.end() && (lFlags & WBEM_FLAG_CREATE_ONLY))
        return Hr(WBEM_E_ALREADY_EXISTS);
    if (it == m_byKey.end() && (lFlags & WBEM_FLAG_UPDATE_ONLY))
        return Hr(WBEM_E_NOT_FOUND);
    auto stored = std::make_shared<const CimInstance>(instance);
    std::wstring_view identity;
    if (it != m_byKey.end()) {
        identity = it->first;
        m_byClass[Fold(it->second->ClassName())].erase(identity);
        it->second = stored;
    } else {
        identity = m_byKey.emplace(wsIdentity, stored).first->first;
    }
    m_byClass[Fold(cls->Name())][identity] = stored;
    if (pStored)
        *pStored = std::move(stored);
    return S_OK;
}

HRESULT CimNamespace::DeleteInstance(const ObjectPath& path, CimInstancePtr* pDeleted)
{
    CimInstancePtr found;
    const HRESULT hr = GetInstance(path, found);
    if (FAILED(hr))
        return hr;
    const std::wstring wsIdentity = found->IdentityKey();
    m_byClass[Fold(found->ClassName())].erase(wsIdentity);
    m_byKey.erase(wsIdentity);
    if (pDeleted)
        *pDeleted = std::move(found);
    return S_OK;
}

void CimNamespace::ForEachInstance(const CimClass& cls, const std::function<void(const CimInstancePtr&)>& fn,
                                   bool bDeep) const
{
    const std::vector<CimClassPtr> family = bDeep ? ClassFamily(cls) : std::vector<CimClassPtr>{FindClass(cls.Name())};
    for (const CimClassPtr& c : family) {
        if (!c)
            continue;
        const auto it = m_byClass.find(Fold(c->Name()));
        if (it == m_byClass.end())
            continue;
        for (const auto& entry : it->second)
            fn(entry.second);
    }
}

}  // namespace cimstore
