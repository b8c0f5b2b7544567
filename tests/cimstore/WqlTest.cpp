// WQL: SELECT with every operator and nesting, errors, ASSOCIATORS OF and REFERENCES OF.
#include "CimTestSupport.h"

#include "cimstore/WqlParser.h"

#include <gtest/gtest.h>

using namespace cimstore;
using namespace cimtest;

namespace {

class cimstoreWql : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_pRepository = new CimRepository(kServer);
        const MofResult result = LoadFixture(*s_pRepository);
        ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    }
    static void TearDownTestSuite()
    {
        delete s_pRepository;
        s_pRepository = nullptr;
    }
    static CimRepository* s_pRepository;
};

CimRepository* cimstoreWql::s_pRepository = nullptr;

struct QueryRow {
    const wchar_t* wszQuery;
    const wchar_t* wszColumn;
    std::vector<std::wstring> expected;
};

TEST_F(cimstoreWql, SelectFiltersLikeWmi)
{
    const std::vector<std::wstring> allServices = {L"RpcSs", L"Spooler", L"W3SVC", L"disk"};
    const QueryRow rows[] = {
        {L"SELECT * FROM Test_Service", L"Name", allServices},
        {L"select * from test_service", L"Name", allServices},
        {L"SELECT * FROM Test_Element WHERE __CLASS = \"Test_Disk\"", L"Name", {L"C:", L"D:"}},
        {L"SELECT * FROM Test_Driver", L"Name", {L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Started = TRUE", L"Name", {L"RpcSs", L"Spooler", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Started = false", L"Name", {L"W3SVC"}},
        {L"SELECT * FROM Test_Service WHERE NOT Started = TRUE", L"Name", {L"W3SVC"}},
        {L"SELECT * FROM Test_Service WHERE Name = 'spooler'", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Caption = \"NONE\"", L"Name", {L"RpcSs"}},
        {L"SELECT * FROM Test_Service WHERE Priority <> 5", L"Name", {L"RpcSs", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Priority != 5", L"Name", {L"RpcSs", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Priority < 0", L"Name", {L"W3SVC"}},
        {L"SELECT * FROM Test_Service WHERE 0 > Priority", L"Name", {L"W3SVC"}},
        {L"SELECT * FROM Test_Service WHERE Priority <= 0", L"Name", {L"RpcSs", L"W3SVC"}},
        {L"SELECT * FROM Test_Service WHERE Priority >= 5", L"Name", {L"Spooler", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Priority > \"4\"", L"Name", {L"Spooler", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Bytes > 4096", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Bytes < \"1025\"", L"Name", {L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Bytes = 18446744073709551615", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Flags = 16", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Load = 0.25", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Load IS NULL", L"Name", {L"RpcSs", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Load is not null", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Load = NULL", L"Name", {L"RpcSs", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Load <> NULL", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE Tags IS NULL", L"Name", {L"RpcSs", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Load > 0 OR Load <= 0", L"Name", {L"Spooler"}},
        {L"SELECT * FROM Test_Service WHERE NOT Load > 0", L"Name", {L"RpcSs", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Priority > 0 AND (Started = TRUE OR Name = \"W3SVC\")", L"Name",
         {L"Spooler", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE Started = FALSE OR Priority = 10 AND Name = \"disk\"", L"Name",
         {L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Service WHERE (Started = FALSE OR Priority = 10) AND Name = \"disk\"", L"Name",
         {L"disk"}},
        {L"SELECT * FROM Test_Service WHERE NOT (Priority > 0 OR Load IS NULL)", L"Name", {}},
        {L"SELECT * FROM Test_Service WHERE NOT (NOT (Name = \"RpcSs\"))", L"Name", {L"RpcSs"}},
        {L"SELECT * FROM Test_Service WHERE ((Priority = -3))", L"Name", {L"W3SVC"}},
        {L"SELECT * FROM Test_Service WHERE Name = 5", L"Name", {}},
        {L"SELECT * FROM Test_Service WHERE Priority = \"high\"", L"Name", {}},
        {L"SELECT * FROM Test_Element WHERE __this ISA \"Test_Service\"", L"Name", allServices},
        {L"SELECT * FROM Test_Element WHERE __CLASS ISA Test_Driver", L"Name", {L"disk"}},
        {L"SELECT * FROM Test_Element WHERE __RELPATH = 'Test_Disk.Name=\"C:\"'", L"Name", {L"C:"}},
        {L"SELECT * FROM Test_Disk WHERE Letter = 67", L"Name", {L"C:"}},
        {L"SELECT * FROM Test_Disk WHERE Offset < -1", L"Name", {L"C:"}},
        {L"SELECT * FROM Test_Setting", L"Mode", {L"manual"}},
        {L"SELECT Name, Priority FROM Test_Service WHERE Priority > 0", L"Caption", {L"<null>", L"<null>"}},
        {L"SELECT Name, Priority FROM Test_Service WHERE Priority > 0", L"Priority", {L"10", L"5"}},
    };
    for (const QueryRow& row : rows) {
        std::vector<CimInstance> results;
        const HRESULT hr = s_pRepository->ExecQuery(kCimv2, row.wszQuery, results);
        EXPECT_EQ(hr, S_OK) << Narrow(row.wszQuery) << std::hex << " hr=0x" << hr;
        EXPECT_EQ(Column(results, row.wszColumn), Sorted(row.expected)) << Narrow(row.wszQuery);
    }
}

TEST_F(cimstoreWql, ErrorsAreInvalidQueryOrInvalidClass)
{
    const struct {
        const wchar_t* wszQuery;
        HRESULT hr;
    } rows[] = {
        {L"SELECT * FROM NoSuchClass", Hr(WBEM_E_INVALID_CLASS)},
        {L"SELECT FROM Test_Service", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELEC * FROM Test_Service", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * Test_Service", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Nope = 1", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE __NOPE = 1", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT Nope FROM Test_Service", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE (Priority = 1", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Priority = 1)", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Name = 'open", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Name == 'x'", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Priority < NULL", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Priority AND Name = 'x'", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Name = 'x' AND", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE 1 = 1", Hr(WBEM_E_INVALID_QUERY)},
        {L"SELECT * FROM Test_Service WHERE Name LIKE 'S%'", Hr(WBEM_E_INVALID_QUERY)},
        {L"", Hr(WBEM_E_INVALID_QUERY)},
        {L"ASSOCIATORS Test_Service.Name=\"Spooler\"", Hr(WBEM_E_INVALID_QUERY)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"", Hr(WBEM_E_INVALID_QUERY)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE", Hr(WBEM_E_INVALID_QUERY)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE Bogus = X", Hr(WBEM_E_INVALID_QUERY)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE Role = A Role = B", Hr(WBEM_E_INVALID_QUERY)},
        {L"REFERENCES OF {Test_Service.Name=\"Spooler\"} WHERE AssocClass = Test_Dependency", Hr(WBEM_E_INVALID_QUERY)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = NoSuch", Hr(WBEM_E_INVALID_CLASS)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Nobody\"}", Hr(WBEM_E_NOT_FOUND)},
        {L"ASSOCIATORS OF {NoSuch.Name=\"x\"}", Hr(WBEM_E_NOT_FOUND)},
        {L"REFERENCES OF {Test_Service.Name=}", Hr(WBEM_E_INVALID_OBJECT_PATH)},
    };
    for (const auto& row : rows) {
        std::vector<CimInstance> results(1);
        const HRESULT hr = s_pRepository->ExecQuery(kCimv2, row.wszQuery, results);
        EXPECT_EQ(hr, row.hr) << Narrow(row.wszQuery) << std::hex << " hr=0x" << hr;
        EXPECT_TRUE(results.empty()) << Narrow(row.wszQuery);
    }
}

TEST_F(cimstoreWql, ProjectionKeepsKeysAndSelectedProperties)
{
    std::vector<CimInstance> results;
    ASSERT_EQ(s_pRepository->ExecQuery(kCimv2, L"SELECT Priority FROM Test_Service WHERE Name = 'W3SVC'", results),
              S_OK);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].RelPath(), L"Test_Service.Name=\"W3SVC\"");
    CimValue value;
    ASSERT_EQ(results[0].Get(L"Priority", value), S_OK);
    EXPECT_TRUE(value == CimValue(int64_t{-3}));
    ASSERT_EQ(results[0].Get(L"Started", value), S_OK);
    EXPECT_TRUE(value.IsNull());
}

TEST_F(cimstoreWql, AssociatorsWalkAcrossInheritance)
{
    const QueryRow rows[] = {
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"}", L"Name", {L"C:", L"RpcSs", L"disk"}},
        {L"associators of {test_service.name='SPOOLER'}", L"Name", {L"C:", L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = Test_Disk", L"Name", {L"C:"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = Test_Service", L"Name",
         {L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = Test_Driver", L"Name", {L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE AssocClass = Test_Dependency", L"Name",
         {L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE AssocClass = Test_HardDependency", L"Name",
         {L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE Role = Dependent", L"Name", {L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE Role = Antecedent", L"Name", {}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE Role = Service", L"Name", {L"C:"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE ResultRole = Antecedent", L"Name",
         {L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = Test_Service AssocClass = "
         L"Test_HardDependency Role = Dependent ResultRole = Antecedent",
         L"Name",
         {L"disk"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"} WHERE RequiredAssocQualifier = Association", L"Name",
         {L"C:", L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Element.Name=\"RpcSs\"}", L"Name", {L"Spooler", L"W3SVC"}},
        {L"ASSOCIATORS OF {\\\\OTHER\\root\\cimv2:Test_Service.Name=\"RpcSs\"}", L"Name", {L"Spooler", L"W3SVC"}},
        {L"ASSOCIATORS OF {Test_Driver.Name=\"disk\"} WHERE ResultClass = Test_Disk AssocClass = Test_ServiceDisk",
         L"Name",
         {L"D:"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"disk\"} WHERE ResultRole = Dependent", L"Name", {L"Spooler"}},
        {L"ASSOCIATORS OF {Test_Disk.Name=\"D:\"}", L"Name", {L"disk"}},
        {L"ASSOCIATORS OF {Test_Setting=@}", L"Name", {}},
        {L"REFERENCES OF {Test_Service.Name=\"Spooler\"}", L"__CLASS",
         {L"Test_Dependency", L"Test_HardDependency", L"Test_ServiceDisk"}},
        {L"REFERENCES OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = Test_Dependency", L"__CLASS",
         {L"Test_Dependency", L"Test_HardDependency"}},
        {L"REFERENCES OF {Test_Service.Name=\"Spooler\"} WHERE ResultClass = Test_HardDependency", L"__CLASS",
         {L"Test_HardDependency"}},
        {L"REFERENCES OF {Test_Service.Name=\"Spooler\"} WHERE Role = Service", L"__CLASS", {L"Test_ServiceDisk"}},
        {L"REFERENCES OF {Test_Service.Name=\"RpcSs\"} WHERE Role = Antecedent", L"Dependent",
         {L"Test_Service.Name=\"Spooler\"", L"Test_Service.Name=\"W3SVC\""}},
        {L"REFERENCES OF {Test_Disk.Name=\"C:\"} WHERE ResultClass = Test_Dependency", L"__CLASS", {}},
    };
    for (const QueryRow& row : rows) {
        std::vector<CimInstance> results;
        const HRESULT hr = s_pRepository->ExecQuery(kCimv2, row.wszQuery, results);
        EXPECT_EQ(hr, S_OK) << Narrow(row.wszQuery) << std::hex << " hr=0x" << hr;
        EXPECT_EQ(Column(results, row.wszColumn), Sorted(row.expected)) << Narrow(row.wszQuery);
    }
}

TEST(cimstoreWqlParser, KeepsStructure)
{
    WqlQuery q;
    ASSERT_EQ(ParseWql(L"SELECT a, B FROM C WHERE NOT x = 1 OR y = 'z' AND w IS NOT NULL", q), S_OK);
    EXPECT_EQ(q.className, L"C");
    ASSERT_EQ(q.properties.size(), 2u);
    ASSERT_NE(q.where, nullptr);
    // OR binds loosest, AND tighter, NOT tightest.
    EXPECT_EQ(q.where->kind, WqlExpr::Kind::Or);
    EXPECT_EQ(q.where->left->kind, WqlExpr::Kind::Not);
    EXPECT_EQ(q.where->right->kind, WqlExpr::Kind::And);
    EXPECT_EQ(q.where->right->right->kind, WqlExpr::Kind::IsNotNull);
    ASSERT_EQ(ParseWql(L"REFERENCES OF { A.B=\"}\" } WHERE ResultClass = X Role = R", q), S_OK);
    EXPECT_EQ(q.kind, WqlQuery::Kind::References);
    EXPECT_EQ(q.sourcePath, L"A.B=\"}\"");
    EXPECT_EQ(q.resultClass, L"X");
    EXPECT_EQ(q.role, L"R");
}

}  // namespace
