#include "cimstore/WqlParser.h"

#include <cwctype>

namespace cimstore {

namespace {

enum class Tok { End, Ident, String, Number, Op, Punct };

struct Token {
    Tok kind = Tok::End;
    std::wstring text;
    CimScalar number;
};

struct QueryError {};

class WqlReader {
public:
    explicit WqlReader(std::wstring_view text) : m_text(text) { Advance(); }

    const Token& Current() const { return m_token; }
    bool IsWord(std::wstring_view ws) const { return m_token.kind == Tok::Ident && EqualsNoCase(m_token.text, ws); }
    bool IsPunct(wchar_t ch) const { return m_token.kind == Tok::Punct && m_token.text[0] == ch; }
    void ExpectWord(std::wstring_view ws)
    {
        if (!IsWord(ws))
            throw QueryError{};
        Advance();
    }
    std::wstring Ident()
    {
        if (m_token.kind != Tok::Ident)
            throw QueryError{};
        std::wstring ws = m_token.text;
        Advance();
        return ws;
    }
    // Raw text of "{path}", quotes respected.
    std::wstring BracedPath()
    {
        if (!IsPunct(L'{'))
            throw QueryError{};
        size_t pos = m_pos;
        bool bQuoted = false;
        std::wstring ws;
        for (; pos < m_text.size(); ++pos) {
            const wchar_t ch = m_text[pos];
            if (bQuoted && ch == L'\\' && pos + 1 < m_text.size()) {
                ws.push_back(ch);
                ws.push_back(m_text[++pos]);
                continue;
            }
            if (ch == L'"')
                bQuoted = !bQuoted;
            else if (ch == L'}' && !bQuoted)
                break;
            ws.push_back(ch);
        }
        if (pos >= m_text.size())
            throw QueryError{};
        m_pos = pos + 1;
        Advance();
        const size_t first = ws.find_first_not_of(L" \t\r\n");
        const size_t last = ws.find_last_not_of(L" \t\r\n");
        return first == std::wstring::npos ? std::wstring() : ws.substr(first, last - first + 1);
    }
    void Advance()
    {
        while (m_pos < m_text.size() && iswspace(m_text[m_pos]))
            ++m_pos;
        m_token = Token();
        if (m_pos >= m_text.size())
            return;
        const wchar_t ch = m_text[m_pos];
        if (ch == L'_' || iswalpha(ch) || ch >= 0x80) {
            m_token.kind = Tok::Ident;
            while (m_pos < m_text.size() && (m_text[m_pos] == L'_' || iswalnum(m_text[m_pos]) || m_text[m_pos] >= 0x80))
                m_token.text.push_back(m_text[m_pos++]);
        } else if (ch == L'"' || ch == L'\'') {
            m_token.kind = Tok::String;
            ++m_pos;
            while (m_pos < m_text.size() && m_text[m_pos] != ch) {
                if (m_text[m_pos] == L'\\' && m_pos + 1 < m_text.size())
                    ++m_pos;
                m_token.text.push_back(m_text[m_pos++]);
            }
            if (m_pos >= m_text.size())
                throw QueryError{};
            ++m_pos;
        } else if (iswdigit(ch) || ((ch == L'-' || ch == L'+' || ch == L'.') && m_pos + 1 < m_text.size() &&
                                    (iswdigit(m_text[m_pos + 1]) || m_text[m_pos + 1] == L'.'))) {
            m_token.kind = Tok::Number;
            const size_t start = m_pos++;
            while (m_pos < m_text.size() && (iswalnum(m_text[m_pos]) || m_text[m_pos] == L'.' ||
                                             ((m_text[m_pos] == L'-' || m_text[m_pos] == L'+') &&
                                              (m_text[m_pos - 1] == L'e' || m_text[m_pos - 1] == L'E'))))
                ++m_pos;
            m_token.text = std::wstring(m_text.substr(start, m_pos - start));
            const CimScalar text{m_token.text};
            if (FAILED(CoerceScalar(text, m_token.text[0] == L'-' ? CIM_SINT64 : CIM_UINT64, m_token.number)) &&
                FAILED(CoerceScalar(text, CIM_REAL64, m_token.number)))
                throw QueryError{};
        } else if (ch == L'=' || ch == L'<' || ch == L'>' || ch == L'!') {
            m_token.kind = Tok::Op;
            m_token.text.push_back(m_text[m_pos++]);
            if (m_pos < m_text.size() && (m_text[m_pos] == L'=' || (ch == L'<' && m_text[m_pos] == L'>')))
                m_token.text.push_back(m_text[m_pos++]);
            if (m_token.text == L"!")
                throw QueryError{};
        } else if (ch == L'(' || ch == L')' || ch == L',' || ch == L'*' || ch == L'{' || ch == L'}') {
            m_token.kind = Tok::Punct;
            m_token.text.push_back(m_text[m_pos++]);
        } else {
            throw QueryError{};
        }
    }

private:
    std::wstring_view m_text;
    size_t m_pos = 0;
    Token m_token;
};

WqlOp OpFrom(const std::wstring& ws)
{
    if (ws == L"=")
        return WqlOp::Eq;
    if (ws == L"!=" || ws == L"<>")
        return WqlOp::Ne;
    if (ws == L"<")
        return WqlOp::Lt;
    if (ws == L">")
        return WqlOp::Gt;
    if (ws == L"<=")
        return WqlOp::Le;
    if (ws == L">=")
        return WqlOp::Ge;
    throw QueryError{};
}

WqlOp Mirror(WqlOp op)
{
    switch (op) {
    case WqlOp::Lt: return WqlOp::Gt;
    case WqlOp::Gt: return WqlOp::Lt;
    case WqlOp::Le: return WqlOp::Ge;
    case WqlOp::Ge: return WqlOp::Le;
    default: return op;
    }
}

class WqlGrammar {
public:
    explicit WqlGrammar(WqlReader& reader) : m_r(reader) {}

