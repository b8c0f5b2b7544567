// The MOF compiler: pragmas, literals, replacement, errors with positions, all-or-nothing.
#include "CimTestSupport.h"

using namespace cimstore;
using namespace cimtest;

namespace {

#define CIMV2 L"#pragma namespace(\"root\\\\cimv2\")\n"
using cimstoreMofCompiler = LoadedRepository;
CimScalar S(const wchar_t* wsz) { return CimScalar(std::wstring(wsz)); }

TEST_F(cimstoreMofCompiler, FixtureLiteralsArriveTyped)
{
    const wchar_t *spooler = L"Test_Service.Name=\"Spooler\"", *web = L"Test_Service.Name=\"W3SVC\"";
    const wchar_t *c = L"Test_Disk.Name=\"C:\"", *d = L"Test_Disk.Name=\"D:\"";
    // Values that the WQL tests compare (0x10, uint64 maximum, 0.25, 'C', defaults) are left to them.
    const struct { const wchar_t *wszPath, *wszProperty; CimValue expected; } rows[] = {
        {spooler, L"Caption", L"Print Spooler"}, {spooler, L"Tags", CimValue::Array({S(L"print"), S(L"queue")})},
        {web, L"Caption", L"Web \"publishing\"\tservice"}, {web, L"Tags", CimValue::Array({})},
        {L"Test_Driver.Name=\"disk\"", L"Caption", L"C:\\Windows\\System32"}, {c, L"Offset", CimValue(INT64_MIN)},
        {c, L"Caption", CimValue()}, {c, L"Ratio", static_cast<double>(0.1f)}, {c, L"Tiny", int64_t{-128}},
        {c, L"Small", uint64_t{65535}}, {c, L"Flags2", CimValue::Array({true, false})},
        {c, L"Bytes", CimValue::Array({uint64_t{0}, uint64_t{255}, uint64_t{8}})}, {d, L"Tiny", CimValue()},
        {d, L"Caption", L"Line1\nLine2 \x263A"},
        {L"Test_Dependency.Antecedent=\"Test_Service.Name=\\\"RpcSs\\\"\","
         L"Dependent=\"Test_Service.Name=\\\"W3SVC\\\"\"", L"Dependent", L"Test_Service.Name=\"W3SVC\""},
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(Value(row.wszPath, row.wszProperty) == row.expected)
            << Narrow(row.wszPath) << " " << Narrow(row.wszProperty);
    }
}

TEST_F(cimstoreMofCompiler, PragmasAliasesAndReplacement)
{
    MofResult result = m_repository.CompileText(L"#pragma namespace(\"root\\\\a\")\nclass A1 { [key] string K; };\n"
                                                L"#pragma namespace(\"b\")\nclass B1 { [key] string K; };\n"
                                                L"#pragma namespace(\"//./root/c\")\nclass C1 { [key] string K; };\n",
                                                L"ns.mof", L"root\\default");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    CimClassPtr cls;
    for (const auto& [wszNs, wszClass] : {std::pair{L"root\\a", L"A1"}, {L"root\\a\\b", L"B1"}, {L"root\\c", L"C1"}}) {
        ASSERT_EQ(m_repository.GetClass(wszNs, wszClass, cls), S_OK) << Narrow(wszNs);
        EXPECT_EQ(cls->Namespace(), wszNs);
    }
    EXPECT_EQ(m_repository.GetClass(L"root\\default", L"A1", cls), Hr(WBEM_E_INVALID_NAMESPACE));
    // A later instance with the same key replaces the earlier one, it does not merge into it.
    result = m_repository.CompileText(L"class K { [key] uint32 Id; string V; string W = \"w\"; };\n"
                                      L"instance of K { Id = 1; V = \"first\"; W = \"set\"; };\n"
                                      L"instance of K { Id = 0x1; V = \"second\"; };\n",
                                      L"replace.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    std::vector<CimInstance> all;
    ASSERT_EQ(m_repository.EnumInstances(L"root\\default", L"K", all), S_OK);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(Value(L"K.Id=1", L"V", L"root\\default") == CimValue(L"second"));
    EXPECT_TRUE(Value(L"K.Id=1", L"W", L"root\\default") == CimValue(L"w"));
    // Aliases may be used before their declaration.
    result = m_repository.CompileText(L"class N { [key] string K; };\nclass L { [key] N ref Target; };\n"
                                      L"class R { [key] string K; N ref One; N ref Many[]; L ref Link; };\n"
                                      L"instance of R { K = \"r\"; One = $n1; Many = {$n1, $n2}; Link = $l; };\n"
                                      L"instance of L as $l { Target = $n2; };\n"
                                      L"instance of N as $n1 { K = \"one\"; };\n"
                                      L"instance of N as $n2 { K = \"two\"; };\n",
                                      L"forward.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    EXPECT_TRUE(Value(L"R.K=\"r\"", L"One", L"root\\default") == CimValue(L"N.K=\"one\""));
    EXPECT_TRUE(Value(L"R.K=\"r\"", L"Many", L"root\\default") ==
                CimValue::Array({S(L"N.K=\"one\""), S(L"N.K=\"two\"")}));
    EXPECT_TRUE(Value(L"R.K=\"r\"", L"Link", L"root\\default") == CimValue(L"L.Target=\"N.K=\\\"two\\\"\""));
}

TEST_F(cimstoreMofCompiler, ErrorsCarryFileLineAndColumn)
{
    const HRESULT kSyntax = Hr(WBEM_E_INVALID_SYNTAX), kMismatch = Hr(WBEM_E_TYPE_MISMATCH);
    const struct { const char* szName; const wchar_t* wszText; HRESULT hr; int line; int column; } rows[] = {
        {"unterminated string", CIMV2 L"instance of Test_Disk\n{\n  Name = \"abc;\n};", kSyntax, 4, 10},
        {"unknown class", CIMV2 L"instance of Nope\n{ };", Hr(WBEM_E_INVALID_CLASS), 2, 13},
        {"string into integer", CIMV2 L"instance of Test_Service {\n Name = \"x\";\n Priority = \"high\"; };",
         kMismatch, 4, 13},
        {"uint8 out of range", CIMV2 L"instance of Test_Driver { Level = 256; };", kMismatch, 2, 35},
        {"real into integer", CIMV2 L"instance of Test_Disk { SizeMB = 1.5; };", kMismatch, 2, 34},
        {"duplicate key declaration", L"class Dup\n{\n  [Key] string K;\n  [Key] string k;\n};",
         Hr(WBEM_E_ALREADY_EXISTS), 4, 16},
        {"duplicate property in instance", CIMV2 L"instance of Test_Disk {\n Name = \"x\";\n\tname = \"y\"; };",
         Hr(WBEM_E_ALREADY_EXISTS), 4, 2},
        {"unknown property", CIMV2 L"instance of Test_Disk { Name = \"x\"; Size = 1; };", Hr(WBEM_E_NOT_FOUND), 2, 37},
        {"missing semicolon", L"class A\n{\n  string B\n};", kSyntax, 4, 1},
        {"unknown superclass", L"class A : Missing { };", Hr(WBEM_E_INVALID_SUPERCLASS), 1, 11},
        {"unknown type", L"class A { strng B; };", Hr(WBEM_E_INVALID_PROPERTY_TYPE), 1, 11},
        {"unknown escape", L"class A { string B = \"x\\qy\"; };", kSyntax, 1, 24},
        {"unterminated comment", L"class A { };\n  /* no end", kSyntax, 2, 3},
        {"key without value", CIMV2 L"  instance of Test_Disk { SizeMB = 1; };", Hr(WBEM_E_ILLEGAL_NULL), 2, 3},
        {"abstract class", CIMV2 L"instance of Test_Element { Name = \"x\"; };", Hr(WBEM_E_INVALID_OPERATION), 2, 1},
        {"undefined alias", CIMV2 L"instance of Test_Dependency { Antecedent = $Nobody; };", kSyntax, 2, 44},
        {"unknown flavor", L"[Description(\"x\") : ToEveryone]\nclass A { };", Hr(WBEM_E_INVALID_FLAVOR), 1, 21},
        {"stray token", L"class A { };\nwhatever", kSyntax, 2, 1},
        {"bad octal", L"class A { uint32 B = 09; };", kSyntax, 1, 22},
        {"class with instances replaced", CIMV2 L"class Test_Disk : Test_Element { };", Hr(WBEM_E_CLASS_HAS_INSTANCES),
         2, 7},
        {"delete of a missing instance", CIMV2 L"#pragma deleteinstance(\"Test_Disk.Name=\\\"Q:\\\"\", FAIL)\n",
         Hr(WBEM_E_NOT_FOUND), 2, 24},
        {"circular aliases", L"class C { [key] C ref Other; };\ninstance of C as $a { Other = $b; };\n"
                             L"instance of C as $b { Other = $a; };\n", kSyntax, 2, 31},
    };
    for (const auto& row : rows) {
        // A failed compilation leaves the repository as it was, so the rows can share it.
        const MofResult result = m_repository.CompileText(row.wszText, L"t.mof");
        EXPECT_EQ(result.hr, row.hr) << row.szName << std::hex << " hr=0x" << result.hr << " "
                                     << Narrow(result.message);
        EXPECT_EQ(result.line, row.line) << row.szName << " " << Narrow(result.message);
        EXPECT_EQ(result.column, row.column) << row.szName << " " << Narrow(result.message);
        const std::wstring prefix = L"t.mof:" + std::to_wstring(row.line) + L":" + std::to_wstring(row.column) + L": ";
        EXPECT_EQ(result.message.rfind(prefix, 0), 0u) << row.szName << " " << Narrow(result.message);
    }
    EXPECT_FALSE(m_repository.HasNamespace(L"root\\default")) << "nothing of a failed compilation stays";
    CimRepository empty(kServer);
    MofResult result = empty.CompileFile(Fixture(L"broken.mof"));
    EXPECT_EQ(result.hr, Hr(WBEM_E_INVALID_PROPERTY_TYPE)) << Narrow(result.message);
    EXPECT_NE(result.file.find(L"broken_part.mof"), std::wstring::npos) << Narrow(result.message);
    EXPECT_EQ(result.line, 4);
    EXPECT_EQ(result.column, 5);
    EXPECT_FALSE(empty.HasNamespace(kCimv2)) << "nothing of a failed compilation stays";
}

TEST_F(cimstoreMofCompiler, FailedCompilationLeavesRepositoryUnchanged)
{
    std::wstring before;
    ASSERT_EQ(m_repository.SerializeNamespace(kCimv2, true, before), S_OK);
    const wchar_t* wszText = CIMV2 L"instance of Test_Disk { Name = \"new\"; };\n"
                                   L"instance of Test_Disk { Name = \"C:\"; SizeMB = 1; };\n"
                                   L"#pragma deleteinstance(\"Test_Service.Name=\\\"Spooler\\\"\", FAIL)\n"
                                   L"class Test_New { };\n#pragma namespace(\"brand_new\")\n"
                                   L"class Test_Newer { };\ninstance of Test_Disk { Name = 5; };\n";
    const MofResult result = m_repository.CompileText(wszText, L"partial.mof");
    ASSERT_EQ(result.hr, Hr(WBEM_E_INVALID_CLASS)) << Narrow(result.message);
    std::wstring after;
    ASSERT_EQ(m_repository.SerializeNamespace(kCimv2, true, after), S_OK);
    EXPECT_EQ(after, before);
    EXPECT_FALSE(m_repository.HasNamespace(L"root\\cimv2\\brand_new"));
    EXPECT_EQ(m_repository.TrackedChangeCount(), 0u);
}

TEST_F(cimstoreMofCompiler, QualifierDeclarationsMethodsAndOtherPragmasAreAccepted)
{
    const MofResult result = m_repository.CompileText(
        L"#pragma locale(\"ms_409\")\n#pragma classflags(\"forceupdate\")\n#pragma autorecover\n"
        L"Qualifier Description : ToSubClass Amended;\n"
        L"qualifier Values : string[] = {\"a\", \"b\"}, scope(property), flavor(DisableOverride);\n"
        L"[dynamic, provider(\"P\"), ValueMap{\"1\", \"2\"}, Weight(2.5), Count(-3), Nothing(NULL), Off(false),"
        L" None{}]\n"
        L"class Q { [key, MaxLen(10) : DisableOverride] string K; void Run([in] object ref Target); };\n",
        L"q.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    CimClassPtr cls;
    ASSERT_EQ(m_repository.GetClass(L"root\\default", L"Q", cls), S_OK);
    const struct { const wchar_t* wszName; CIMTYPE type; CimValue value; } rows[] = {
        {L"dynamic", CIM_BOOLEAN, true}, {L"Provider", CIM_STRING, L"P"}, {L"Weight", CIM_REAL64, 2.5},
        {L"ValueMap", CIM_STRING | CIM_FLAG_ARRAY, CimValue::Array({S(L"1"), S(L"2")})},
        {L"Count", CIM_SINT32, int64_t{-3}}, {L"Nothing", CIM_STRING, CimValue()}, {L"Off", CIM_BOOLEAN, false},
        {L"None", CIM_STRING | CIM_FLAG_ARRAY, CimValue::Array({})}};
    for (const auto& row : rows) {
        const CimQualifier* pq = cls->Qualifiers().Find(row.wszName);
        ASSERT_NE(pq, nullptr) << Narrow(row.wszName);
        EXPECT_TRUE(pq->type == row.type && pq->value == row.value) << Narrow(row.wszName);
    }
    EXPECT_EQ(cls->Properties().size(), 1u) << "methods are not properties";
}

}  // namespace
