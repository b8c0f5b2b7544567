// An instance: values for its class's properties plus instance qualifiers. Always a copy.
#pragma once

#include "cimstore/CimClass.h"

#include <map>

namespace cimstore {

class CimInstance {
public:
    CimInstance() = default;
    // SpawnInstance: every property starts at the class default.
    explicit CimInstance(CimClassPtr cls);

    bool IsValid() const { return m_class != nullptr; }
    const CimClass& Class() const { return *m_class; }
    const CimClassPtr& ClassPtr() const { return m_class; }
    const std::wstring& ClassName() const { return m_class->Name(); }

    // Property or system property value; type and flavor may be null.
    HRESULT Get(std::wstring_view wsName, CimValue& value, CIMTYPE* pType = nullptr, long* pFlavor = nullptr) const;
    // Coerces to the property's type: WBEM_E_NOT_FOUND (no such property), WBEM_E_READ_ONLY (system),
    // WBEM_E_TYPE_MISMATCH.
    HRESULT Put(std::wstring_view wsName, const CimValue& value);
    HRESULT GetVariant(std::wstring_view wsName, VARIANT* pv, CIMTYPE* pType, long* pFlavor) const;
    // type 0 means "the property's type"; any other type must equal it.
    HRESULT PutVariant(std::wstring_view wsName, const VARIANT& v, CIMTYPE type);

    const CimValue& ValueAt(size_t i) const { return m_values[i]; }
    // Property names, system properties first when asked for.
    std::vector<std::wstring> PropertyNames(bool bSystem) const;

    QualifierSet& Qualifiers() { return m_qualifiers; }
    const QualifierSet& Qualifiers() const { return m_qualifiers; }
    // Instance qualifiers plus class qualifiers that propagate to instances.
    QualifierSet EffectiveQualifiers() const;
    // WBEM_E_NOT_FOUND for an unknown property.
    HRESULT GetPropertyQualifiers(std::wstring_view wsName, QualifierSet& out) const;
    QualifierSet* LocalPropertyQualifiers(std::wstring_view wsName, bool bCreate);
    const std::map<std::wstring, QualifierSet>& AllLocalPropertyQualifiers() const { return m_propertyQualifiers; }
    HRESULT GetPropertyOrigin(std::wstring_view wsName, std::wstring& wsOrigin) const;

    // Empty while a key is null.
    std::wstring RelPath() const;
    std::wstring Path() const;
    // Identity in its key space; empty while a key is null.
    std::wstring IdentityKey() const;
    // Same class and values; qualifiers compared unless bIgnoreQualifiers.
    bool Equals(const CimInstance& other, bool bIgnoreQualifiers) const;

private:
    CimClassPtr m_class;
    std::vector<CimValue> m_values;
    QualifierSet m_qualifiers;
    std::map<std::wstring, QualifierSet> m_propertyQualifiers;  // folded name -> local qualifiers
};

// Identity key of an instance of cls from key values in KeyIndices() order (already coerced).
std::wstring BuildIdentityKey(const CimClass& cls, const std::vector<const CimScalar*>& keyValues);

}  // namespace cimstore
