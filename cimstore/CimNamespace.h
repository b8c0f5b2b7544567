// One namespace: its classes and instances. Not locked; CimRepository guards it.
#pragma once

#include "cimstore/CimInstance.h"
#include "cimstore/ObjectPath.h"

#include <functional>
#include <map>
#include <unordered_map>

namespace cimstore {

using CimInstancePtr = std::shared_ptr<const CimInstance>;

class CimNamespace {
public:
    explicit CimNamespace(std::wstring wsName) : m_wsName(std::move(wsName)) {}
    // The per-class index refers to the keys of the identity index, so a copy rebuilds it.
    CimNamespace(const CimNamespace& other);
    CimNamespace& operator=(const CimNamespace&) = delete;

    const std::wstring& Name() const { return m_wsName; }

    CimClassPtr FindClass(std::wstring_view wsName) const;
    // Adds or replaces a class; a class with instances or subclasses cannot be replaced.
    HRESULT PutClass(CimClassPtr cls);
    // Classes in declaration order (superclasses before their subclasses).
    const std::vector<CimClassPtr>& Classes() const { return m_classes; }
    // The class and, when deep, all classes derived from it.
    std::vector<CimClassPtr> ClassFamily(const CimClass& cls) const;

    // Identity key of the instance a path names (WBEM_E_INVALID_OBJECT_PATH, WBEM_E_NOT_FOUND
    // for an unknown class).
    HRESULT ResolveInstancePath(const ObjectPath& path, CimClassPtr& cls, std::wstring& wsIdentity) const;
    CimInstancePtr FindInstance(const std::wstring& wsIdentity) const;
    // Instance by path, class checked (a path may name a superclass of the instance's class).
    HRESULT GetInstance(const ObjectPath& path, CimInstancePtr& out) const;
    // flags: WBEM_FLAG_CREATE_ONLY, WBEM_FLAG_UPDATE_ONLY or 0.
    HRESULT PutInstance(const CimInstance& instance, long lFlags, CimInstancePtr* pStored = nullptr);
    HRESULT DeleteInstance(const ObjectPath& path, CimInstancePtr* pDeleted = nullptr);
    // Instances of the class and its subclasses, in class declaration then key order.
    void ForEachInstance(const CimClass& cls, const std::function<void(const CimInstancePtr&)>& fn,
                         bool bDeep = true) const;
    size_t InstanceCount() const { return m_byKey.size(); }
    bool HasInstances(std::wstring_view wsClass) const;

private:
    std::wstring m_wsName;
    std::vector<CimClassPtr> m_classes;
    std::unordered_map<std::wstring, size_t> m_classIndex;
    std::unordered_map<std::wstring, CimInstancePtr> m_byKey;
    // Folded class name -> instances of exactly that class, ordered by identity (views of m_byKey's keys).
    std::unordered_map<std::wstring, std::map<std::wstring_view, CimInstancePtr>> m_byClass;
};

}  // namespace cimstore
