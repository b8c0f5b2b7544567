// The MOF compiler: pragmas, literals, replacement, errors with positions, all-or-nothing.
#include "CimTestSupport.h"

#include <gtest/gtest.h>

using namespace cimstore;
using namespace cimtest;

namespace {

CimValue Property(const CimRepository& repository, const wchar_t* wszNs, const wchar_t* wszPath,
                  const wchar_t* wszProperty)
{
    CimInstance instance;
    CimValue value;
    EXPECT_EQ(repository.GetInstance(wszNs, wszPath, instance), S_OK) << Narrow(wszPath);
    if (instance.IsValid()) {
        EXPECT_EQ(instance.Get(wszProperty, value), S_OK) << Narrow(wszProperty);
    }
    return value;
}

TEST(cimstoreMofCompiler, FixtureLiteralsArriveTyped)
{
    CimRepository repository(kServer);
    const MofResult result = LoadFixture(repository);
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    const struct {
        const wchar_t* wszPath;
        const wchar_t* wszProperty;
        CimValue expected;
    } rows[] = {
        {L"Test_Service.Name=\"Spooler\"", L"Caption", CimValue(L"Print Spooler")},
        {L"Test_Service.Name=\"Spooler\"", L"Bytes", CimValue(uint64_t{18446744073709551615u})},
        {L"Test_Service.Name=\"Spooler\"", L"Flags", CimValue(uint64_t{16})},
        {L"Test_Service.Name=\"Spooler\"", L"Load", CimValue(0.25)},
        {L"Test_Service.Name=\"Spooler\"", L"Tags",
         CimValue::Array({CimScalar(std::wstring(L"print")), CimScalar(std::wstring(L"queue"))})},
        {L"Test_Service.Name=\"W3SVC\"", L"Caption", CimValue(L"Web \"publishing\"\tservice")},
        {L"Test_Service.Name=\"W3SVC\"", L"Priority", CimValue(int64_t{-3})},
        {L"Test_Service.Name=\"W3SVC\"", L"Tags", CimValue::Array({})},
        {L"Test_Service.Name=\"RpcSs\"", L"Caption", CimValue(L"none")},
        {L"Test_Service.Name=\"RpcSs\"", L"Load", CimValue()},
        {L"Test_Driver.Name=\"disk\"", L"Caption", CimValue(L"C:\\Windows\\System32")},
        {L"Test_Disk.Name=\"C:\"", L"Offset", CimValue(INT64_MIN)},
        {L"Test_Disk.Name=\"C:\"", L"Caption", CimValue()},
        {L"Test_Disk.Name=\"D:\"", L"Tiny", CimValue()},
        {L"Test_Disk.Name=\"C:\"", L"Letter", CimValue(int64_t{L'C'})},
        {L"Test_Disk.Name=\"C:\"", L"Ratio", CimValue(static_cast<double>(0.1f))},
        {L"Test_Disk.Name=\"C:\"", L"Tiny", CimValue(int64_t{-128})},
        {L"Test_Disk.Name=\"C:\"", L"Small", CimValue(uint64_t{65535})},
        {L"Test_Disk.Name=\"C:\"", L"Flags2", CimValue::Array({CimScalar(true), CimScalar(false)})},
        {L"Test_Disk.Name=\"C:\"", L"Bytes",
         CimValue::Array({CimScalar(uint64_t{0}), CimScalar(uint64_t{255}), CimScalar(uint64_t{8})})},
        {L"Test_Disk.Name=\"D:\"", L"Caption", CimValue(L"Line1\nLine2 \x263A")},
        {L"Test_Dependency.Antecedent=\"Test_Service.Name=\\\"RpcSs\\\"\",Dependent=\"Test_Service.Name=\\\"W3SVC\\\"\"",
         L"Dependent", CimValue(L"Test_Service.Name=\"W3SVC\"")},
        {L"Test_Setting=@", L"Mode", CimValue(L"manual")},
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(Property(repository, kCimv2, row.wszPath, row.wszProperty) == row.expected)
            << Narrow(row.wszPath) << " " << Narrow(row.wszProperty);
    }
    EXPECT_TRUE(repository.HasNamespace(L"ROOT\\CIMV2\\SUB")) << "relative #pragma namespace";
    EXPECT_TRUE(Property(repository, L"root\\cimv2\\sub", L"Test_Local.Id=-1", L"Id") == CimValue(int64_t{-1}));
}

TEST(cimstoreMofCompiler, NamespacePragmaForms)
{
    CimRepository repository(kServer);
    const MofResult result = repository.CompileText(
        L"#pragma namespace(\"root\\\\a\")\n"
        L"class A1 { [key] string K; };\n"
        L"#pragma namespace(\"b\")\n"
        L"class B1 { [key] string K; };\n"
        L"#pragma namespace(\"//./root/c\")\n"
        L"class C1 { [key] string K; };\n",
        L"ns.mof", L"root\\default");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    const struct {
        const wchar_t* wszNs;
        const wchar_t* wszClass;
    } rows[] = {{L"root\\a", L"A1"}, {L"root\\a\\b", L"B1"}, {L"root\\c", L"C1"}};
    for (const auto& row : rows) {
        CimClassPtr cls;
        EXPECT_EQ(repository.GetClass(row.wszNs, row.wszClass, cls), S_OK) << Narrow(row.wszNs);
        if (cls) {
            EXPECT_EQ(cls->Namespace(), row.wszNs);
        }
    }
    CimClassPtr cls;
    EXPECT_EQ(repository.GetClass(L"root\\default", L"A1", cls), Hr(WBEM_E_INVALID_NAMESPACE));
}

TEST(cimstoreMofCompiler, LaterInstanceWithSameKeyReplaces)
{
    CimRepository repository(kServer);
    const MofResult result = repository.CompileText(
        L"class K { [key] uint32 Id; string V; string W = \"w\"; };\n"
        L"instance of K { Id = 1; V = \"first\"; W = \"set\"; };\n"
        L"instance of K { Id = 0x1; V = \"second\"; };\n",
        L"replace.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    std::vector<CimInstance> all;
    ASSERT_EQ(repository.EnumInstances(L"root\\default", L"K", all), S_OK);
    ASSERT_EQ(all.size(), 1u);
    CimValue v;
    ASSERT_EQ(all[0].Get(L"V", v), S_OK);
    EXPECT_TRUE(v == CimValue(L"second"));
    ASSERT_EQ(all[0].Get(L"W", v), S_OK);
    EXPECT_TRUE(v == CimValue(L"w")) << "replacement, not merge";
}

TEST(cimstoreMofCompiler, AliasesMayBeUsedBeforeTheirDeclaration)
{
    CimRepository repository(kServer);
    const MofResult result = repository.CompileText(
        L"class N { [key] string K; };\n"
        L"class L { [key] N ref Target; };\n"
        L"class R { [key] string K; N ref One; N ref Many[]; L ref Link; };\n"
        L"instance of R { K = \"r\"; One = $n1; Many = {$n1, $n2}; Link = $l; };\n"
        L"instance of L as $l { Target = $n2; };\n"
        L"instance of N as $n1 { K = \"one\"; };\n"
        L"instance of N as $n2 { K = \"two\"; };\n",
        L"forward.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    const struct {
        const wchar_t* wszProperty;
        CimValue expected;
    } rows[] = {
        {L"One", CimValue(L"N.K=\"one\"")},
        {L"Many", CimValue::Array({CimScalar(std::wstring(L"N.K=\"one\"")), CimScalar(std::wstring(L"N.K=\"two\""))})},
        {L"Link", CimValue(L"L.Target=\"N.K=\\\"two\\\"\"")},
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(Property(repository, L"root\\default", L"R.K=\"r\"", row.wszProperty) == row.expected)
            << Narrow(row.wszProperty);
    }
}

TEST(cimstoreMofCompiler, CircularAliasesAreAnError)
{
    CimRepository repository(kServer);
    const MofResult result = repository.CompileText(L"class C { [key] C ref Other; };\n"
                                                    L"instance of C as $a { Other = $b; };\n"
                                                    L"instance of C as $b { Other = $a; };\n",
                                                    L"cycle.mof");
    EXPECT_EQ(result.hr, Hr(WBEM_E_INVALID_SYNTAX)) << Narrow(result.message);
    EXPECT_EQ(result.message.rfind(L"cycle.mof:2:31: ", 0), 0u) << Narrow(result.message);
    CimClassPtr cls;
    EXPECT_EQ(repository.GetClass(L"root\\default", L"C", cls), Hr(WBEM_E_INVALID_NAMESPACE));
}

TEST(cimstoreMofCompiler, IdenticalClassMayBeDeclaredAgain)
{
    CimRepository repository(kServer);
    ASSERT_EQ(LoadFixture(repository).hr, S_OK);
    CimClassPtr before;
    ASSERT_EQ(repository.GetClass(kCimv2, L"Test_Disk", before), S_OK);
    MofResult result = repository.CompileFile(Fixture(L"schema.mof"));
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    CimClassPtr after;
    ASSERT_EQ(repository.GetClass(kCimv2, L"Test_Disk", after), S_OK);
    EXPECT_EQ(before, after) << "the existing class stays";
    result = repository.CompileText(L"#pragma namespace(\"root\\\\cimv2\")\nclass Test_Setting { string Mode = \"x\"; };",
                                    L"changed.mof");
    EXPECT_EQ(result.hr, Hr(WBEM_E_CLASS_HAS_INSTANCES)) << Narrow(result.message);
}

TEST(cimstoreMofCompiler, DeleteInstancePragma)
{
    CimRepository repository(kServer);
    ASSERT_EQ(LoadFixture(repository).hr, S_OK);
    MofResult result = repository.CompileText(
        L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\cimv2\")\n"
        L"#pragma deleteinstance(\"Test_Disk.Name=\\\"D:\\\"\", NOFAIL)\n"
        L"#pragma deleteinstance(\"Test_Disk.Name=\\\"Q:\\\"\", NOFAIL)\n",
        L"delete.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    CimInstance gone;
    EXPECT_EQ(repository.GetInstance(kCimv2, L"Test_Disk.Name=\"D:\"", gone), Hr(WBEM_E_NOT_FOUND));
    result = repository.CompileText(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\cimv2\")\n"
                                    L"#pragma deleteinstance(\"Test_Disk.Name=\\\"Q:\\\"\", FAIL)\n",
                                    L"delete.mof");
    EXPECT_EQ(result.hr, Hr(WBEM_E_NOT_FOUND)) << Narrow(result.message);
    EXPECT_EQ(result.line, 2);
    EXPECT_EQ(result.column, 24);
}

struct ErrorRow {
    const char* szName;
    const wchar_t* wszText;
    HRESULT hr;
    int line;
    int column;
};

TEST(cimstoreMofCompiler, ErrorsCarryFileLineAndColumn)
{
    const ErrorRow rows[] = {
        {"unterminated string", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Disk\n{\n  Name = \"abc;\n};",
         Hr(WBEM_E_INVALID_SYNTAX), 4, 10},
        {"unknown class", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Nope\n{ };", Hr(WBEM_E_INVALID_CLASS), 2,
         13},
        {"string into integer",
         L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Service {\n Name = \"x\";\n Priority = \"high\"; };",
         Hr(WBEM_E_TYPE_MISMATCH), 4, 13},
        {"uint8 out of range", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Driver { Level = 256; };",
         Hr(WBEM_E_TYPE_MISMATCH), 2, 35},
        {"real into integer", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Disk { SizeMB = 1.5; };",
         Hr(WBEM_E_TYPE_MISMATCH), 2, 34},
        {"text into boolean", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Service { Started = \"yes\"; };",
         Hr(WBEM_E_TYPE_MISMATCH), 2, 38},
        {"bad datetime", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Service {InstallDate=\"today\";};",
         Hr(WBEM_E_TYPE_MISMATCH), 2, 39},
        {"scalar into array", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Service { Tags = \"a\"; };",
         Hr(WBEM_E_TYPE_MISMATCH), 2, 35},
        {"duplicate key declaration", L"class Dup\n{\n  [Key] string K;\n  [Key] string k;\n};",
         Hr(WBEM_E_ALREADY_EXISTS), 4, 16},
        {"duplicate property in instance",
         L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Disk {\n Name = \"x\";\n\tname = \"y\"; };",
         Hr(WBEM_E_ALREADY_EXISTS), 4, 2},
        {"unknown property", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Disk { Name = \"x\"; Size = 1; };",
         Hr(WBEM_E_NOT_FOUND), 2, 37},
        {"missing semicolon", L"class A\n{\n  string B\n};", Hr(WBEM_E_INVALID_SYNTAX), 4, 1},
        {"unknown superclass", L"class A : Missing { };", Hr(WBEM_E_INVALID_SUPERCLASS), 1, 11},
        {"unknown type", L"class A { strng B; };", Hr(WBEM_E_INVALID_PROPERTY_TYPE), 1, 11},
        {"unknown escape", L"class A { string B = \"x\\qy\"; };", Hr(WBEM_E_INVALID_SYNTAX), 1, 24},
        {"unterminated comment", L"class A { };\n  /* no end", Hr(WBEM_E_INVALID_SYNTAX), 2, 3},
        {"key without value", L"#pragma namespace(\"root\\\\cimv2\")\n  instance of Test_Disk { SizeMB = 1; };",
         Hr(WBEM_E_ILLEGAL_NULL), 2, 3},
        {"abstract class", L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Element { Name = \"x\"; };",
         Hr(WBEM_E_INVALID_OPERATION), 2, 1},
        {"undefined alias",
         L"#pragma namespace(\"root\\\\cimv2\")\ninstance of Test_Dependency { Antecedent = $Nobody; };",
         Hr(WBEM_E_INVALID_SYNTAX), 2, 44},
        {"unknown flavor", L"[Description(\"x\") : ToEveryone]\nclass A { };", Hr(WBEM_E_INVALID_FLAVOR), 1, 21},
        {"stray token", L"class A { };\nwhatever", Hr(WBEM_E_INVALID_SYNTAX), 2, 1},
        {"bad octal", L"class A { uint32 B = 09; };", Hr(WBEM_E_INVALID_SYNTAX), 1, 22},
        {"class with instances replaced",
         L"#pragma namespace(\"root\\\\cimv2\")\nclass Test_Disk : Test_Element { };", Hr(WBEM_E_CLASS_HAS_INSTANCES), 2,
         7},
    };
    for (const ErrorRow& row : rows) {
        CimRepository repository(kServer);
        ASSERT_EQ(LoadFixture(repository).hr, S_OK);
        const MofResult result = repository.CompileText(row.wszText, L"t.mof");
        EXPECT_EQ(result.hr, row.hr) << row.szName << std::hex << " hr=0x" << result.hr << " "
                                     << Narrow(result.message);
        EXPECT_EQ(result.line, row.line) << row.szName << " " << Narrow(result.message);
        EXPECT_EQ(result.column, row.column) << row.szName << " " << Narrow(result.message);
        const std::wstring prefix = L"t.mof:" + std::to_wstring(row.line) + L":" + std::to_wstring(row.column) + L": ";
        EXPECT_EQ(result.message.rfind(prefix, 0), 0u) << row.szName << " " << Narrow(result.message);
    }
}

TEST(cimstoreMofCompiler, ErrorsInIncludedFilesNameThatFile)
{
    CimRepository repository(kServer);
    const MofResult result = repository.CompileFile(Fixture(L"broken.mof"));
    EXPECT_EQ(result.hr, Hr(WBEM_E_INVALID_PROPERTY_TYPE)) << Narrow(result.message);
    EXPECT_NE(result.file.find(L"broken_part.mof"), std::wstring::npos) << Narrow(result.message);
    EXPECT_EQ(result.line, 4);
    EXPECT_EQ(result.column, 5);
    EXPECT_FALSE(repository.HasNamespace(kCimv2)) << "nothing of a failed compilation stays";
}

TEST(cimstoreMofCompiler, FailedCompilationLeavesRepositoryUnchanged)
{
    CimRepository repository(kServer);
    ASSERT_EQ(LoadFixture(repository).hr, S_OK);
    std::wstring before;
    ASSERT_EQ(repository.SerializeNamespace(kCimv2, true, before), S_OK);
    const MofResult result = repository.CompileText(
        L"#pragma namespace(\"root\\\\cimv2\")\n"
        L"instance of Test_Disk { Name = \"new\"; };\n"
        L"instance of Test_Disk { Name = \"C:\"; SizeMB = 1; };\n"
        L"#pragma deleteinstance(\"Test_Service.Name=\\\"Spooler\\\"\", FAIL)\n"
        L"class Test_New { };\n"
        L"#pragma namespace(\"brand_new\")\n"
        L"class Test_Newer { };\n"
        L"instance of Test_Disk { Name = 5; };\n",
        L"partial.mof");
    ASSERT_EQ(result.hr, Hr(WBEM_E_INVALID_CLASS)) << Narrow(result.message);
    std::wstring after;
    ASSERT_EQ(repository.SerializeNamespace(kCimv2, true, after), S_OK);
    EXPECT_EQ(after, before);
    EXPECT_FALSE(repository.HasNamespace(L"root\\cimv2\\brand_new"));
    EXPECT_EQ(repository.TrackedChangeCount(), 0u);
}

TEST(cimstoreMofCompiler, QualifierDeclarationsMethodsAndOtherPragmasAreAccepted)
{
    CimRepository repository(kServer);
    const MofResult result = repository.CompileText(
        L"#pragma locale(\"ms_409\")\n#pragma classflags(\"forceupdate\")\n#pragma autorecover\n"
        L"Qualifier Description : ToSubClass Amended;\n"
        L"qualifier Values : string[] = {\"a\", \"b\"}, scope(property), flavor(DisableOverride);\n"
        L"[dynamic, provider(\"P\"), ValueMap{\"1\", \"2\"}, Weight(2.5), Count(-3), Nothing(NULL), Off(false), None{}]\n"
        L"class Q { [key, MaxLen(10) : DisableOverride] string K; void Run([in] object ref Target); };\n",
        L"q.mof");
    ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    CimClassPtr cls;
    ASSERT_EQ(repository.GetClass(L"root\\default", L"Q", cls), S_OK);
    const struct {
        const wchar_t* wszName;
        CIMTYPE type;
        CimValue value;
    } rows[] = {
        {L"dynamic", CIM_BOOLEAN, CimValue(true)},
        {L"Provider", CIM_STRING, CimValue(L"P")},
        {L"ValueMap", CIM_STRING | CIM_FLAG_ARRAY,
         CimValue::Array({CimScalar(std::wstring(L"1")), CimScalar(std::wstring(L"2"))})},
        {L"Weight", CIM_REAL64, CimValue(2.5)},
        {L"Count", CIM_SINT32, CimValue(int64_t{-3})},
        {L"Nothing", CIM_STRING, CimValue()},
        {L"Off", CIM_BOOLEAN, CimValue(false)},
        {L"None", CIM_STRING | CIM_FLAG_ARRAY, CimValue::Array({})},
    };
    for (const auto& row : rows) {
        const CimQualifier* pq = cls->Qualifiers().Find(row.wszName);
        ASSERT_NE(pq, nullptr) << Narrow(row.wszName);
        EXPECT_EQ(pq->type, row.type) << Narrow(row.wszName);
        EXPECT_TRUE(pq->value == row.value) << Narrow(row.wszName);
    }
    EXPECT_EQ(cls->Properties().size(), 1u) << "methods are not properties";
}

}  // namespace
