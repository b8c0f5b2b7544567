#include "cimstore/MofCompiler.h"

#include "cimstore/ObjectPath.h"

namespace cimstore {

namespace {

constexpr size_t kMaxIncludeDepth = 16;

class FileHandle {
public:
    explicit FileHandle(HANDLE h) : m_h(h) {}
    ~FileHandle()
    {
        if (m_h != INVALID_HANDLE_VALUE)
            CloseHandle(m_h);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    HANDLE Get() const { return m_h; }

private:
    HANDLE m_h;
};

std::wstring Directory(const std::wstring& wsPath)
{
    const size_t slash = wsPath.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : wsPath.substr(0, slash + 1);
}

bool IsAbsolutePath(const std::wstring& ws)
{
    return (ws.size() > 1 && ws[1] == L':') || (!ws.empty() && (ws[0] == L'\\' || ws[0] == L'/'));
}

}  // namespace

HRESULT ReadTextFile(std::wstring_view wsPath, std::wstring& out)
{
    const std::wstring path(wsPath);
    FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.Get() == INVALID_HANDLE_VALUE)
        return HRESULT_FROM_WIN32(GetLastError());
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.Get(), &size) || size.QuadPart > 0x40000000)
        return Hr(WBEM_E_FAILED);
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD cbRead = 0;
    if (!bytes.empty() && (!ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &cbRead, nullptr) ||
                           cbRead != bytes.size()))
        return HRESULT_FROM_WIN32(GetLastError());
    if (bytes.size() >= 2 && bytes.compare(0, 2, "\xFF\xFE") == 0) {
        out.assign((bytes.size() - 2) / 2, L'\0');
        memcpy(out.data(), bytes.data() + 2, out.size() * sizeof(wchar_t));
        return S_OK;
    }
    size_t skip = 0;
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
        skip = 3;
    const char* p = bytes.data() + skip;
    const int cb = static_cast<int>(bytes.size() - skip);
    UINT codePage = CP_UTF8;
    int cch = cb ? MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, p, cb, nullptr, 0) : 0;
    if (cb && cch == 0) {
        codePage = CP_ACP;
        cch = MultiByteToWideChar(CP_ACP, 0, p, cb, nullptr, 0);
    }
    out.assign(static_cast<size_t>(cch), L'\0');
    if (cch)
        MultiByteToWideChar(codePage, 0, p, cb, out.data(), cch);
    return S_OK;
}

MofCompiler::MofCompiler(RepositoryTransaction& tx, std::wstring_view wsNamespace)
    : m_tx(tx), m_wsNamespace(NormalizeNamespace(wsNamespace))
{
}

void MofCompiler::CompileFile(const std::wstring& wsPath)
{
    std::wstring text;
    const HRESULT hr = ReadTextFile(wsPath, text);
    if (FAILED(hr))
        throw MofError{hr, wsPath, 0, 0, L"cannot read the file"};
    CompileText(text, wsPath);
}

void MofCompiler::CompileText(std::wstring_view wsText, const std::wstring& wsFile)
{
    m_lexer = std::make_unique<MofLexer>(wsText, wsFile);
    m_includeStack.push_back(wsFile);
    Advance();
    while (m_token.kind != MofTokenKind::End)
        Statement();
    m_includeStack.pop_back();
    if (m_includeStack.empty())
        ResolvePending();
}

std::wstring MofCompiler::AliasPath(const std::wstring& wsAlias, const std::wstring& wsNamespace) const
{
    const auto& target = m_aliases.at(Fold(wsAlias));
    if (EqualsNoCase(target.first, wsNamespace))
        return target.second;
    return L"\\\\.\\" + target.first + L":" + target.second;
}