    std::unique_ptr<WqlExpr> Or()
    {
        auto left = And();
        while (m_r.IsWord(L"OR")) {
            m_r.Advance();
            left = Join(WqlExpr::Kind::Or, std::move(left), And());
        }
        return left;
    }

private:
    static std::unique_ptr<WqlExpr> Join(WqlExpr::Kind kind, std::unique_ptr<WqlExpr> a, std::unique_ptr<WqlExpr> b)
    {
        auto e = std::make_unique<WqlExpr>();
        e->kind = kind;
        e->left = std::move(a);
        e->right = std::move(b);
        return e;
    }

    std::unique_ptr<WqlExpr> And()
    {
        auto left = Factor();
        while (m_r.IsWord(L"AND")) {
            m_r.Advance();
            left = Join(WqlExpr::Kind::And, std::move(left), Factor());
        }
        return left;
    }

    std::unique_ptr<WqlExpr> Factor()
    {
        if (m_r.IsWord(L"NOT")) {
            m_r.Advance();
            return Join(WqlExpr::Kind::Not, Factor(), nullptr);
        }
        if (m_r.IsPunct(L'(')) {
            m_r.Advance();
            auto inner = Or();
            if (!m_r.IsPunct(L')'))
                throw QueryError{};
            m_r.Advance();
            return inner;
        }
        return Comparison();
    }

    // Literal at the current token; false when the token is a property name.
    bool Literal(CimScalar& value, bool& bNull)
    {
        const Token& t = m_r.Current();
        bNull = false;
        if (t.kind == Tok::String)
            value = t.text;
        else if (t.kind == Tok::Number)
            value = t.number;
        else if (m_r.IsWord(L"TRUE") || m_r.IsWord(L"FALSE"))
            value = m_r.IsWord(L"TRUE");
        else if (m_r.IsWord(L"NULL"))
            bNull = true;
        else if (t.kind == Tok::Ident && !IsKeyword())
            return false;
        else
            throw QueryError{};
        m_r.Advance();
        return true;
    }

    bool IsKeyword() const
    {
        for (const wchar_t* wsz : {L"AND", L"OR", L"NOT", L"IS", L"ISA", L"WHERE", L"FROM", L"SELECT", L"LIKE"})
            if (m_r.IsWord(wsz))
                return true;
        return false;
    }

