#include "cimstore/ObjectPath.h"

#include <algorithm>
#include <cwctype>

namespace cimstore {

namespace {

bool IsNameChar(wchar_t ch) { return ch == L'_' || iswalnum(ch) || ch >= 0x80; }

class PathReader {
public:
    explicit PathReader(std::wstring_view text) : m_text(text) {}

    bool AtEnd() const { return m_pos >= m_text.size(); }
    wchar_t Peek() const { return AtEnd() ? L'\0' : m_text[m_pos]; }
    bool Accept(wchar_t ch)
    {
        if (Peek() != ch)
            return false;
        ++m_pos;
        return true;
    }
    std::wstring Name()
    {
        const size_t start = m_pos;
        while (!AtEnd() && IsNameChar(m_text[m_pos]))
            ++m_pos;
        return std::wstring(m_text.substr(start, m_pos - start));
    }
    bool Value(CimScalar& out)
    {
        const wchar_t quote = Peek();
        if (quote == L'"' || quote == L'\'') {
            ++m_pos;
            std::wstring ws;
            while (!AtEnd() && m_text[m_pos] != quote) {
                if (m_text[m_pos] == L'\\' && m_pos + 1 < m_text.size())
                    ++m_pos;
                ws.push_back(m_text[m_pos++]);
            }
            if (!Accept(quote))
                return false;
            out = std::move(ws);
            return true;
        }
        const size_t start = m_pos;
        while (!AtEnd() && m_text[m_pos] != L',')
            ++m_pos;
        const std::wstring_view raw = m_text.substr(start, m_pos - start);
        if (EqualsNoCase(raw, L"TRUE") || EqualsNoCase(raw, L"FALSE")) {
            out = EqualsNoCase(raw, L"TRUE");
            return true;
        }
        CimScalar parsed;
        const CimScalar text{std::wstring(raw)};
        if (!raw.empty() && raw[0] == L'-' && SUCCEEDED(CoerceScalar(text, CIM_SINT64, parsed))) {
            out = parsed;
            return true;
        }
        if (SUCCEEDED(CoerceScalar(text, CIM_UINT64, parsed)) || SUCCEEDED(CoerceScalar(text, CIM_REAL64, parsed))) {
            out = parsed;
            return true;
        }
        return false;
    }

private:
    std::wstring_view m_text;
    size_t m_pos = 0;
};

// Position of the namespace separator ':' before any quoted part, or npos.
size_t FindNamespaceColon(std::wstring_view text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == L'"' || text[i] == L'\'' || text[i] == L'=')
            return std::wstring_view::npos;
        if (text[i] == L':')
            return i;
    }
    return std::wstring_view::npos;
}

}  // namespace

HRESULT ParseObjectPath(std::wstring_view text, ObjectPath& out)
{
    out = ObjectPath();
    const size_t colon = FindNamespaceColon(text);
    if (colon != std::wstring_view::npos) {
        std::wstring prefix(text.substr(0, colon));
        std::replace(prefix.begin(), prefix.end(), L'/', L'\\');
        if (prefix.rfind(L"\\\\", 0) == 0) {
            const size_t slash = prefix.find(L'\\', 2);
            if (slash == std::wstring::npos || slash == 2)
                return Hr(WBEM_E_INVALID_OBJECT_PATH);
            out.server = prefix.substr(2, slash - 2);
            out.ns = prefix.substr(slash + 1);
        } else {
            out.ns = prefix;
        }
        if (out.ns.empty())
            return Hr(WBEM_E_INVALID_OBJECT_PATH);
        text.remove_prefix(colon + 1);
    }
    PathReader reader(text);
    out.className = reader.Name();
    if (out.className.empty())
        return Hr(WBEM_E_INVALID_OBJECT_PATH);
    if (reader.Accept(L'=')) {
        if (reader.Accept(L'@')) {
            out.singleton = true;
        } else {
            KeyBinding binding;
            if (!reader.Value(binding.value))
                return Hr(WBEM_E_INVALID_OBJECT_PATH);
            out.keys.push_back(std::move(binding));
        }
    } else if (reader.Accept(L'.')) {
        do {
            KeyBinding binding;
            binding.name = reader.Name();
            if (binding.name.empty() || !reader.Accept(L'=') || !reader.Value(binding.value))
                return Hr(WBEM_E_INVALID_OBJECT_PATH);
            out.keys.push_back(std::move(binding));
        } while (reader.Accept(L','));
    }
    return reader.AtEnd() ? S_OK : Hr(WBEM_E_INVALID_OBJECT_PATH);
}

std::wstring QuoteString(std::wstring_view text)
{
    std::wstring out;
    out.reserve(text.size() + 2);
    out.push_back(L'"');
    for (wchar_t ch : text) {
        if (ch == L'"' || ch == L'\\')
            out.push_back(L'\\');
        out.push_back(ch);
    }
    out.push_back(L'"');
    return out;
}

std::wstring FormatKeyValue(const CimScalar& value, CIMTYPE type)
{
    if (const std::wstring* pws = std::get_if<std::wstring>(&value)) {
        if (IsTextType(type) || type == CIM_EMPTY)
            return QuoteString(*pws);
    }
    return ScalarText(value, type);
}

std::wstring CanonicalReference(std::wstring_view text)
{
    ObjectPath path;
    if (FAILED(ParseObjectPath(text, path)))
        return Fold(text);
    std::sort(path.keys.begin(), path.keys.end(),
              [](const KeyBinding& a, const KeyBinding& b) { return LessNoCase(a.name, b.name); });
    std::wstring out = path.ns.empty() ? std::wstring() : Fold(path.ns) + L":";
    out += Fold(path.className);
    if (path.singleton)
        out += L"=@";
    for (size_t i = 0; i < path.keys.size(); ++i) {
        out += i == 0 ? L"." : L",";
        out += Fold(path.keys[i].name) + L"=";
        const CimScalar& v = path.keys[i].value;
        out += std::holds_alternative<std::wstring>(v) ? QuoteString(Fold(std::get<std::wstring>(v)))
                                                        : ScalarText(v, CIM_EMPTY);
    }
    return out;
}

}  // namespace cimstore