void MofCompiler::ResolvePending()
{
    bool bProgress = true;
    while (!m_pending.empty() && bProgress) {
        bProgress = false;
        for (size_t i = 0; i < m_pending.size(); ++i) {
            PendingInstance& p = m_pending[i];
            bool bReady = true;
            for (const auto& use : p.uses)
                bReady = bReady && m_aliases.count(Fold(use.second.alias)) != 0;
            if (!bReady)
                continue;
            for (const auto& [index, use] : p.uses) {
                const CimProperty& property = p.instance.Class().Properties()[index];
                const std::wstring path = AliasPath(use.alias, p.ns);
                CimValue value = p.instance.ValueAt(index);
                if (use.item == std::wstring::npos) {
                    value = CimValue(path);
                } else {
                    std::vector<CimScalar> items = value.Items();
                    items[use.item] = path;
                    value = CimValue::Array(std::move(items));
                }
                const HRESULT hr = p.instance.Put(property.name, value);
                if (FAILED(hr))
                    Fail(use.at, hr, L"cannot set property " + property.name, &p.file);
            }
            const PendingInstance ready = std::move(p);
            m_pending.erase(m_pending.begin() + static_cast<std::ptrdiff_t>(i));
            StoreInstance(ready.instance, ready.ns, ready.alias, ready.start, &ready.file);
            bProgress = true;
            break;
        }
    }
    if (m_pending.empty())
        return;
    for (const auto& use : m_pending.front().uses)
        if (!m_aliases.count(Fold(use.second.alias)))
            Fail(use.second.at, Hr(WBEM_E_INVALID_SYNTAX),
                 L"alias $" + use.second.alias + L" is not defined (or the aliases form a cycle)",
                 &m_pending.front().file);
}

void MofCompiler::Advance() { m_token = m_lexer->Next(); }

bool MofCompiler::IsPunct(wchar_t ch) const
{
    return m_token.kind == MofTokenKind::Punct && m_token.text[0] == ch;
}

bool MofCompiler::IsWord(std::wstring_view ws) const
{
    return m_token.kind == MofTokenKind::Identifier && EqualsNoCase(m_token.text, ws);
}

void MofCompiler::Fail(const MofToken& at, HRESULT hr, const std::wstring& text, const std::wstring* pwsFile) const
{
    throw MofError{hr, pwsFile ? *pwsFile : m_lexer->File(), at.line, at.column, text};
}

void MofCompiler::Expect(wchar_t ch)
{
    if (!IsPunct(ch))
        Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), std::wstring(L"'") + ch + L"' expected");
    Advance();
}

MofToken MofCompiler::ExpectIdentifier(const wchar_t* wszWhat)
{
    if (m_token.kind != MofTokenKind::Identifier)
        Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), std::wstring(wszWhat) + L" expected");
    MofToken token = m_token;
    Advance();
    return token;
}

CimNamespace& MofCompiler::Namespace() { return *m_tx.WritableNamespace(m_wsNamespace, true); }

void MofCompiler::Statement()
{
    if (IsPunct(L'#')) {
        Pragma();
        return;
    }
    if (IsWord(L"qualifier")) {
        SkipQualifierDeclaration();
        return;
    }
    QualifierSet qualifiers;
    if (IsPunct(L'['))
        qualifiers = Qualifiers();
    if (IsWord(L"class"))
        ClassDeclaration(std::move(qualifiers));
    else if (IsWord(L"instance"))
        InstanceDeclaration(std::move(qualifiers));
    else
        Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"'class', 'instance', 'qualifier' or '#pragma' expected");
}

void MofCompiler::SkipQualifierDeclaration()
{
    const MofToken start = m_token;
    int depth = 0;
    while (!(depth == 0 && IsPunct(L';'))) {
        if (m_token.kind == MofTokenKind::End)
            Fail(start, Hr(WBEM_E_INVALID_SYNTAX), L"';' expected after the qualifier declaration");
        if (IsPunct(L'(') || IsPunct(L'{'))
            ++depth;
        else if (IsPunct(L')') || IsPunct(L'}'))
            --depth;
        Advance();
    }
    Advance();
}

std::wstring MofCompiler::StringValue()
{
    if (m_token.kind != MofTokenKind::String)
        Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"string expected");
    std::wstring ws;
    while (m_token.kind == MofTokenKind::String) {
        ws += m_token.text;
        Advance();
    }
    return ws;
}

