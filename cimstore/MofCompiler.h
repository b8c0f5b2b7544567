// Compiles MOF into a repository transaction; failures throw MofError (caught by CimRepository).
#pragma once

#include "cimstore/CimRepository.h"
#include "cimstore/MofLexer.h"

#include <unordered_map>

namespace cimstore {

// Reads a MOF file: UTF-16 with byte order mark, else UTF-8 (ANSI when not valid UTF-8).
HRESULT ReadTextFile(std::wstring_view wsPath, std::wstring& out);

class MofCompiler {
public:
    MofCompiler(RepositoryTransaction& tx, std::wstring_view wsNamespace);

    void CompileText(std::wstring_view wsText, const std::wstring& wsFile);
    void CompileFile(const std::wstring& wsPath);

private:
    // An alias used before its instance was declared (forward reference).
    struct AliasUse {
        size_t item;  // array element, or npos for a scalar
        std::wstring alias;
        MofToken at;
    };
    struct Literal {
        CimValue value;
        MofTokenKind kind = MofTokenKind::End;  // kind of the (first) element; End for NULL or {}
        MofToken at;
        std::vector<AliasUse> pending;
    };
    // An instance waiting for aliases it references; stored once they are all known.
    struct PendingInstance {
        CimInstance instance;
        std::wstring ns;
        std::wstring alias;
        std::wstring file;
        MofToken start;
        std::vector<std::pair<size_t, AliasUse>> uses;  // property index, use
    };

    void Advance();
    bool IsPunct(wchar_t ch) const;
    bool IsWord(std::wstring_view ws) const;
    void Expect(wchar_t ch);
    MofToken ExpectIdentifier(const wchar_t* wszWhat);
    // Throws MofError at a position of the current file, or of wsFile when given.
    [[noreturn]] void Fail(const MofToken& at, HRESULT hr, const std::wstring& text,
                           const std::wstring* pwsFile = nullptr) const;

    void Statement();
    void Pragma();
    void SkipQualifierDeclaration();
    QualifierSet Qualifiers();
    long Flavors(long flavor);
    void ClassDeclaration(QualifierSet qualifiers);
    void InstanceDeclaration(QualifierSet qualifiers);
    Literal Value();
    Literal Scalar();
    std::wstring StringValue();
    // Checks the literal fits the CIM type as mofcomp does, then coerces.
    CimValue Convert(const Literal& literal, CIMTYPE type, const std::wstring& wsWhat) const;
    CimNamespace& Namespace();
    std::wstring AliasPath(const std::wstring& wsAlias, const std::wstring& wsNamespace) const;
    void StoreInstance(const CimInstance& instance, const std::wstring& wsNamespace, const std::wstring& wsAlias,
                       const MofToken& start, const std::wstring* pwsFile = nullptr);
    // Stores pending instances whose aliases are now known; fails on an alias never declared.
    void ResolvePending();

    RepositoryTransaction& m_tx;
    std::wstring m_wsNamespace;
    std::unique_ptr<MofLexer> m_lexer;
    MofToken m_token;
    std::vector<std::wstring> m_includeStack;
    std::unordered_map<std::wstring, std::pair<std::wstring, std::wstring>> m_aliases;  // -> namespace, path
    std::vector<PendingInstance> m_pending;
};

}  // namespace cimstore
