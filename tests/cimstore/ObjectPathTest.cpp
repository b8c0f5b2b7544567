// Object path parsing, printing and lookups by path.
#include "CimTestSupport.h"

#include "cimstore/ObjectPath.h"

#include <gtest/gtest.h>

using namespace cimstore;
using namespace cimtest;

namespace {

struct ParseRow {
    const wchar_t* wszPath;
    HRESULT hr;
    const wchar_t* wszServer;
    const wchar_t* wszNamespace;
    const wchar_t* wszClass;
    size_t keys;
    bool singleton;
};

TEST(cimstorePath, ParsesEveryForm)
{
    const ParseRow rows[] = {
        {L"Win32_Service.Name=\"Spooler\"", S_OK, L"", L"", L"Win32_Service", 1, false},
        {L"\\\\SRV\\root\\cimv2:Win32_Service.Name=\"a:b\"", S_OK, L"SRV", L"root\\cimv2", L"Win32_Service", 1, false},
        {L"//./root/cimv2:Win32_Service", S_OK, L".", L"root\\cimv2", L"Win32_Service", 0, false},
        {L"root\\default:C.A=1,B=\"x\"", S_OK, L"", L"root\\default", L"C", 2, false},
        {L"C=@", S_OK, L"", L"", L"C", 0, true},
        {L"C=\"short\"", S_OK, L"", L"", L"C", 1, false},
        {L"C.K=-5", S_OK, L"", L"", L"C", 1, false},
        {L"C.K='single \"quoted\"'", S_OK, L"", L"", L"C", 1, false},
        {L"C.K=TRUE", S_OK, L"", L"", L"C", 1, false},
        {L"C.K=\"a\\\"b,c=d\"", S_OK, L"", L"", L"C", 1, false},
        {L"", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
        {L"C.K=\"open", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
        {L"C.K=abc", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
        {L"C.=1", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
        {L"C.K=1,", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
        {L"\\\\\\root:C", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
        {L"C.K=\"x\"junk", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr, nullptr, nullptr, 0, false},
    };
    for (const ParseRow& row : rows) {
        ObjectPath path;
        const HRESULT hr = ParseObjectPath(row.wszPath, path);
        EXPECT_EQ(hr, row.hr) << Narrow(row.wszPath) << std::hex << " hr=0x" << hr;
        if (FAILED(row.hr) || FAILED(hr))
            continue;
        EXPECT_EQ(path.server, row.wszServer) << Narrow(row.wszPath);
        EXPECT_EQ(path.ns, row.wszNamespace) << Narrow(row.wszPath);
        EXPECT_EQ(path.className, row.wszClass) << Narrow(row.wszPath);
        EXPECT_EQ(path.keys.size(), row.keys) << Narrow(row.wszPath);
        EXPECT_EQ(path.singleton, row.singleton) << Narrow(row.wszPath);
    }
}

TEST(cimstorePath, QuotedValuesAreUnescaped)
{
    ObjectPath path;
    ASSERT_EQ(ParseObjectPath(L"C.K=\"a\\\\b\\\"c\"", path), S_OK);
    ASSERT_EQ(path.keys.size(), 1u);
    EXPECT_EQ(std::get<std::wstring>(path.keys[0].value), L"a\\b\"c");
    EXPECT_EQ(QuoteString(L"a\\b\"c"), L"\"a\\\\b\\\"c\"");
}

class cimstorePathLookup : public testing::Test {
protected:
    void SetUp() override
    {
        const MofResult result = LoadFixture(m_repository);
        ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    }
    CimRepository m_repository{kServer};
};

struct LookupRow {
    const wchar_t* wszPath;
    HRESULT hr;
    const wchar_t* wszRelPath;  // of the instance found
};

TEST_F(cimstorePathLookup, FindsInstancesByAnyEquivalentPath)
{
    const LookupRow rows[] = {
        {L"Test_Service.Name=\"Spooler\"", S_OK, L"Test_Service.Name=\"Spooler\""},
        {L"test_service.NAME=\"sPOOLER\"", S_OK, L"Test_Service.Name=\"Spooler\""},
        {L"Test_Element.Name=\"Spooler\"", S_OK, L"Test_Service.Name=\"Spooler\""},
        {L"Test_Service.Name=\"disk\"", S_OK, L"Test_Driver.Name=\"disk\""},
        {L"Test_Service=\"Spooler\"", S_OK, L"Test_Service.Name=\"Spooler\""},
        {L"\\\\ELSEWHERE\\ROOT\\CIMV2:Test_Service.Name=\"Spooler\"", S_OK, L"Test_Service.Name=\"Spooler\""},
        {L"Test_Numbered.alpha=TRUE,Part=\"a\\\\b\\\"c\",Id=7", S_OK, L"Test_Numbered.alpha=TRUE,Id=7,Part=\"a\\\\b\\\"c\""},
        {L"Test_Numbered.Id=\"7\",Part=\"A\\\\B\\\"C\",alpha=1", S_OK,
         L"Test_Numbered.alpha=TRUE,Id=7,Part=\"a\\\\b\\\"c\""},
        {L"Test_Setting=@", S_OK, L"Test_Setting=@"},
        {L"Test_Dependency.Antecedent=\"Test_Service.Name=\\\"RpcSs\\\"\",Dependent=\"Test_Service.Name=\\\"Spooler\\\"\"",
         S_OK,
         L"Test_Dependency.Antecedent=\"Test_Service.Name=\\\"RpcSs\\\"\",Dependent=\"Test_Service.Name=\\\"Spooler\\\"\""},
        {L"root\\cimv2\\sub:Test_Local.Id=-1", S_OK, L"Test_Local.Id=-1"},
        {L"Test_Driver.Name=\"Spooler\"", Hr(WBEM_E_NOT_FOUND), nullptr},
        {L"Test_Service.Name=\"Nobody\"", Hr(WBEM_E_NOT_FOUND), nullptr},
        {L"NoSuchClass.Name=\"x\"", Hr(WBEM_E_NOT_FOUND), nullptr},
        {L"Test_Service.Nope=\"x\"", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Service.Name=\"x\",Extra=1", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Service.Name=\"x\",Name=\"y\"", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Numbered.Id=7", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Numbered.Id=\"seven\",Part=\"p\",alpha=TRUE", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Setting.Mode=\"x\"", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Service=@", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"Test_Service", Hr(WBEM_E_INVALID_OBJECT_PATH), nullptr},
        {L"root\\nowhere:Test_Service.Name=\"Spooler\"", Hr(WBEM_E_INVALID_NAMESPACE), nullptr},
    };
    for (const LookupRow& row : rows) {
        CimInstance found;
        const HRESULT hr = m_repository.GetInstance(kCimv2, row.wszPath, found);
        EXPECT_EQ(hr, row.hr) << Narrow(row.wszPath) << std::hex << " hr=0x" << hr;
        if (SUCCEEDED(hr) && row.wszRelPath) {
            EXPECT_EQ(found.RelPath(), row.wszRelPath) << Narrow(row.wszPath);
        }
    }
}

TEST_F(cimstorePathLookup, EveryInstanceIsFoundByItsOwnPaths)
{
    for (const wchar_t* wszNs : {L"root\\cimv2", L"root\\cimv2\\sub"}) {
        std::vector<CimClassPtr> classes;
        ASSERT_EQ(m_repository.EnumClasses(wszNs, L"", true, classes), S_OK);
        size_t count = 0;
        for (const CimClassPtr& cls : classes) {
            std::vector<CimInstance> instances;
            ASSERT_EQ(m_repository.EnumInstances(wszNs, cls->Name(), instances), S_OK);
            for (const CimInstance& instance : instances) {
                ++count;
                for (const std::wstring& path : {instance.RelPath(), instance.Path()}) {
                    CimInstance found;
                    ASSERT_EQ(m_repository.GetInstance(wszNs, path, found), S_OK) << Narrow(path);
                    EXPECT_TRUE(found.Equals(instance, false)) << Narrow(path);
                }
            }
        }
        EXPECT_GT(count, 0u) << Narrow(wszNs);
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
    CimInstance found;
    ASSERT_EQ(m_repository.GetInstance(kCimv2, rel, found), S_OK);
    CimValue part;
    ASSERT_EQ(found.Get(L"Part", part), S_OK);
    EXPECT_TRUE(part == CimValue(L"say \"hi\" \\ bye"));
}

}  // namespace