void MofCompiler::Pragma()
{
    const MofToken hash = m_token;
    Advance();
    if (!IsWord(L"pragma"))
        Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"'pragma' expected after '#'");
    Advance();
    const MofToken name = ExpectIdentifier(L"pragma name");
    std::vector<std::pair<MofToken, std::wstring>> args;
    if (IsPunct(L'(')) {
        Advance();
        while (!IsPunct(L')')) {
            const MofToken at = m_token;
            if (m_token.kind == MofTokenKind::String)
                args.emplace_back(at, StringValue());
            else if (m_token.kind == MofTokenKind::Identifier) {
                args.emplace_back(at, m_token.text);
                Advance();
            } else {
                Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"pragma argument expected");
            }
            if (!IsPunct(L')'))
                Expect(L',');
        }
        Advance();
    }
    auto needString = [&](size_t count) {
        if (args.size() < count || args.size() > count + 1 || args[0].first.kind != MofTokenKind::String)
            Fail(name, Hr(WBEM_E_INVALID_SYNTAX), L"#pragma " + name.text + L" needs a string argument");
    };
    if (EqualsNoCase(name.text, L"namespace")) {
        needString(1);
        std::wstring target = args[0].second;
        const bool bServer = target.rfind(L"\\\\", 0) == 0 || target.rfind(L"//", 0) == 0;
        if (bServer) {
            const size_t slash = target.find_first_of(L"\\/", 2);
            target = slash == std::wstring::npos ? std::wstring() : target.substr(slash + 1);
        }
        target = NormalizeNamespace(target);
        const std::wstring first = target.substr(0, target.find(L'\\'));
        if (!bServer && !EqualsNoCase(first, L"root"))
            target = m_wsNamespace + L"\\" + target;
        if (target.empty() || !EqualsNoCase(target.substr(0, target.find(L'\\')), L"root"))
            Fail(args[0].first, Hr(WBEM_E_INVALID_NAMESPACE), L"invalid namespace \"" + args[0].second + L"\"");
        m_tx.WritableNamespace(target, true);
        m_wsNamespace = m_tx.FindNamespace(target)->Name();
    } else if (EqualsNoCase(name.text, L"include")) {
        needString(1);
        std::wstring path = args[0].second;
        if (!IsAbsolutePath(path))
            path = Directory(m_includeStack.back()) + path;
        if (m_includeStack.size() >= kMaxIncludeDepth)
            Fail(args[0].first, Hr(WBEM_E_INVALID_SYNTAX), L"includes nested too deeply");
        std::wstring text;
        const HRESULT hr = ReadTextFile(path, text);
        if (FAILED(hr))
            Fail(args[0].first, hr, L"cannot read included file \"" + path + L"\"");
        std::unique_ptr<MofLexer> saved = std::move(m_lexer);
        const MofToken savedToken = m_token;
        CompileText(text, path);
        m_lexer = std::move(saved);
        m_token = savedToken;
    } else if (EqualsNoCase(name.text, L"deleteinstance")) {
        needString(1);
        const bool bNoFail = args.size() < 2 || EqualsNoCase(args[1].second, L"NOFAIL");
        if (args.size() == 2 && !bNoFail && !EqualsNoCase(args[1].second, L"FAIL"))
            Fail(args[1].first, Hr(WBEM_E_INVALID_SYNTAX), L"NOFAIL or FAIL expected");
        ObjectPath path;
        HRESULT hr = ParseObjectPath(args[0].second, path);
        if (FAILED(hr))
            Fail(args[0].first, hr, L"invalid object path \"" + args[0].second + L"\"");
        CimNamespace* pNs = m_tx.WritableNamespace(path.ns.empty() ? m_wsNamespace : path.ns, false);
        CimInstancePtr deleted;
        hr = pNs ? pNs->DeleteInstance(path, &deleted) : Hr(WBEM_E_INVALID_NAMESPACE);
        if (SUCCEEDED(hr))
            m_tx.RecordDelete(*pNs, deleted);
        else if (!bNoFail)
            Fail(args[0].first, hr, L"cannot delete \"" + args[0].second + L"\"");
    } else if (EqualsNoCase(name.text, L"deleteclass")) {
        Fail(name, Hr(WBEM_E_NOT_SUPPORTED), L"#pragma deleteclass is not supported");
    }
    // Other pragmas (locale, classflags, instanceflags, autorecover...) do not affect the store.
}

