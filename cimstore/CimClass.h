// Qualifiers, property declarations and classes. Classes are immutable once published.
#pragma once

#include "cimstore/CimTypes.h"

#include <memory>
#include <unordered_map>

namespace cimstore {

struct CimQualifier {
    std::wstring name;
    CimValue value;
    CIMTYPE type = CIM_BOOLEAN;
    long flavor = WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS;

    bool operator==(const CimQualifier& other) const;
};

// Flavor of a qualifier given without flavors: that of the standard declarations (Abstract is
// restricted, Key and Association cannot be overridden); others propagate to subclasses.
long DefaultQualifierFlavor(std::wstring_view wsName);

class QualifierSet {
public:
    const CimQualifier* Find(std::wstring_view wsName) const;
    void Set(CimQualifier qualifier);
    bool Remove(std::wstring_view wsName);
    bool IsTrue(std::wstring_view wsName) const;
    const std::vector<CimQualifier>& Items() const { return m_items; }
    bool Empty() const { return m_items.empty(); }
    // Qualifiers that travel along propagateFlag (to instances or subclasses), marked propagated.
    QualifierSet Propagated(long propagateFlag) const;
    // Adds the propagated set under this one: local entries win unless the inherited one forbids it.
    HRESULT MergeInherited(const QualifierSet& inherited);
    bool operator==(const QualifierSet& other) const;

private:
    std::vector<CimQualifier> m_items;
};

struct CimProperty {
    std::wstring name;
    CIMTYPE type = CIM_STRING;
    CimValue defaultValue;
    QualifierSet qualifiers;
    std::wstring refClass;  // class named in "Class ref Name", may be empty
    std::wstring origin;    // class that declared the property first
    bool key = false;
};

class CimClass;
using CimClassPtr = std::shared_ptr<const CimClass>;

struct SystemPropertyRow {
    const wchar_t* wszName;
    CIMTYPE type;
};
// System properties in the order WMI enumerates them.
extern const SystemPropertyRow g_SystemProperties[10];
bool IsSystemPropertyName(std::wstring_view wsName);

class CimClass {
public:
    CimClass(std::wstring wsName, CimClassPtr parent, std::wstring wsNamespace, std::wstring wsServer);

    // Building; the parent's properties and propagated qualifiers are already present.
    QualifierSet& Qualifiers() { return m_qualifiers; }
    // Declares or overrides a property; WBEM_E_ALREADY_EXISTS when declared twice in this class,
    // WBEM_E_TYPE_MISMATCH when an override changes the type.
    HRESULT AddProperty(CimProperty property, bool& bLocalDuplicate);
    // Computes keys after all properties were added.
    void Finish();

    const std::wstring& Name() const { return m_wsName; }
    const std::wstring& Namespace() const { return m_wsNamespace; }
    const std::wstring& Server() const { return m_wsServer; }
    const CimClassPtr& Parent() const { return m_parent; }
    std::wstring SuperclassName() const { return m_parent ? m_parent->Name() : std::wstring(); }
    // Superclass names, nearest first.
    const std::vector<std::wstring>& Derivation() const { return m_derivation; }
    std::wstring Dynasty() const { return m_derivation.empty() ? m_wsName : m_derivation.back(); }
    bool InheritsFrom(std::wstring_view wsName) const;  // true for the class itself too
    const QualifierSet& Qualifiers() const { return m_qualifiers; }
    const std::vector<CimProperty>& Properties() const { return m_properties; }
    // Index of a property, or -1.
    int FindProperty(std::wstring_view wsName) const;
    // Key properties, ordered by name.
    const std::vector<size_t>& KeyIndices() const { return m_keys; }
    // Topmost class sharing this class's keys: instances of one key root share one key space.
    const std::wstring& KeyRoot() const { return m_wsKeyRoot; }
    bool IsAssociation() const { return m_qualifiers.IsTrue(L"Association"); }
    bool IsAbstract() const { return m_qualifiers.IsTrue(L"Abstract"); }
    // Local declarations only (for MOF output): indices of properties declared or overridden here.
    const std::vector<size_t>& LocalProperties() const { return m_local; }

    // __CLASS etc. as a class object reports them (__GENUS 1).
    HRESULT GetSystemProperty(std::wstring_view wsName, CimValue& value, CIMTYPE& type) const;
    std::wstring ClassPath() const;
    // Same parent, qualifiers and properties: declaring it again changes nothing.
    bool SameDefinition(const CimClass& other) const;

private:
    std::wstring m_wsName;
    CimClassPtr m_parent;
    std::wstring m_wsNamespace;
    std::wstring m_wsServer;
    std::vector<std::wstring> m_derivation;
    QualifierSet m_qualifiers;
    std::vector<CimProperty> m_properties;
    std::unordered_map<std::wstring, size_t> m_index;
    std::vector<size_t> m_keys;
    std::vector<size_t> m_local;
    std::wstring m_wsKeyRoot;
};

}  // namespace cimstore
