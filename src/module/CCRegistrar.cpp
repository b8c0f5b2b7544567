#include "module/CCRegistrar.h"

#include <cwctype>
#include <memory>
#include <new>
#include <vector>

namespace {

constexpr HRESULT kScriptError = HRESULT_FROM_WIN32(ERROR_BAD_FORMAT);

enum class Flag { None, NoRemove, ForceRemove, Delete };

struct Entry {
    bool bValue = false;  // a "val" entry, else a key
    Flag flag = Flag::None;
    std::wstring wsName;
    bool bHasData = false;
    wchar_t chType = 0;
    std::wstring wsData;
    std::vector<Entry> children;
};

struct Root {
    HKEY hKey = nullptr;
    std::vector<Entry> keys;
};

struct ScriptError {
    std::wstring wsMessage;
};

struct KeyCloser {
    void operator()(HKEY hKey) const { RegCloseKey(hKey); }
};
using KeyHolder = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

bool EqualsNoCase(const std::wstring& a, const wchar_t* b)
{
    return _wcsicmp(a.c_str(), b) == 0;
}

class Parser {
public:
    explicit Parser(const std::wstring& wsText) : m_wsText(wsText) {}

    std::vector<Root> ParseScript()
    {
        std::vector<Root> roots;
        for (;;) {
            Token token = Next();
            if (token.kind == Token::End)
                return roots;
            if (token.kind != Token::Word)
                Fail(L"root key expected");
            Root root;
            root.hKey = RootKey(token.wsText);
            Expect(L'{');
            root.keys = ParseEntries(false);
            roots.push_back(std::move(root));
        }
    }

private:
    struct Token {
        enum Kind { End, Word, Quoted, Open, Close, Equals } kind = End;
        std::wstring wsText;
    };

    [[noreturn]] void Fail(const std::wstring& wsWhat) const
    {
        throw ScriptError{L"line " + std::to_wstring(m_iLine) + L": " + wsWhat};
    }

    Token Next()
    {
        while (m_pos < m_wsText.size() && iswspace(m_wsText[m_pos])) {
            if (m_wsText[m_pos] == L'\n')
                ++m_iLine;
            ++m_pos;
        }
        Token token;
        if (m_pos >= m_wsText.size())
            return token;
        const wchar_t ch = m_wsText[m_pos];
        if (ch == L'{' || ch == L'}' || ch == L'=') {
            ++m_pos;
            token.kind = ch == L'{' ? Token::Open : ch == L'}' ? Token::Close : Token::Equals;
            return token;
        }
        if (ch == L'\'') {
            token.kind = Token::Quoted;
            for (++m_pos;; ++m_pos) {
                if (m_pos >= m_wsText.size())
                    Fail(L"unterminated quoted text");
                if (m_wsText[m_pos] == L'\'') {
                    if (m_pos + 1 < m_wsText.size() && m_wsText[m_pos + 1] == L'\'') {
                        token.wsText += L'\'';
                        ++m_pos;
                        continue;
                    }
                    ++m_pos;
                    return token;
                }
                token.wsText += m_wsText[m_pos];
            }
        }
        token.kind = Token::Word;
        while (m_pos < m_wsText.size()) {
            const wchar_t c = m_wsText[m_pos];
            if (iswspace(c) || c == L'{' || c == L'}' || c == L'=' || c == L'\'')
                break;
            token.wsText += c;
            ++m_pos;
        }
        return token;
    }

    Token Peek()
    {
        const size_t pos = m_pos;
        const int iLine = m_iLine;
        Token token = Next();
        m_pos = pos;
        m_iLine = iLine;
        return token;
    }

    void Expect(wchar_t ch)
    {
        const Token token = Next();
        const Token::Kind kind = ch == L'{' ? Token::Open : ch == L'}' ? Token::Close : Token::Equals;
        if (token.kind != kind)
            Fail(std::wstring(L"'") + ch + L"' expected");
    }

    std::wstring Name()
    {
        Token token = Next();
        if (token.kind != Token::Word && token.kind != Token::Quoted)
            Fail(L"key or value name expected");
        if (token.wsText.empty())
            Fail(L"empty name");
        return token.wsText;
    }

    HKEY RootKey(const std::wstring& wsName) const
    {
        if (EqualsNoCase(wsName, L"HKCR") || EqualsNoCase(wsName, L"HKEY_CLASSES_ROOT"))
            return HKEY_CLASSES_ROOT;
        if (EqualsNoCase(wsName, L"HKCU") || EqualsNoCase(wsName, L"HKEY_CURRENT_USER"))
            return HKEY_CURRENT_USER;
        if (EqualsNoCase(wsName, L"HKLM") || EqualsNoCase(wsName, L"HKEY_LOCAL_MACHINE"))
            return HKEY_LOCAL_MACHINE;
        if (EqualsNoCase(wsName, L"HKU") || EqualsNoCase(wsName, L"HKEY_USERS"))
            return HKEY_USERS;
        Fail(L"unknown root key " + wsName);
    }