    std::unique_ptr<WqlExpr> Comparison()
    {
        auto e = std::make_unique<WqlExpr>();
        CimScalar literal;
        bool bNull = false;
        const bool bLiteralFirst = Literal(literal, bNull);
        if (bLiteralFirst) {
            if (m_r.Current().kind != Tok::Op)
                throw QueryError{};
            e->op = Mirror(OpFrom(m_r.Current().text));
            m_r.Advance();
            e->property = m_r.Ident();
        } else {
            e->property = m_r.Ident();
            if (m_r.IsWord(L"IS")) {
                m_r.Advance();
                const bool bNot = m_r.IsWord(L"NOT");
                if (bNot)
                    m_r.Advance();
                m_r.ExpectWord(L"NULL");
                e->kind = bNot ? WqlExpr::Kind::IsNotNull : WqlExpr::Kind::IsNull;
                return e;
            }
            if (m_r.IsWord(L"ISA")) {
                m_r.Advance();
                if (m_r.Current().kind != Tok::String && m_r.Current().kind != Tok::Ident)
                    throw QueryError{};
                e->kind = WqlExpr::Kind::Isa;
                e->literal = m_r.Current().text;
                m_r.Advance();
                return e;
            }
            if (m_r.Current().kind != Tok::Op)
                throw QueryError{};
            e->op = OpFrom(m_r.Current().text);
            m_r.Advance();
            if (!Literal(literal, bNull))
                throw QueryError{};
        }
        if (bNull) {
            if (e->op != WqlOp::Eq && e->op != WqlOp::Ne)
                throw QueryError{};
            e->kind = e->op == WqlOp::Eq ? WqlExpr::Kind::IsNull : WqlExpr::Kind::IsNotNull;
        }
        e->literal = std::move(literal);
        return e;
    }

    WqlReader& m_r;
};

void ParseSelect(WqlReader& r, WqlQuery& q)
{
    q.kind = WqlQuery::Kind::Select;
    if (r.IsPunct(L'*')) {
        r.Advance();
    } else {
        q.properties.push_back(r.Ident());
        while (r.IsPunct(L',')) {
            r.Advance();
            q.properties.push_back(r.Ident());
        }
    }
    r.ExpectWord(L"FROM");
    q.className = r.Ident();
    if (r.IsWord(L"WHERE")) {
        r.Advance();
        q.where = WqlGrammar(r).Or();
    }
}

void ParseOf(WqlReader& r, WqlQuery& q)
{
    r.ExpectWord(L"OF");
    q.sourcePath = r.BracedPath();
    if (q.sourcePath.empty())
        throw QueryError{};
    if (!r.IsWord(L"WHERE"))
        return;
    r.Advance();
    const bool bAssociators = q.kind == WqlQuery::Kind::Associators;
    bool bAny = false;
    while (r.Current().kind == Tok::Ident) {
        const std::wstring keyword = r.Ident();
        bAny = true;
        if (EqualsNoCase(keyword, L"ClassDefsOnly")) {
            q.classDefsOnly = true;
            continue;
        }
        if (EqualsNoCase(keyword, L"KeysOnly"))
            continue;
        std::wstring* pTarget = nullptr;
        if (EqualsNoCase(keyword, L"ResultClass"))
            pTarget = &q.resultClass;
        else if (EqualsNoCase(keyword, L"Role"))
            pTarget = &q.role;
        else if (EqualsNoCase(keyword, L"RequiredQualifier"))
            pTarget = &q.requiredQualifier;
        else if (bAssociators && EqualsNoCase(keyword, L"AssocClass"))
            pTarget = &q.assocClass;
        else if (bAssociators && EqualsNoCase(keyword, L"ResultRole"))
            pTarget = &q.resultRole;
        else if (bAssociators && EqualsNoCase(keyword, L"RequiredAssocQualifier"))
            pTarget = &q.requiredAssocQualifier;
        else
            throw QueryError{};
        if (r.Current().kind != Tok::Op || r.Current().text != L"=")
            throw QueryError{};
        r.Advance();
        if (r.Current().kind != Tok::Ident && r.Current().kind != Tok::String)
            throw QueryError{};
        if (!pTarget->empty())
            throw QueryError{};
        *pTarget = r.Current().text;
        r.Advance();
    }
    if (!bAny)
        throw QueryError{};
}

}  // namespace

HRESULT ParseWql(std::wstring_view wsText, WqlQuery& out)
{
    out = WqlQuery();
    try {
        WqlReader r(wsText);
        if (r.IsWord(L"SELECT")) {
            r.Advance();
            ParseSelect(r, out);
        } else if (r.IsWord(L"ASSOCIATORS")) {
            r.Advance();
            out.kind = WqlQuery::Kind::Associators;
            ParseOf(r, out);
        } else if (r.IsWord(L"REFERENCES")) {
            r.Advance();
            out.kind = WqlQuery::Kind::References;
            ParseOf(r, out);
        } else {
            throw QueryError{};
        }
        if (r.Current().kind != Tok::End)
            throw QueryError{};
    } catch (const QueryError&) {
        return Hr(WBEM_E_INVALID_QUERY);
    }
    return S_OK;
}

}  // namespace cimstore
