#include "NotifyctlOutput.h"

#include "access/ComHolders.h"
#include "core/CNotificationHandler.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

using Property = std::pair<std::wstring, std::string>;
using ValueText = std::string (*)(const VARIANT&);

// Calls fn(index from 0, element) for each element of an array value; false when the array
// cannot be read.
template <class Fn>
bool ForEachElement(const VARIANT& value, Fn&& fn)
{
    SAFEARRAY* psa = V_ARRAY(&value);
    LONG lLower = 0;
    LONG lUpper = -1;
    if (!psa || FAILED(SafeArrayGetLBound(psa, 1, &lLower)) || FAILED(SafeArrayGetUBound(psa, 1, &lUpper)))
        return false;
    for (LONG i = lLower; i <= lUpper; ++i) {
        CCVariant element;
        V_VT(element.Ptr()) = static_cast<VARTYPE>(V_VT(&value) & ~VT_ARRAY);
        if (V_VT(element.Ptr()) == VT_VARIANT) {
            SafeArrayGetElement(psa, &i, element.GetAddress());
        } else if (FAILED(SafeArrayGetElement(psa, &i, &V_UI1(element.Ptr())))) {
            V_VT(element.Ptr()) = VT_NULL;
        }
        fn(i - lLower, element.Get());
    }
    return true;
}

// A value as a table cell: text as it is (an object path reads as Class.Key="value"), NULL
// empty, array elements joined by commas.
std::string CellText(const VARIANT& value)
{
    if (V_VT(&value) & VT_ARRAY) {
        std::string s;
        ForEachElement(value, [&s](LONG i, const VARIANT& element) { s += (i ? ", " : "") + CellText(element); });
        return s;
    }
    switch (V_VT(&value)) {
    case VT_BSTR: return Utf8(V_BSTR(&value) ? V_BSTR(&value) : L"");
    case VT_NULL:
    case VT_EMPTY: return std::string();
    default: return JsonValue(value);  // numbers and booleans read the same
    }
}

std::wstring Text(IWbemClassObject* pObject, const wchar_t* wszName)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszName, 0, value.GetAddress(), nullptr, nullptr)) || value.Type() != VT_BSTR)
        return L"";
    return V_BSTR(&value.Get());
}

// Non-system properties in the object's order, each value rendered by text.
std::vector<Property> Properties(IWbemClassObject* pObject, ValueText text)
{
    std::vector<Property> properties;
    if (FAILED(pObject->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY)))
        return properties;
    for (;;) {
        CCBstr bstrName;
        CCVariant value;
        if (pObject->Next(0, bstrName.GetAddress(), value.GetAddress(), nullptr, nullptr) != WBEM_S_NO_ERROR)
            break;
        properties.emplace_back(bstrName.Get() ? bstrName.Get() : L"", text(value.Get()));
    }
    pObject->EndEnumeration();
    return properties;
}

std::vector<Property> Qualifiers(IWbemClassObject* pObject)
{
    std::vector<Property> qualifiers;
    Microsoft::WRL::ComPtr<IWbemQualifierSet> pSet;
    if (FAILED(pObject->GetQualifierSet(pSet.GetAddressOf())) || FAILED(pSet->BeginEnumeration(0)))
        return qualifiers;
    for (;;) {
        CCBstr bstrName;
        CCVariant value;
        if (pSet->Next(0, bstrName.GetAddress(), value.GetAddress(), nullptr) != WBEM_S_NO_ERROR)
            break;
        qualifiers.emplace_back(bstrName.Get() ? bstrName.Get() : L"", JsonValue(value.Get()));
    }
    pSet->EndEnumeration();
    return qualifiers;
}

std::string JsonObject(const std::vector<Property>& members)
{
    std::string s = "{";
    for (size_t i = 0; i < members.size(); ++i)
        s += (i ? ", " : "") + JsonString(members[i].first) + ": " + members[i].second;
    return s + "}";
}

std::string KindName(ULONG ulId)
{
    for (const auto& entry : CNotificationHandler::KindTable())
        if (entry.ulNotfyId == ulId)
            return std::string(entry.szClassName) + (entry.pfnCreate ? "" : " (not in this build)");
    return "(unknown id)";
}