    // "= s 'text'" or "= d 'number'".
    void Data(Entry& entry)
    {
        Token type = Next();
        if (type.kind != Token::Word || type.wsText.size() != 1)
            Fail(L"value type expected");
        entry.chType = static_cast<wchar_t>(towlower(type.wsText[0]));
        if (entry.chType != L's' && entry.chType != L'd')
            Fail(L"unsupported value type " + type.wsText);
        Token data = Next();
        if (data.kind != Token::Quoted && data.kind != Token::Word)
            Fail(L"value expected");
        if (entry.chType == L'd') {
            wchar_t* pEnd = nullptr;
            wcstoul(data.wsText.c_str(), &pEnd, 0);
            if (data.wsText.empty() || *pEnd != L'\0')
                Fail(L"not a number: " + data.wsText);
        }
        entry.bHasData = true;
        entry.wsData = data.wsText;
    }

    // Entries up to the closing brace; bInKey allows "val" entries.
    std::vector<Entry> ParseEntries(bool bInKey)
    {
        std::vector<Entry> entries;
        for (;;) {
            Token token = Peek();
            if (token.kind == Token::End)
                Fail(L"'}' expected");
            if (token.kind == Token::Close) {
                Next();
                return entries;
            }
            Entry entry;
            if (token.kind == Token::Word && EqualsNoCase(token.wsText, L"val")) {
                if (!bInKey)
                    Fail(L"value outside a key");
                Next();
                entry.bValue = true;
                entry.wsName = Name();
                Expect(L'=');
                Data(entry);
                entries.push_back(std::move(entry));
                continue;
            }
            if (token.kind == Token::Word) {
                if (EqualsNoCase(token.wsText, L"NoRemove"))
                    entry.flag = Flag::NoRemove;
                else if (EqualsNoCase(token.wsText, L"ForceRemove"))
                    entry.flag = Flag::ForceRemove;
                else if (EqualsNoCase(token.wsText, L"Delete"))
                    entry.flag = Flag::Delete;
                if (entry.flag != Flag::None)
                    Next();
            }
            entry.wsName = Name();
            if (Peek().kind == Token::Equals) {
                Next();
                Data(entry);
            }
            if (Peek().kind == Token::Open) {
                Next();
                entry.children = ParseEntries(true);
            }
            entries.push_back(std::move(entry));
        }
    }

    const std::wstring& m_wsText;
    size_t m_pos = 0;
    int m_iLine = 1;
};

LSTATUS SetData(HKEY hKey, const wchar_t* wszName, const Entry& entry)
{
    if (entry.chType == L'd') {
        const DWORD dwValue = static_cast<DWORD>(wcstoul(entry.wsData.c_str(), nullptr, 0));
        return RegSetValueExW(hKey, wszName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue), sizeof(dwValue));
    }
    return RegSetValueExW(hKey, wszName, 0, REG_SZ, reinterpret_cast<const BYTE*>(entry.wsData.c_str()),
                          static_cast<DWORD>((entry.wsData.size() + 1) * sizeof(wchar_t)));
}

bool HasNoRemoveInside(const Entry& entry)
{
    for (const Entry& child : entry.children)
        if (!child.bValue && (child.flag == Flag::NoRemove || HasNoRemoveInside(child)))
            return true;
    return false;
}

