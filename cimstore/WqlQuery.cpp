#include "cimstore/WqlQuery.h"

#include "cimstore/CimRepository.h"
#include "cimstore/WqlParser.h"

#include <set>

namespace cimstore {

namespace {

HRESULT CheckProperties(const CimClass& cls, const WqlExpr* e)
{
    if (!e)
        return S_OK;
    if (e->kind == WqlExpr::Kind::And || e->kind == WqlExpr::Kind::Or || e->kind == WqlExpr::Kind::Not) {
        const HRESULT hr = CheckProperties(cls, e->left.get());
        return FAILED(hr) ? hr : CheckProperties(cls, e->right.get());
    }
    if (EqualsNoCase(e->property, L"__this") && e->kind == WqlExpr::Kind::Isa)
        return S_OK;
    if (IsSystemPropertyName(e->property)) {
        for (const SystemPropertyRow& row : g_SystemProperties)
            if (EqualsNoCase(row.wszName, e->property))
                return S_OK;
        return Hr(WBEM_E_INVALID_QUERY);
    }
    return cls.FindProperty(e->property) >= 0 ? S_OK : Hr(WBEM_E_INVALID_QUERY);
}

bool Compare(const CimValue& value, CIMTYPE type, WqlOp op, const CimScalar& literal)
{
    if (value.IsNull() || value.IsArray())
        return false;
    CimScalar typedLiteral;
    // Compared as the property's type, as WMI does; a literal that cannot be one never matches.
    if (FAILED(CoerceScalar(literal, type, typedLiteral)))
        return false;
    const int r = CompareScalars(value.Scalar(), typedLiteral, type);
    switch (op) {
    case WqlOp::Eq: return r == 0;
    case WqlOp::Ne: return r != 0;
    case WqlOp::Lt: return r < 0;
    case WqlOp::Gt: return r > 0;
    case WqlOp::Le: return r <= 0;
    case WqlOp::Ge: return r >= 0;
    }
    return false;
}

bool Evaluate(const WqlExpr& e, const CimInstance& instance)
{
    switch (e.kind) {
    case WqlExpr::Kind::And: return Evaluate(*e.left, instance) && Evaluate(*e.right, instance);
    case WqlExpr::Kind::Or: return Evaluate(*e.left, instance) || Evaluate(*e.right, instance);
    case WqlExpr::Kind::Not: return !Evaluate(*e.left, instance);
    case WqlExpr::Kind::Isa:
        if (EqualsNoCase(e.property, L"__this") || EqualsNoCase(e.property, L"__CLASS"))
            return instance.Class().InheritsFrom(std::get<std::wstring>(e.literal));
        return false;
    default: break;
    }
    CimValue value;
    CIMTYPE type = CIM_EMPTY;
    if (FAILED(instance.Get(e.property, value, &type)))
        return false;
    if (e.kind == WqlExpr::Kind::IsNull)
        return value.IsNull();
    if (e.kind == WqlExpr::Kind::IsNotNull)
        return !value.IsNull();
    return Compare(value, type, e.op, e.literal);
}

CimInstance Project(const CimInstance& instance, const std::vector<std::wstring>& properties)
{
    CimInstance out = instance;
    for (const CimProperty& p : instance.Class().Properties()) {
        if (p.key)
            continue;
        bool bSelected = false;
        for (const std::wstring& ws : properties)
            bSelected = bSelected || EqualsNoCase(ws, p.name);
        if (!bSelected)
            out.Put(p.name, CimValue());
    }
    return out;
}

HRESULT Select(const CimNamespace& ns, const WqlQuery& q, std::vector<CimInstance>& out)
{
    const CimClassPtr cls = ns.FindClass(q.className);
    if (!cls)
        return Hr(WBEM_E_INVALID_CLASS);
    for (const std::wstring& ws : q.properties)
        if (!IsSystemPropertyName(ws) && cls->FindProperty(ws) < 0)
            return Hr(WBEM_E_INVALID_QUERY);
    HRESULT hr = CheckProperties(*cls, q.where.get());
    if (FAILED(hr))
        return hr;
    ns.ForEachInstance(*cls, [&](const CimInstancePtr& p) {
        if (!q.where || Evaluate(*q.where, *p))
            out.push_back(q.properties.empty() ? *p : Project(*p, q.properties));
    });
    return S_OK;
}

// Identity of the instance a reference names in this namespace; empty when it names none.
std::wstring ReferenceTarget(const CimNamespace& ns, const CimValue& value)
{
    if (value.IsNull() || value.IsArray())
        return {};
    const std::wstring* pws = std::get_if<std::wstring>(&value.Scalar());
    ObjectPath path;
    if (!pws || FAILED(ParseObjectPath(*pws, path)))
        return {};
    if (!path.ns.empty() && !EqualsNoCase(NormalizeNamespace(path.ns), ns.Name()))
        return {};
    CimClassPtr cls;
    std::wstring wsIdentity;
    if (FAILED(ns.ResolveInstancePath(path, cls, wsIdentity)))
        return {};
    const CimInstancePtr target = ns.FindInstance(wsIdentity);
    return target && target->Class().InheritsFrom(cls->Name()) ? wsIdentity : std::wstring();
}

HRESULT Walk(const CimNamespace& ns, const WqlQuery& q, std::vector<CimInstance>& out)
{
    if (q.classDefsOnly)
        return Hr(WBEM_E_NOT_SUPPORTED);
    ObjectPath sourcePath;
    if (FAILED(ParseObjectPath(q.sourcePath, sourcePath)))
        return Hr(WBEM_E_INVALID_OBJECT_PATH);
    if (!sourcePath.ns.empty() && !EqualsNoCase(NormalizeNamespace(sourcePath.ns), ns.Name()))
        return Hr(WBEM_E_NOT_FOUND);
    CimInstancePtr source;
    HRESULT hr = ns.GetInstance(sourcePath, source);
    if (FAILED(hr))
        return hr == Hr(WBEM_E_INVALID_OBJECT_PATH) ? hr : Hr(WBEM_E_NOT_FOUND);
    const std::wstring wsSource = source->IdentityKey();
    for (const std::wstring* pws : {&q.resultClass, &q.assocClass})
        if (!pws->empty() && !ns.FindClass(*pws))
            return Hr(WBEM_E_INVALID_CLASS);
    const bool bReferences = q.kind == WqlQuery::Kind::References;
    std::set<std::wstring> seen;
    for (const CimClassPtr& cls : ns.Classes()) {
        std::vector<size_t> refs;
        for (size_t i = 0; i < cls->Properties().size(); ++i)
            if (cls->Properties()[i].type == CIM_REFERENCE)
                refs.push_back(i);
        if (refs.empty())
            continue;
        if (!q.assocClass.empty() && !cls->InheritsFrom(q.assocClass))
            continue;
        if (bReferences && !q.resultClass.empty() && !cls->InheritsFrom(q.resultClass))
            continue;
        const QualifierSet& assocQualifiers = cls->Qualifiers();
        if (!q.requiredAssocQualifier.empty() && !assocQualifiers.Find(q.requiredAssocQualifier))
            continue;
        if (bReferences && !q.requiredQualifier.empty() && !assocQualifiers.Find(q.requiredQualifier))
            continue;
        ns.ForEachInstance(*cls, [&](const CimInstancePtr& assoc) {
            std::vector<std::wstring> targets;
            for (size_t i : refs)
                targets.push_back(ReferenceTarget(ns, assoc->ValueAt(i)));
            for (size_t r = 0; r < refs.size(); ++r) {
                if (targets[r] != wsSource)
                    continue;
                if (!q.role.empty() && !EqualsNoCase(q.role, cls->Properties()[refs[r]].name))
                    continue;
                if (bReferences) {
                    if (seen.insert(assoc->IdentityKey()).second)
                        out.push_back(*assoc);
                    continue;
                }
                for (size_t t = 0; t < refs.size(); ++t) {
                    if (t == r || targets[t].empty())
                        continue;
                    if (!q.resultRole.empty() && !EqualsNoCase(q.resultRole, cls->Properties()[refs[t]].name))
                        continue;
                    const CimInstancePtr result = ns.FindInstance(targets[t]);
                    if (!q.resultClass.empty() && !result->Class().InheritsFrom(q.resultClass))
                        continue;
                    if (!q.requiredQualifier.empty() && !result->Class().Qualifiers().Find(q.requiredQualifier))
                        continue;
                    if (seen.insert(targets[t]).second)
                        out.push_back(*result);
                }
            }
        }, false);
    }
    return S_OK;
}

}  // namespace

HRESULT ExecuteWql(const CimNamespace& ns, std::wstring_view wsQuery, std::vector<CimInstance>& out)
{
    WqlQuery q;
    const HRESULT hr = ParseWql(wsQuery, q);
    if (FAILED(hr))
        return hr;
    std::vector<CimInstance> results;
    const HRESULT hrRun = q.kind == WqlQuery::Kind::Select ? Select(ns, q, results) : Walk(ns, q, results);
    if (SUCCEEDED(hrRun))
        out = std::move(results);
    return hrRun;
}

}  // namespace cimstore