long MofCompiler::Flavors(long flavor)
{
    struct Row {
        const wchar_t* wszName;
        long lSet;
        long lClear;
    };
    static const Row kRows[] = {
        {L"ToInstance", WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE, 0},
        {L"ToSubclass", WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS, 0},
        {L"NotToInstance", 0, WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE},
        {L"NotToSubclass", 0, WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS},
        {L"Restricted", 0, WBEM_FLAVOR_MASK_PROPAGATION},
        {L"DisableOverride", WBEM_FLAVOR_NOT_OVERRIDABLE, 0},
        {L"EnableOverride", 0, WBEM_FLAVOR_NOT_OVERRIDABLE},
        {L"Amended", WBEM_FLAVOR_AMENDED, 0},
        {L"Translatable", 0, 0},
    };
    while (m_token.kind == MofTokenKind::Identifier) {
        const Row* pRow = nullptr;
        for (const Row& row : kRows)
            if (EqualsNoCase(m_token.text, row.wszName))
                pRow = &row;
        if (!pRow)
            Fail(m_token, Hr(WBEM_E_INVALID_FLAVOR), L"unknown qualifier flavor '" + m_token.text + L"'");
        flavor = (flavor | pRow->lSet) & ~pRow->lClear;
        Advance();
    }
    return flavor;
}

QualifierSet MofCompiler::Qualifiers()
{
    Expect(L'[');
    QualifierSet set;
    for (;;) {
        const MofToken name = ExpectIdentifier(L"qualifier name");
        if (set.Find(name.text))
            Fail(name, Hr(WBEM_E_INVALID_SYNTAX), L"qualifier '" + name.text + L"' given twice");
        CimQualifier q;
        q.name = name.text;
        q.flavor = DefaultQualifierFlavor(name.text);
        q.value = CimValue(true);
        q.type = CIM_BOOLEAN;
        Literal literal;
        bool bValue = true;
        if (IsPunct(L'(')) {
            Advance();
            literal = Value();
            Expect(L')');
        } else if (IsPunct(L'{')) {
            literal = Value();
        } else {
            bValue = false;
        }
        if (!literal.pending.empty())
            Fail(literal.at, Hr(WBEM_E_INVALID_SYNTAX), L"aliases cannot be qualifier values");
        if (bValue) {
            switch (literal.kind) {
            case MofTokenKind::Integer: {
                // mofcomp makes integer qualifiers sint32 unless a value needs more.
                const CIMTYPE arrayFlag = literal.value.IsArray() ? CIM_FLAG_ARRAY : 0;
                CimValue v;
                q.type = SUCCEEDED(Coerce(literal.value, CIM_SINT32 | arrayFlag, v)) ? CIM_SINT32 : CIM_SINT64;
                break;
            }
            case MofTokenKind::Real: q.type = CIM_REAL64; break;
            case MofTokenKind::Identifier: q.type = CIM_BOOLEAN; break;
            default: q.type = CIM_STRING; break;
            }
            if (literal.value.IsArray())
                q.type |= CIM_FLAG_ARRAY;
            q.value = Convert(literal, q.type, L"qualifier " + name.text);
        }
        if (IsPunct(L':')) {
            Advance();
            q.flavor = Flavors(q.flavor);
        }
        set.Set(std::move(q));
        if (IsPunct(L']'))
            break;
        Expect(L',');
    }
    Advance();
    return set;
}

