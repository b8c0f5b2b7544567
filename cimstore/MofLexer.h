// Tokens of MOF text, with the line and column where each starts.
#pragma once

#include "cimstore/CimTypes.h"

namespace cimstore {

enum class MofTokenKind { End, Identifier, String, Integer, Real, Char, Alias, Punct };

struct MofToken {
    MofTokenKind kind = MofTokenKind::End;
    std::wstring text;      // identifier, unescaped string, alias name, or the punctuation character
    bool negative = false;  // integers: magnitude in uValue
    uint64_t uValue = 0;
    double dValue = 0;
    int line = 1;
    int column = 1;
};

// Thrown inside the compiler only; CimRepository turns it into a MofResult.
struct MofError {
    HRESULT hr;
    std::wstring file;
    int line;
    int column;
    std::wstring text;
};

class MofLexer {
public:
    MofLexer(std::wstring_view text, std::wstring file);

    // Next token; throws MofError for an unterminated string or comment, or a bad character.
    MofToken Next();
    const std::wstring& File() const { return m_wsFile; }

private:
    wchar_t Peek(size_t ahead = 0) const;
    wchar_t Take();
    void SkipSpaceAndComments();
    MofToken Number(MofToken token);
    MofToken Quoted(MofToken token, wchar_t quote);
    wchar_t Escape(const MofToken& start);
    [[noreturn]] void Fail(int line, int column, const std::wstring& text) const;

    std::wstring_view m_text;
    std::wstring m_wsFile;
    size_t m_pos = 0;
    int m_line = 1;
    int m_column = 1;
};

}  // namespace cimstore
