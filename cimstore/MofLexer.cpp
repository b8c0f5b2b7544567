#include "cimstore/MofLexer.h"

#include <cwctype>

namespace cimstore {

namespace {

bool IsIdentStart(wchar_t ch) { return ch == L'_' || iswalpha(ch) || ch >= 0x80; }
bool IsIdentChar(wchar_t ch) { return IsIdentStart(ch) || iswdigit(ch); }

int HexDigit(wchar_t ch)
{
    if (ch >= L'0' && ch <= L'9')
        return ch - L'0';
    if (ch >= L'a' && ch <= L'f')
        return ch - L'a' + 10;
    if (ch >= L'A' && ch <= L'F')
        return ch - L'A' + 10;
    return -1;
}

}  // namespace

MofLexer::MofLexer(std::wstring_view text, std::wstring file) : m_text(text), m_wsFile(std::move(file))
{
    if (!m_text.empty() && m_text.front() == 0xFEFF)
        m_text.remove_prefix(1);
}

wchar_t MofLexer::Peek(size_t ahead) const
{
    return m_pos + ahead < m_text.size() ? m_text[m_pos + ahead] : L'\0';
}

wchar_t MofLexer::Take()
{
    const wchar_t ch = m_text[m_pos++];
    if (ch == L'\n') {
        ++m_line;
        m_column = 1;
    } else {
        ++m_column;
    }
    return ch;
}

void MofLexer::Fail(int line, int column, const std::wstring& text) const
{
    throw MofError{Hr(WBEM_E_INVALID_SYNTAX), m_wsFile, line, column, text};
}

void MofLexer::SkipSpaceAndComments()
{
    for (;;) {
        while (m_pos < m_text.size() && iswspace(Peek()))
            Take();
        if (Peek() == L'/' && Peek(1) == L'/') {
            while (m_pos < m_text.size() && Peek() != L'\n')
                Take();
        } else if (Peek() == L'/' && Peek(1) == L'*') {
            const int line = m_line;
            const int column = m_column;
            Take();
            Take();
            while (m_pos < m_text.size() && !(Peek() == L'*' && Peek(1) == L'/'))
                Take();
            if (m_pos >= m_text.size())
                Fail(line, column, L"unterminated comment");
            Take();
            Take();
        } else {
            return;
        }
    }
}

MofToken MofLexer::Next()
{
    SkipSpaceAndComments();
    MofToken token;
    token.line = m_line;
    token.column = m_column;
    if (m_pos >= m_text.size())
        return token;
    const wchar_t ch = Peek();
    if (IsIdentStart(ch)) {
        token.kind = MofTokenKind::Identifier;
        while (m_pos < m_text.size() && IsIdentChar(Peek()))
            token.text.push_back(Take());
        return token;
    }
    if (iswdigit(ch) || ((ch == L'-' || ch == L'+' || ch == L'.') && iswdigit(Peek(1))) ||
        ((ch == L'-' || ch == L'+') && Peek(1) == L'.' && iswdigit(Peek(2))))
        return Number(token);
    if (ch == L'"' || ch == L'\'')
        return Quoted(token, Take());
    if (ch == L'$') {
        Take();
        token.kind = MofTokenKind::Alias;
        while (m_pos < m_text.size() && IsIdentChar(Peek()))
            token.text.push_back(Take());
        if (token.text.empty())
            Fail(token.line, token.column, L"alias name expected after '$'");
        return token;
    }
    if (std::wstring_view(L"{}[]();,:=#").find(ch) != std::wstring_view::npos) {
        token.kind = MofTokenKind::Punct;
        token.text.push_back(Take());
        return token;
    }
    Fail(token.line, token.column, std::wstring(L"unexpected character '") + ch + L"'");
}

MofToken MofLexer::Number(MofToken token)
{
    const size_t start = m_pos;
    if (Peek() == L'-' || Peek() == L'+')
        token.negative = Take() == L'-';
    if (Peek() == L'0' && (Peek(1) == L'x' || Peek(1) == L'X')) {
        Take();
        Take();
        if (HexDigit(Peek()) < 0)
            Fail(token.line, token.column, L"hexadecimal digits expected");
        uint64_t u = 0;
        while (HexDigit(Peek()) >= 0) {
            if (u >> 60)
                Fail(token.line, token.column, L"integer value out of range");
            u = u * 16 + static_cast<uint64_t>(HexDigit(Take()));
        }
        token.kind = MofTokenKind::Integer;
        token.uValue = u;
    } else {
        bool bReal = false;
        while (iswdigit(Peek()))
            Take();
        if (Peek() == L'.' && iswdigit(Peek(1))) {
            bReal = true;
            Take();
            while (iswdigit(Peek()))
                Take();
        }
        if ((Peek() == L'e' || Peek() == L'E') &&
            (iswdigit(Peek(1)) || ((Peek(1) == L'-' || Peek(1) == L'+') && iswdigit(Peek(2))))) {
            bReal = true;
            Take();
            if (Peek() == L'-' || Peek() == L'+')
                Take();
            while (iswdigit(Peek()))
                Take();
        }
        const std::wstring text(m_text.substr(start, m_pos - start));
        if (bReal) {
            token.kind = MofTokenKind::Real;
            token.dValue = wcstod(text.c_str(), nullptr);
        } else {
            token.kind = MofTokenKind::Integer;
            std::wstring_view digits(text);
            if (digits[0] == L'-' || digits[0] == L'+')
                digits.remove_prefix(1);
            const bool bOctal = digits.size() > 1 && digits[0] == L'0';
            uint64_t u = 0;
            for (wchar_t d : digits) {
                const unsigned digit = static_cast<unsigned>(d - L'0');
                const unsigned base = bOctal ? 8 : 10;
                if (digit >= base)
                    Fail(token.line, token.column, L"invalid octal digit");
                if (u > (UINT64_MAX - digit) / base)
                    Fail(token.line, token.column, L"integer value out of range");
                u = u * base + digit;
            }
            token.uValue = u;
        }
    }
    if (IsIdentChar(Peek()))
        Fail(m_line, m_column, L"unexpected character after number");
    return token;
}

wchar_t MofLexer::Escape(const MofToken& start)
{
    const int line = m_line;
    const int column = m_column;
    Take();  // backslash
    if (m_pos >= m_text.size())
        Fail(start.line, start.column, L"unterminated string");
    const wchar_t ch = Take();
    switch (ch) {
    case L'b': return L'\b';
    case L't': return L'\t';
    case L'n': return L'\n';
    case L'f': return L'\f';
    case L'r': return L'\r';
    case L'"': return L'"';
    case L'\'': return L'\'';
    case L'\\': return L'\\';
    case L'x':
    case L'X': {
        unsigned value = 0;
        int count = 0;
        while (count < 4 && HexDigit(Peek()) >= 0) {
            value = value * 16 + static_cast<unsigned>(HexDigit(Take()));
            ++count;
        }
        if (count == 0)
            Fail(line, column, L"hexadecimal digits expected after \\x");
        return static_cast<wchar_t>(value);
    }
    default:
        Fail(line, column, std::wstring(L"unknown escape sequence '\\") + ch + L"'");
    }
}

MofToken MofLexer::Quoted(MofToken token, wchar_t quote)
{
    token.kind = quote == L'"' ? MofTokenKind::String : MofTokenKind::Char;
    for (;;) {
        if (m_pos >= m_text.size() || Peek() == L'\n' || Peek() == L'\r')
            Fail(token.line, token.column, quote == L'"' ? L"unterminated string" : L"unterminated character");
        if (Peek() == quote) {
            Take();
            break;
        }
        token.text.push_back(Peek() == L'\\' ? Escape(token) : Take());
    }
    if (token.kind == MofTokenKind::Char) {
        if (token.text.size() != 1)
            Fail(token.line, token.column, L"a character literal holds exactly one character");
        token.uValue = token.text[0];
    }
    return token;
}

}  // namespace cimstore
