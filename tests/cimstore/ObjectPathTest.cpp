// Object path parsing, printing and lookups by path.
#include "CimTestSupport.h"

#include "cimstore/ObjectPath.h"

using namespace cimstore;
using namespace cimtest;

namespace {

constexpr HRESULT kBadPath = Hr(WBEM_E_INVALID_OBJECT_PATH);

TEST(cimstorePath, ParsesEveryForm)
{
    const struct { const wchar_t *wszPath; HRESULT hr; const wchar_t *wszServer = L"", *wszNamespace = L"",
        *wszClass = L""; size_t keys = 0; bool singleton = false; } rows[] = {
        {L"Win32_Service.Name=\"Spooler\"", S_OK, L"", L"", L"Win32_Service", 1},
        {L"\\\\SRV\\root\\cimv2:Win32_Service.Name=\"a:b\"", S_OK, L"SRV", L"root\\cimv2", L"Win32_Service", 1},
        {L"//./root/cimv2:Win32_Service", S_OK, L".", L"root\\cimv2", L"Win32_Service", 0},
        {L"root\\default:C.A=1,B=\"x\"", S_OK, L"", L"root\\default", L"C", 2}, {L"C=@", S_OK, L"", L"", L"C", 0, true},
        {L"C=\"short\"", S_OK, L"", L"", L"C", 1}, {L"C.K=-5", S_OK, L"", L"", L"C", 1},
        {L"C.K='single \"quoted\"'", S_OK, L"", L"", L"C", 1}, {L"C.K=TRUE", S_OK, L"", L"", L"C", 1},
        {L"C.K=\"a\\\"b,c=d\"", S_OK, L"", L"", L"C", 1},
        {L"", kBadPath}, {L"C.K=\"open", kBadPath}, {L"C.K=abc", kBadPath}, {L"C.=1", kBadPath}, {L"C.K=1,", kBadPath},
        {L"\\\\\\root:C", kBadPath}, {L"C.K=\"x\"junk", kBadPath},
    };
    for (const auto& row : rows) {
        ObjectPath path;
        const std::string name = Narrow(row.wszPath);
        const HRESULT hr = ParseObjectPath(row.wszPath, path);
        EXPECT_EQ(hr, row.hr) << name << std::hex << " hr=0x" << hr;
        if (FAILED(row.hr) || FAILED(hr))
            continue;
        EXPECT_TRUE(path.server == row.wszServer && path.ns == row.wszNamespace && path.className == row.wszClass &&
                    path.keys.size() == row.keys && path.singleton == row.singleton) << name;
    }
    ObjectPath path;
    ASSERT_EQ(ParseObjectPath(L"C.K=\"a\\\\b\\\"c\"", path), S_OK);
    ASSERT_EQ(path.keys.size(), 1u);
    EXPECT_EQ(std::get<std::wstring>(path.keys[0].value), L"a\\b\"c");
    EXPECT_EQ(QuoteString(L"a\\b\"c"), L"\"a\\\\b\\\"c\"");
}

using cimstorePathLookup = LoadedRepository;

TEST_F(cimstorePathLookup, FindsInstancesByAnyEquivalentPath)
{
    const wchar_t* spooler = L"Test_Service.Name=\"Spooler\"";
    const wchar_t* numbered = L"Test_Numbered.alpha=TRUE,Id=7,Part=\"a\\\\b\\\"c\"";
    const wchar_t* dependency = L"Test_Dependency.Antecedent=\"Test_Service.Name=\\\"RpcSs\\\"\","
                                L"Dependent=\"Test_Service.Name=\\\"Spooler\\\"\"";
    const HRESULT kNotFound = Hr(WBEM_E_NOT_FOUND);
    const struct { const wchar_t* wszPath; HRESULT hr; const wchar_t* wszRelPath = nullptr; } rows[] = {
        {L"test_service.NAME=\"sPOOLER\"", S_OK, spooler}, {L"Test_Element.Name=\"Spooler\"", S_OK, spooler},
        {L"Test_Service.Name=\"disk\"", S_OK, L"Test_Driver.Name=\"disk\""},
        {L"Test_Service=\"Spooler\"", S_OK, spooler},
        {L"\\\\ELSEWHERE\\ROOT\\CIMV2:Test_Service.Name=\"Spooler\"", S_OK, spooler},
        {L"Test_Numbered.Id=\"7\",Part=\"A\\\\B\\\"C\",alpha=1", S_OK, numbered},
        {L"Test_Setting=@", S_OK, L"Test_Setting=@"}, {dependency, S_OK, dependency},
        {L"root\\cimv2\\sub:Test_Local.Id=-1", S_OK, L"Test_Local.Id=-1"},
        {L"Test_Driver.Name=\"Spooler\"", kNotFound}, {L"Test_Service.Name=\"Nobody\"", kNotFound},
        {L"NoSuchClass.Name=\"x\"", kNotFound}, {L"Test_Service.Nope=\"x\"", kBadPath},
        {L"Test_Service.Name=\"x\",Extra=1", kBadPath}, {L"Test_Service.Name=\"x\",Name=\"y\"", kBadPath},
        {L"Test_Numbered.Id=7", kBadPath}, {L"Test_Numbered.Id=\"seven\",Part=\"p\",alpha=TRUE", kBadPath},
        {L"Test_Setting.Mode=\"x\"", kBadPath}, {L"Test_Service=@", kBadPath}, {L"Test_Service", kBadPath},
        {L"root\\nowhere:Test_Service.Name=\"Spooler\"", Hr(WBEM_E_INVALID_NAMESPACE)},
    };
    for (const auto& row : rows) {
        CimInstance found;
        const HRESULT hr = m_repository.GetInstance(kCimv2, row.wszPath, found);
        EXPECT_EQ(hr, row.hr) << Narrow(row.wszPath) << std::hex << " hr=0x" << hr;
        if (SUCCEEDED(hr) && row.wszRelPath) {
            EXPECT_EQ(found.RelPath(), row.wszRelPath) << Narrow(row.wszPath);
        }
    }
}

TEST_F(cimstorePathLookup, KeysPrintInAlphabeticalOrderWithEscapes)
{
    CimInstance instance;
    ASSERT_EQ(m_repository.SpawnInstance(kCimv2, L"Test_Numbered", instance), S_OK);
    EXPECT_EQ(instance.RelPath(), L"") << "keys are still NULL";
    ASSERT_EQ(instance.Put(L"Part", CimValue(L"say \"hi\" \\ bye")), S_OK);
    ASSERT_EQ(instance.Put(L"ID", CimValue(L"12")), S_OK);
    ASSERT_EQ(instance.Put(L"Alpha", CimValue(false)), S_OK);
    const std::wstring rel = instance.RelPath();
    EXPECT_EQ(rel, L"Test_Numbered.alpha=FALSE,Id=12,Part=\"say \\\"hi\\\" \\\\ bye\"");
    EXPECT_EQ(instance.Path(), std::wstring(L"\\\\") + kServer + L"\\root\\cimv2:" + rel);
    ASSERT_EQ(m_repository.PutInstance(kCimv2, instance), S_OK);
    EXPECT_TRUE(Value(rel, L"Part") == CimValue(L"say \"hi\" \\ bye"));
}

}  // namespace