MofCompiler::Literal MofCompiler::Scalar()
{
    Literal literal;
    literal.at = m_token;
    literal.kind = m_token.kind;
    switch (m_token.kind) {
    case MofTokenKind::String:
        literal.value = CimValue(StringValue());
        return literal;
    case MofTokenKind::Integer:
        if (m_token.negative) {
            if (m_token.uValue > static_cast<uint64_t>(INT64_MAX) + 1)
                Fail(m_token, Hr(WBEM_E_TYPE_MISMATCH), L"integer value out of range");
            literal.value = CimValue(static_cast<int64_t>(0 - m_token.uValue));
        } else {
            literal.value = CimValue(m_token.uValue);
        }
        break;
    case MofTokenKind::Real: literal.value = CimValue(m_token.negative ? -m_token.dValue : m_token.dValue); break;
    case MofTokenKind::Char: literal.value = CimValue(static_cast<int64_t>(m_token.uValue)); break;
    case MofTokenKind::Alias:
        if (m_aliases.count(Fold(m_token.text))) {
            literal.value = CimValue(AliasPath(m_token.text, m_wsNamespace));
        } else {
            literal.value = CimValue(L"");
            literal.pending.push_back(AliasUse{std::wstring::npos, m_token.text, m_token});
        }
        break;
    case MofTokenKind::Identifier:
        if (IsWord(L"TRUE") || IsWord(L"FALSE")) {
            literal.value = CimValue(IsWord(L"TRUE"));
        } else if (IsWord(L"NULL")) {
            literal.kind = MofTokenKind::End;
        } else if (IsWord(L"instance")) {
            Fail(m_token, Hr(WBEM_E_NOT_SUPPORTED), L"embedded instances are not supported");
        } else {
            Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"value expected");
        }
        break;
    default: Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"value expected");
    }
    Advance();
    return literal;
}

MofCompiler::Literal MofCompiler::Value()
{
    if (!IsPunct(L'{'))
        return Scalar();
    Literal array;
    array.at = m_token;
    Advance();
    std::vector<CimScalar> items;
    while (!IsPunct(L'}')) {
        Literal item = Scalar();
        if (item.value.IsNull())
            Fail(item.at, Hr(WBEM_E_TYPE_MISMATCH), L"an array element cannot be NULL");
        if (array.kind == MofTokenKind::End)
            array.kind = item.kind;
        else if (array.kind != item.kind && !(array.kind == MofTokenKind::Integer && item.kind == MofTokenKind::Real))
            Fail(item.at, Hr(WBEM_E_TYPE_MISMATCH), L"array elements of different types");
        for (AliasUse& use : item.pending) {
            use.item = items.size();
            array.pending.push_back(std::move(use));
        }
        items.push_back(item.value.Scalar());
        if (!IsPunct(L'}'))
            Expect(L',');
    }
    Advance();
    array.value = CimValue::Array(std::move(items));
    return array;
}

CimValue MofCompiler::Convert(const Literal& literal, CIMTYPE type, const std::wstring& wsWhat) const
{
    if (literal.value.IsNull())
        return CimValue();
    const CIMTYPE base = type & ~CIM_FLAG_ARRAY;
    bool bFits = false;
    switch (literal.kind) {
    case MofTokenKind::End: bFits = true; break;  // empty array
    case MofTokenKind::String: bFits = IsTextType(base) || base == CIM_CHAR16; break;
    case MofTokenKind::Alias: bFits = base == CIM_REFERENCE || base == CIM_STRING; break;
    case MofTokenKind::Integer: bFits = IsIntegerType(base) || base == CIM_REAL32 || base == CIM_REAL64; break;
    case MofTokenKind::Real: bFits = base == CIM_REAL32 || base == CIM_REAL64; break;
    case MofTokenKind::Char: bFits = base == CIM_CHAR16; break;
    case MofTokenKind::Identifier: bFits = base == CIM_BOOLEAN; break;
    default: break;
    }
    CimValue out;
    if (!bFits || FAILED(Coerce(literal.value, type, out)))
        Fail(literal.at, Hr(WBEM_E_TYPE_MISMATCH),
             L"type mismatch: the value does not fit " + wsWhat + L" (" + CimTypeName(type) +
                 ((type & CIM_FLAG_ARRAY) ? L"[])" : L")"));
    return out;
}

