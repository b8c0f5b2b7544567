#include "cimstore/MofWriter.h"

#include <cstdio>

namespace cimstore {

std::wstring MofString(std::wstring_view text)
{
    std::wstring out;
    out.reserve(text.size() + 2);
    out.push_back(L'"');
    for (wchar_t ch : text) {
        switch (ch) {
        case L'"': out += L"\\\""; break;
        case L'\\': out += L"\\\\"; break;
        case L'\n': out += L"\\n"; break;
        case L'\t': out += L"\\t"; break;
        case L'\r': out += L"\\r"; break;
        case L'\b': out += L"\\b"; break;
        case L'\f': out += L"\\f"; break;
        default:
            if (ch < 0x20 || ch == 0x7F) {
                wchar_t buf[8];
                swprintf(buf, 8, L"\\x%04X", static_cast<unsigned>(ch));
                out += buf;
            } else {
                out.push_back(ch);
            }
        }
    }
    out.push_back(L'"');
    return out;
}

namespace {

std::wstring ScalarMof(const CimScalar& value, CIMTYPE type)
{
    if (const std::wstring* pws = std::get_if<std::wstring>(&value))
        return MofString(*pws);
    return ScalarText(value, type);
}

// Flavor words that turn the qualifier's default flavor into this one.
std::wstring FlavorText(const CimQualifier& q)
{
    const long lDefault = DefaultQualifierFlavor(q.name);
    std::wstring out;
    auto bit = [&](long flag, const wchar_t* wszOn, const wchar_t* wszOff) {
        if ((q.flavor & flag) != (lDefault & flag))
            out += (out.empty() ? L" : " : L" ") + std::wstring((q.flavor & flag) ? wszOn : wszOff);
    };
    bit(WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE, L"ToInstance", L"NotToInstance");
    bit(WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS, L"ToSubclass", L"NotToSubclass");
    bit(WBEM_FLAVOR_NOT_OVERRIDABLE, L"DisableOverride", L"EnableOverride");
    bit(WBEM_FLAVOR_AMENDED, L"Amended", L"Amended");
    return out;
}

}  // namespace

std::wstring MofValue(const CimValue& value, CIMTYPE type)
{
    if (value.IsNull())
        return L"NULL";
    if (!value.IsArray())
        return ScalarMof(value.Scalar(), type);
    std::wstring out = L"{";
    for (size_t i = 0; i < value.Items().size(); ++i) {
        if (i)
            out += L", ";
        out += ScalarMof(value.Items()[i], type);
    }
    return out + L"}";
}

std::wstring MofQualifiers(const QualifierSet& qualifiers)
{
    std::wstring out;
    for (const CimQualifier& q : qualifiers.Items()) {
        if ((q.flavor & WBEM_FLAVOR_MASK_ORIGIN) != WBEM_FLAVOR_ORIGIN_LOCAL)
            continue;
        out += out.empty() ? L"[" : L", ";
        out += q.name;
        const bool bPlainTrue = q.type == CIM_BOOLEAN && !q.value.IsNull() && std::get<bool>(q.value.Scalar());
        if (!bPlainTrue)
            out += q.value.IsArray() ? MofValue(q.value, q.type) : L"(" + MofValue(q.value, q.type) + L")";
        out += FlavorText(q);
    }
    return out.empty() ? out : out + L"]";
}

void WriteClassMof(const CimClass& cls, std::wstring& out)
{
    const std::wstring qualifiers = MofQualifiers(cls.Qualifiers());
    if (!qualifiers.empty())
        out += qualifiers + L"\n";
    out += L"class " + cls.Name();
    if (cls.Parent())
        out += L" : " + cls.Parent()->Name();
    out += L"\n{\n";
    for (size_t i : cls.LocalProperties()) {
        const CimProperty& p = cls.Properties()[i];
        out += L"\t";
        const std::wstring propertyQualifiers = MofQualifiers(p.qualifiers);
        if (!propertyQualifiers.empty())
            out += propertyQualifiers + L" ";
        const CIMTYPE base = p.type & ~CIM_FLAG_ARRAY;
        if (base == CIM_REFERENCE)
            out += (p.refClass.empty() ? std::wstring(L"object") : p.refClass) + L" ref " + p.name;
        else
            out += CimTypeName(base) + L" " + p.name;
        if (p.type & CIM_FLAG_ARRAY)
            out += L"[]";
        if (!p.defaultValue.IsNull())
            out += L" = " + MofValue(p.defaultValue, p.type);
        out += L";\n";
    }
    out += L"};\n\n";
}

void WriteInstanceMof(const CimInstance& instance, std::wstring& out)
{
    const CimClass& cls = instance.Class();
    const std::wstring qualifiers = MofQualifiers(instance.Qualifiers());
    if (!qualifiers.empty())
        out += qualifiers + L"\n";
    out += L"instance of " + cls.Name() + L"\n{\n";
    for (size_t i = 0; i < cls.Properties().size(); ++i) {
        const CimProperty& p = cls.Properties()[i];
        const CimValue& v = instance.ValueAt(i);
        const auto& local = instance.AllLocalPropertyQualifiers();
        const auto it = local.find(Fold(p.name));
        const bool bQualified = it != local.end() && !it->second.Empty();
        if (v == p.defaultValue && !bQualified)
            continue;
        out += L"\t";
        if (bQualified)
            out += MofQualifiers(it->second) + L" ";
        out += p.name + L" = " + MofValue(v, p.type) + L";\n";
    }
    out += L"};\n\n";
}

}  // namespace cimstore