std::string Heading(const RequestResult& result)
{
    std::string s = "id " + std::to_string(result.ulId) + "  " + KindName(result.ulId) + "  hr " + HexHr(result.hr) +
                    "  returnValue " + std::to_string(result.ulReturnValue);
    if (result.bHasInstances && SUCCEEDED(result.hr))
        s += "  " + std::to_string(result.instances.size()) + " instance(s)";
    if (result.bCycle) {
        s += "  stored " + std::to_string(result.stored.size());
        if (FAILED(result.hrStore))
            s += " (put failed " + HexHr(result.hrStore) + ")";
        if (result.bDeleteRan)
            s += "  delete hr " + HexHr(result.hrDelete) + " returnValue " + std::to_string(result.ulDeleteReturnValue);
    }
    return s;
}

std::string FormatTable(const std::vector<RequestResult>& results)
{
    static const wchar_t* const kColumns[] = {L"DeviceId", L"EventType", L"EventStatus", L"EventTextId", L"Object"};
    std::string out;
    for (const RequestResult& result : results) {
        out += Heading(result) + "\n";
        if (result.instances.empty())
            continue;
        std::vector<std::vector<std::string>> rows = {{"Class", "DeviceId", "Type", "Status", "TextId", "NoPut", "Object"}};
        for (const auto& pInstance : result.instances) {
            const std::vector<Property> properties = Properties(pInstance.Get(), CellText);
            std::vector<std::string> row = {Utf8(Text(pInstance.Get(), L"__CLASS"))};
            for (const wchar_t* wszColumn : kColumns) {
                std::string sCell;
                for (const Property& property : properties)
                    if (_wcsicmp(property.first.c_str(), wszColumn) == 0)
                        sCell = property.second;
                row.push_back(sCell);
            }
            row.insert(row.begin() + 5, HasNoPut(pInstance.Get()) ? "yes" : "-");
            rows.push_back(std::move(row));
        }
        std::vector<size_t> widths(rows[0].size(), 0);
        for (const auto& row : rows)
            for (size_t i = 0; i < row.size(); ++i)
                widths[i] = std::max(widths[i], row[i].size());
        for (const auto& row : rows) {
            std::string sLine = "  ";
            for (size_t i = 0; i < row.size(); ++i)
                sLine += row[i] + (i + 1 < row.size() ? std::string(widths[i] - row[i].size() + 2, ' ') : "");
            while (!sLine.empty() && sLine.back() == ' ')
                sLine.pop_back();
            out += sLine + "\n";
        }
    }
    return out;
}

std::string FormatMof(const std::vector<RequestResult>& results)
{
    std::string out;
    for (const RequestResult& result : results) {
        out += "// " + Heading(result) + "\n";
        for (const auto& pInstance : result.instances) {
            CCBstr bstrText;
            if (SUCCEEDED(pInstance->GetObjectText(0, bstrText.GetAddress())) && bstrText)
                out += Utf8(bstrText.Get()) + "\n";
        }
    }
    return out;
}

std::string FormatJson(const std::vector<RequestResult>& results)
{
    std::string out = "[\n";
    for (size_t iResult = 0; iResult < results.size(); ++iResult) {
        const RequestResult& result = results[iResult];
        out += "  {\"id\": " + std::to_string(result.ulId) + ", \"hr\": \"" + HexHr(result.hr) +
               "\", \"returnValue\": " + std::to_string(result.ulReturnValue);
        if (result.bHasInstances) {
            out += ", \"instances\": [";
            for (size_t i = 0; i < result.instances.size(); ++i) {
                IWbemClassObject* pInstance = result.instances[i].Get();
                out += std::string(i ? "," : "") + "\n    {\"class\": " + JsonString(Text(pInstance, L"__CLASS")) +
                       ", \"relpath\": " + JsonString(Text(pInstance, L"__RELPATH")) +
                       ", \"qualifiers\": " + JsonObject(Qualifiers(pInstance)) +
                       ", \"properties\": " + JsonObject(Properties(pInstance, JsonValue)) + "}";
            }
            out += result.instances.empty() ? "]" : "\n  ]";
        }
        if (result.bCycle) {
            out += ", \"stored\": [";
            for (size_t i = 0; i < result.stored.size(); ++i)
                out += (i ? ", " : "") + JsonString(result.stored[i]);
            out += "]";
            if (result.bDeleteRan)
                out += ", \"delete\": {\"hr\": \"" + HexHr(result.hrDelete) +
                       "\", \"returnValue\": " + std::to_string(result.ulDeleteReturnValue) + "}";
        }
        out += std::string("}") + (iResult + 1 < results.size() ? "," : "") + "\n";
    }
    return out + "]\n";
}

}  // namespace