LSTATUS DeleteTree(HKEY hParent, const std::wstring& wsName)
{
    const LSTATUS status = RegDeleteTreeW(hParent, wsName.c_str());
    return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

LSTATUS RegisterEntry(HKEY hParent, const Entry& entry)
{
    if (entry.flag == Flag::Delete)
        return DeleteTree(hParent, entry.wsName);
    if (entry.flag == Flag::ForceRemove) {
        const LSTATUS status = DeleteTree(hParent, entry.wsName);
        if (status != ERROR_SUCCESS)
            return status;
    }
    HKEY hRaw = nullptr;
    LSTATUS status = RegCreateKeyExW(hParent, entry.wsName.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_ALL_ACCESS, nullptr, &hRaw, nullptr);
    if (status != ERROR_SUCCESS)
        return status;
    KeyHolder hKey(hRaw);
    if (entry.bHasData && (status = SetData(hKey.get(), nullptr, entry)) != ERROR_SUCCESS)
        return status;
    for (const Entry& child : entry.children) {
        status = child.bValue ? SetData(hKey.get(), child.wsName.c_str(), child) : RegisterEntry(hKey.get(), child);
        if (status != ERROR_SUCCESS)
            return status;
    }
    return ERROR_SUCCESS;
}

LSTATUS UnregisterEntry(HKEY hParent, const Entry& entry)
{
    if (entry.flag == Flag::Delete)
        return ERROR_SUCCESS;
    if (entry.flag != Flag::NoRemove && !HasNoRemoveInside(entry))
        return DeleteTree(hParent, entry.wsName);
    HKEY hRaw = nullptr;
    LSTATUS status = RegOpenKeyExW(hParent, entry.wsName.c_str(), 0, KEY_ALL_ACCESS, &hRaw);
    if (status == ERROR_FILE_NOT_FOUND)
        return ERROR_SUCCESS;
    if (status != ERROR_SUCCESS)
        return status;
    KeyHolder hKey(hRaw);
    for (const Entry& child : entry.children) {
        if (child.bValue) {
            status = RegDeleteValueW(hKey.get(), child.wsName.c_str());
            if (status == ERROR_FILE_NOT_FOUND)
                status = ERROR_SUCCESS;
        } else {
            status = UnregisterEntry(hKey.get(), child);
        }
        if (status != ERROR_SUCCESS)
            return status;
    }
    return ERROR_SUCCESS;
}

}  // namespace

void CCRegistrar::AddReplacement(const std::wstring& wsName, const std::wstring& wsValue)
{
    m_replacements[wsName] = wsValue;
}

void CCRegistrar::MapRootKey(HKEY hScriptRoot, HKEY hTarget)
{
    m_rootMap[hScriptRoot] = hTarget;
}

HRESULT CCRegistrar::RegisterScript(const std::wstring& wsScript)
{
    return Run(wsScript, true);
}

HRESULT CCRegistrar::UnregisterScript(const std::wstring& wsScript)
{
    return Run(wsScript, false);
}

HRESULT CCRegistrar::RunResource(HMODULE hModule, UINT uId, const wchar_t* wszType, bool bRegister)
{
    try {
        HRSRC hResource = FindResourceW(hModule, MAKEINTRESOURCEW(uId), wszType);
        HGLOBAL hData = hResource ? LoadResource(hModule, hResource) : nullptr;
        const char* pText = hData ? static_cast<const char*>(LockResource(hData)) : nullptr;
        if (!pText) {
            m_wsError = L"registry script resource not found";
            return HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND);
        }
        const int cbText = static_cast<int>(SizeofResource(hModule, hResource));
        const int cchText = MultiByteToWideChar(CP_ACP, 0, pText, cbText, nullptr, 0);
        std::wstring wsScript(static_cast<size_t>(cchText), L'\0');
        MultiByteToWideChar(CP_ACP, 0, pText, cbText, wsScript.data(), cchText);
        return Run(wsScript, bRegister);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

HRESULT CCRegistrar::Run(const std::wstring& wsScript, bool bRegister)
{
    m_wsError.clear();
    try {
        std::wstring wsText;
        wsText.reserve(wsScript.size());
        for (size_t pos = 0; pos < wsScript.size(); ++pos) {
            if (wsScript[pos] != L'%') {
                wsText += wsScript[pos];
                continue;
            }
            const size_t end = wsScript.find(L'%', pos + 1);
            if (end == std::wstring::npos)
                throw ScriptError{L"unterminated %"};
            const std::wstring wsName = wsScript.substr(pos + 1, end - pos - 1);
            if (wsName.empty()) {
                wsText += L'%';
            } else {
                const auto found = m_replacements.find(wsName);
                if (found == m_replacements.end())
                    throw ScriptError{L"no replacement for %" + wsName + L"%"};
                wsText += found->second;
            }
            pos = end;
        }

        Parser parser(wsText);
        const std::vector<Root> roots = parser.ParseScript();
        for (const Root& root : roots) {
            const auto mapped = m_rootMap.find(root.hKey);
            const HKEY hRoot = mapped == m_rootMap.end() ? root.hKey : mapped->second;
            for (const Entry& key : root.keys) {
                const LSTATUS status = bRegister ? RegisterEntry(hRoot, key) : UnregisterEntry(hRoot, key);
                if (status != ERROR_SUCCESS) {
                    m_wsError = L"key " + key.wsName + L": error " + std::to_wstring(status);
                    return HRESULT_FROM_WIN32(status);
                }
            }
        }
        return S_OK;
    } catch (const ScriptError& error) {
        m_wsError = error.wsMessage;
        return kScriptError;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}