void MofCompiler::ClassDeclaration(QualifierSet qualifiers)
{
    Advance();
    const MofToken name = ExpectIdentifier(L"class name");
    CimNamespace& ns = Namespace();
    CimClassPtr parent;
    if (IsPunct(L':')) {
        Advance();
        const MofToken super = ExpectIdentifier(L"superclass name");
        parent = ns.FindClass(super.text);
        if (!parent)
            Fail(super, Hr(WBEM_E_INVALID_SUPERCLASS), L"superclass " + super.text + L" is not defined");
    }
    if (IsWord(L"as")) {
        Advance();
        if (m_token.kind != MofTokenKind::Alias)
            Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"alias expected after 'as'");
        Advance();
    }
    auto cls = std::make_shared<CimClass>(name.text, parent, ns.Name(), m_tx.Server());
    HRESULT hr = qualifiers.MergeInherited(cls->Qualifiers());
    if (FAILED(hr))
        Fail(name, hr, L"a class qualifier overrides one that forbids it");
    cls->Qualifiers() = std::move(qualifiers);
    Expect(L'{');
    while (!IsPunct(L'}')) {
        CimProperty property;
        if (IsPunct(L'['))
            property.qualifiers = Qualifiers();
        const MofToken typeToken = ExpectIdentifier(L"property type");
        if (IsWord(L"ref")) {
            Advance();
            property.type = CIM_REFERENCE;
            if (!EqualsNoCase(typeToken.text, L"object"))
                property.refClass = typeToken.text;
        } else {
            property.type = CimTypeFromName(typeToken.text);
        }
        const MofToken propertyName = ExpectIdentifier(L"property name");
        if (IsPunct(L'(')) {
            // Methods are not stored: skip the parameter list.
            int depth = 0;
            do {
                if (m_token.kind == MofTokenKind::End)
                    Fail(propertyName, Hr(WBEM_E_INVALID_SYNTAX), L"')' expected");
                depth += IsPunct(L'(') ? 1 : (IsPunct(L')') ? -1 : 0);
                Advance();
            } while (depth > 0);
            Expect(L';');
            continue;
        }
        if (property.type == CIM_EMPTY)
            Fail(typeToken, Hr(WBEM_E_INVALID_PROPERTY_TYPE), L"unknown type '" + typeToken.text + L"'");
        property.name = propertyName.text;
        if (IsPunct(L'[')) {
            Advance();
            if (m_token.kind == MofTokenKind::Integer)
                Advance();
            Expect(L']');
            property.type |= CIM_FLAG_ARRAY;
        }
        if (IsPunct(L'=')) {
            Advance();
            const Literal literal = Value();
            property.defaultValue = Convert(literal, property.type, L"property " + property.name);
        }
        Expect(L';');
        bool bDuplicate = false;
        hr = cls->AddProperty(std::move(property), bDuplicate);
        if (bDuplicate)
            Fail(propertyName, hr, L"property " + propertyName.text + L" is declared twice in class " + name.text);
        if (FAILED(hr))
            Fail(propertyName, hr, L"property " + propertyName.text + L" cannot override the inherited one");
    }
    Advance();
    Expect(L';');
    cls->Finish();
    for (size_t k : cls->KeyIndices())
        if (cls->Properties()[k].type & CIM_FLAG_ARRAY)
            Fail(name, Hr(WBEM_E_INVALID_PROPERTY_TYPE),
                 L"key property " + cls->Properties()[k].name + L" is an array");
    hr = ns.PutClass(cls);
    if (FAILED(hr))
        Fail(name, hr, L"class " + name.text + L" cannot be replaced: it has instances or subclasses");
}