std::string Utf8(const std::wstring& ws)
{
    if (ws.empty())
        return std::string();
    const int cb = WideCharToMultiByte(CP_UTF8, 0, ws.data(), static_cast<int>(ws.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(cb > 0 ? cb : 0), '\0');
    if (cb > 0)
        WideCharToMultiByte(CP_UTF8, 0, ws.data(), static_cast<int>(ws.size()), s.data(), cb, nullptr, nullptr);
    return s;
}

std::string HexHr(HRESULT hr)
{
    char sz[16];
    snprintf(sz, sizeof(sz), "0x%08X", static_cast<unsigned>(hr));
    return sz;
}

std::string JsonString(const std::wstring& ws)
{
    std::string s = "\"";
    for (unsigned char ch : Utf8(ws)) {
        switch (ch) {
        case '"': s += "\\\""; break;
        case '\\': s += "\\\\"; break;
        case '\n': s += "\\n"; break;
        case '\r': s += "\\r"; break;
        case '\t': s += "\\t"; break;
        default:
            if (ch < 0x20) {
                char sz[8];
                snprintf(sz, sizeof(sz), "\\u%04x", ch);
                s += sz;
            } else {
                s += static_cast<char>(ch);
            }
        }
    }
    return s + "\"";
}

std::string JsonValue(const VARIANT& value)
{
    if (V_VT(&value) & VT_ARRAY) {
        std::string s = "[";
        const bool bRead =
            ForEachElement(value, [&s](LONG i, const VARIANT& element) { s += (i ? ", " : "") + JsonValue(element); });
        return bRead ? s + "]" : "null";
    }
    switch (V_VT(&value)) {
    case VT_I1: return std::to_string(V_I1(&value));
    case VT_I2: return std::to_string(V_I2(&value));
    case VT_I4: return std::to_string(V_I4(&value));
    case VT_I8: return std::to_string(V_I8(&value));
    case VT_UI1: return std::to_string(V_UI1(&value));
    case VT_UI2: return std::to_string(V_UI2(&value));
    case VT_UI4: return std::to_string(V_UI4(&value));
    case VT_UI8: return std::to_string(V_UI8(&value));
    case VT_R4:
    case VT_R8: {
        char sz[40];
        snprintf(sz, sizeof(sz), "%.17g", V_VT(&value) == VT_R4 ? V_R4(&value) : V_R8(&value));
        return sz;
    }
    case VT_BOOL: return V_BOOL(&value) ? "true" : "false";
    case VT_BSTR: return JsonString(V_BSTR(&value) ? V_BSTR(&value) : L"");
    default: return "null";
    }
}

bool HasNoPut(IWbemClassObject* pObject)
{
    Microsoft::WRL::ComPtr<IWbemQualifierSet> pSet;
    if (FAILED(pObject->GetQualifierSet(pSet.GetAddressOf())))
        return false;
    CCVariant value;
    return SUCCEEDED(pSet->Get(L"NoPut", 0, value.GetAddress(), nullptr)) && value.Type() == VT_BOOL &&
           V_BOOL(&value.Get()) != VARIANT_FALSE;
}

std::string FormatResults(const std::vector<RequestResult>& results, OutputFormat format)
{
    switch (format) {
    case OutputFormat::Mof: return FormatMof(results);
    case OutputFormat::Json: return FormatJson(results);
    default: return FormatTable(results);
    }
}