void MofCompiler::InstanceDeclaration(QualifierSet qualifiers)
{
    const MofToken start = m_token;
    Advance();
    if (!IsWord(L"of"))
        Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"'of' expected");
    Advance();
    const MofToken className = ExpectIdentifier(L"class name");
    CimNamespace& ns = Namespace();
    const CimClassPtr cls = ns.FindClass(className.text);
    if (!cls)
        Fail(className, Hr(WBEM_E_INVALID_CLASS), L"class " + className.text + L" is not defined");
    std::wstring alias;
    if (IsWord(L"as")) {
        Advance();
        if (m_token.kind != MofTokenKind::Alias)
            Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"alias expected after 'as'");
        alias = m_token.text;
        bool bTaken = m_aliases.count(Fold(alias)) != 0;
        for (const PendingInstance& p : m_pending)
            bTaken = bTaken || EqualsNoCase(p.alias, alias);
        if (bTaken)
            Fail(m_token, Hr(WBEM_E_INVALID_SYNTAX), L"alias $" + alias + L" is defined twice");
        Advance();
    }
    CimInstance instance(cls);
    instance.Qualifiers() = std::move(qualifiers);
    std::vector<bool> assigned(cls->Properties().size(), false);
    std::vector<std::pair<size_t, AliasUse>> uses;
    Expect(L'{');
    while (!IsPunct(L'}')) {
        QualifierSet propertyQualifiers;
        if (IsPunct(L'['))
            propertyQualifiers = Qualifiers();
        const MofToken propertyName = ExpectIdentifier(L"property name");
        const int i = cls->FindProperty(propertyName.text);
        if (i < 0)
            Fail(propertyName, Hr(WBEM_E_NOT_FOUND),
                 L"property " + propertyName.text + L" is not defined in class " + cls->Name());
        if (assigned[static_cast<size_t>(i)])
            Fail(propertyName, Hr(WBEM_E_ALREADY_EXISTS), L"property " + propertyName.text + L" is given twice");
        assigned[static_cast<size_t>(i)] = true;
        Expect(L'=');
        const Literal literal = Value();
        const CimProperty& property = cls->Properties()[static_cast<size_t>(i)];
        const HRESULT hr = instance.Put(property.name, Convert(literal, property.type, L"property " + property.name));
        if (FAILED(hr))
            Fail(literal.at, hr, L"cannot set property " + property.name);
        if (!propertyQualifiers.Empty())
            *instance.LocalPropertyQualifiers(property.name, true) = std::move(propertyQualifiers);
        for (const AliasUse& use : literal.pending)
            uses.emplace_back(static_cast<size_t>(i), use);
        Expect(L';');
    }
    Advance();
    Expect(L';');
    if (!uses.empty()) {
        m_pending.push_back(
            PendingInstance{std::move(instance), ns.Name(), alias, m_lexer->File(), start, std::move(uses)});
        return;
    }
    StoreInstance(instance, ns.Name(), alias, start);
}

void MofCompiler::StoreInstance(const CimInstance& instance, const std::wstring& wsNamespace,
                                const std::wstring& alias, const MofToken& start, const std::wstring* pwsFile)
{
    CimNamespace& ns = *m_tx.WritableNamespace(wsNamespace, true);
    const CimClass* cls = &instance.Class();
    CimInstancePtr stored;
    const HRESULT hr = ns.PutInstance(instance, 0, &stored);
    if (hr == Hr(WBEM_E_ILLEGAL_NULL))
        Fail(start, hr, L"instance of " + cls->Name() + L" has a key property without a value", pwsFile);
    if (hr == Hr(WBEM_E_INVALID_OPERATION))
        Fail(start, hr, L"class " + cls->Name() + L" is abstract", pwsFile);
    if (FAILED(hr))
        Fail(start, hr, L"cannot store the instance of " + cls->Name(), pwsFile);
    m_tx.RecordPut(ns, stored);
    if (!alias.empty())
        m_aliases.emplace(Fold(alias), std::make_pair(ns.Name(), stored->RelPath()));
}

}  // namespace cimstore
