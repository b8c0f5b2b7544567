// WQL: SELECT with every operator and nesting, errors, ASSOCIATORS OF and REFERENCES OF.
#include "CimTestSupport.h"

using namespace cimstore;
using namespace cimtest;

namespace {

std::wstring Where(const wchar_t* wsz) { return L"SELECT * FROM Test_Service WHERE " + std::wstring(wsz); }
std::wstring OfSpooler(const wchar_t* wszVerb, const wchar_t* wszWhere)
{
    return std::wstring(wszVerb) + L" OF {Test_Service.Name=\"Spooler\"}" + (*wszWhere ? L" WHERE " : L"") + wszWhere;
}
std::wstring Assoc(const wchar_t* wszWhere = L"") { return OfSpooler(L"ASSOCIATORS", wszWhere); }
std::wstring Refs(const wchar_t* wszWhere = L"") { return OfSpooler(L"REFERENCES", wszWhere); }

struct QueryRow {
    std::wstring query;
    std::vector<std::wstring> expected;
    const wchar_t* wszColumn = L"Name";
};

class cimstoreWql : public LoadedRepository {
protected:
    void Check(const std::vector<QueryRow>& rows)
    {
        for (const QueryRow& row : rows) {
            std::vector<CimInstance> results;
            const HRESULT hr = m_repository.ExecQuery(kCimv2, row.query, results);
            EXPECT_EQ(hr, S_OK) << Narrow(row.query) << std::hex << " hr=0x" << hr;
            EXPECT_EQ(Column(results, row.wszColumn), Sorted(row.expected)) << Narrow(row.query);
        }
    }
};

TEST_F(cimstoreWql, SelectFiltersLikeWmi)
{
    Check({
        {L"select * from test_service", {L"RpcSs", L"Spooler", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Element WHERE __CLASS = \"Test_Disk\"", {L"C:", L"D:"}},
        {L"SELECT * FROM Test_Driver", {L"disk"}}, {Where(L"Started = TRUE"), {L"RpcSs", L"Spooler", L"disk"}},
        {Where(L"Started = false"), {L"W3SVC"}}, {Where(L"Name = 'spooler'"), {L"Spooler"}},
        {Where(L"Caption = \"NONE\""), {L"RpcSs"}}, {Where(L"Priority <> 5"), {L"RpcSs", L"W3SVC", L"disk"}},
        {Where(L"Priority != 5"), {L"RpcSs", L"W3SVC", L"disk"}}, {Where(L"Priority < 0"), {L"W3SVC"}},
        {Where(L"0 > Priority"), {L"W3SVC"}}, {Where(L"Priority <= 0"), {L"RpcSs", L"W3SVC"}},
        {Where(L"Priority >= 5"), {L"Spooler", L"disk"}}, {Where(L"Priority > \"4\""), {L"Spooler", L"disk"}},
        {Where(L"Bytes > 4096"), {L"Spooler"}}, {Where(L"Bytes = 18446744073709551615"), {L"Spooler"}},
        {Where(L"Flags = 16"), {L"Spooler"}}, {Where(L"Load = 0.25"), {L"Spooler"}},
        {Where(L"Load IS NULL"), {L"RpcSs", L"W3SVC", L"disk"}}, {Where(L"Load is not null"), {L"Spooler"}},
        {Where(L"Load = NULL"), {L"RpcSs", L"W3SVC", L"disk"}}, {Where(L"Load <> NULL"), {L"Spooler"}},
        {Where(L"Tags IS NULL"), {L"RpcSs", L"disk"}}, {Where(L"Load > 0 OR Load <= 0"), {L"Spooler"}},
        {Where(L"NOT Load > 0"), {L"RpcSs", L"W3SVC", L"disk"}},
        {Where(L"(Started = FALSE OR Priority = 10) AND Name = \"disk\""), {L"disk"}},
        {Where(L"Started = FALSE OR Priority = 10 AND Name = \"disk\""), {L"W3SVC", L"disk"}},
        {Where(L"NOT Started = TRUE OR Priority = 10"), {L"W3SVC", L"disk"}},
        {Where(L"NOT (Priority > 0 OR Load IS NULL)"), {}}, {Where(L"NOT (NOT (Name = \"RpcSs\"))"), {L"RpcSs"}},
        {Where(L"((Priority = -3))"), {L"W3SVC"}}, {Where(L"Name = 5"), {}}, {Where(L"Priority = \"high\""), {}},
        {L"SELECT * FROM Test_Element WHERE __this ISA \"Test_Service\"", {L"RpcSs", L"Spooler", L"W3SVC", L"disk"}},
        {L"SELECT * FROM Test_Element WHERE __CLASS ISA Test_Driver", {L"disk"}},
        {L"SELECT * FROM Test_Element WHERE __RELPATH = 'Test_Disk.Name=\"C:\"'", {L"C:"}},
        {L"SELECT * FROM Test_Disk WHERE Letter = 67", {L"C:"}},
        {L"SELECT * FROM Test_Disk WHERE Offset < -1", {L"C:"}}, {L"SELECT * FROM Test_Setting", {L"manual"}, L"Mode"},
        {L"SELECT Name, Priority FROM Test_Service WHERE Priority > 0", {L"<null>", L"<null>"}, L"Caption"},
        {L"SELECT Name, Priority FROM Test_Service WHERE Priority > 0", {L"10", L"5"}, L"Priority"},
        // Projection keeps the keys as well as the selected properties.
        {L"SELECT Priority FROM Test_Service WHERE Name = 'W3SVC'", {L"W3SVC"}},
        {L"SELECT Priority FROM Test_Service WHERE Name = 'W3SVC'", {L"<null>"}, L"Started"},
    });
}

TEST_F(cimstoreWql, ErrorsAreInvalidQueryOrInvalidClass)
{
    const HRESULT kBad = Hr(WBEM_E_INVALID_QUERY);
    const struct { std::wstring query; HRESULT hr; } rows[] = {
        {L"SELECT * FROM NoSuchClass", Hr(WBEM_E_INVALID_CLASS)}, {L"SELECT FROM Test_Service", kBad}, {L"", kBad},
        {Where(L""), kBad}, {L"SELECT Nope FROM Test_Service", kBad}, {Where(L"Nope = 1"), kBad},
        {Where(L"(Priority = 1"), kBad}, {Where(L"Priority = 1)"), kBad}, {Where(L"Name = 'open"), kBad},
        {Where(L"Name == 'x'"), kBad}, {Where(L"Priority < NULL"), kBad}, {Where(L"Priority AND Name = 'x'"), kBad},
        {Where(L"1 = 1"), kBad}, {Where(L"Name LIKE 'S%'"), kBad}, {Where(L"__NOPE = 1"), kBad},
        {L"ASSOCIATORS Test_Service.Name=\"Spooler\"", kBad}, {L"ASSOCIATORS OF {Test_Service.Name=\"Spooler\"", kBad},
        {Assoc() + L" WHERE", kBad}, {Assoc(L"Bogus = X"), kBad}, {Assoc(L"Role = A Role = B"), kBad},
        {Refs(L"AssocClass = Test_Dependency"), kBad}, {Assoc(L"ResultClass = NoSuch"), Hr(WBEM_E_INVALID_CLASS)},
        {L"ASSOCIATORS OF {Test_Service.Name=\"Nobody\"}", Hr(WBEM_E_NOT_FOUND)},
        {L"ASSOCIATORS OF {NoSuch.Name=\"x\"}", Hr(WBEM_E_NOT_FOUND)},
        {L"REFERENCES OF {Test_Service.Name=}", Hr(WBEM_E_INVALID_OBJECT_PATH)},
    };
    for (const auto& row : rows) {
        std::vector<CimInstance> results(1);
        const HRESULT hr = m_repository.ExecQuery(kCimv2, row.query, results);
        EXPECT_EQ(hr, row.hr) << Narrow(row.query) << std::hex << " hr=0x" << hr;
        EXPECT_TRUE(results.empty()) << Narrow(row.query);
    }
}

TEST_F(cimstoreWql, AssociatorsWalkAcrossInheritance)
{
    Check({
        {L"associators of {test_service.name='SPOOLER'}", {L"C:", L"RpcSs", L"disk"}},
        {Assoc(L"ResultClass = Test_Disk"), {L"C:"}}, {Assoc(L"ResultClass = Test_Service"), {L"RpcSs", L"disk"}},
        {Assoc(L"ResultClass = Test_Driver"), {L"disk"}}, {Assoc(L"AssocClass = Test_Dependency"), {L"RpcSs", L"disk"}},
        {Assoc(L"AssocClass = Test_HardDependency"), {L"disk"}}, {Assoc(L"Role = Dependent"), {L"RpcSs", L"disk"}},
        {Assoc(L"Role = Antecedent"), {}}, {Assoc(L"Role = Service"), {L"C:"}},
        {Assoc(L"ResultRole = Antecedent"), {L"RpcSs", L"disk"}},
        {Assoc(L"ResultClass = Test_Service AssocClass = Test_HardDependency Role = Dependent ResultRole = Antecedent"),
         {L"disk"}},
        {Assoc(L"RequiredAssocQualifier = Association"), {L"C:", L"RpcSs", L"disk"}},
        {L"ASSOCIATORS OF {Test_Element.Name=\"RpcSs\"}", {L"Spooler", L"W3SVC"}},
        {L"ASSOCIATORS OF {\\\\OTHER\\root\\cimv2:Test_Service.Name=\"RpcSs\"}", {L"Spooler", L"W3SVC"}},
        {L"ASSOCIATORS OF {Test_Driver.Name=\"disk\"} WHERE ResultClass = Test_Disk AssocClass = Test_ServiceDisk",
         {L"D:"}},
        {L"ASSOCIATORS OF {Test_Service.Name=\"disk\"} WHERE ResultRole = Dependent", {L"Spooler"}},
        {L"ASSOCIATORS OF {Test_Disk.Name=\"D:\"}", {L"disk"}}, {L"ASSOCIATORS OF {Test_Setting=@}", {}},
        {Refs(), {L"Test_Dependency", L"Test_HardDependency", L"Test_ServiceDisk"}, L"__CLASS"},
        {Refs(L"ResultClass = Test_Dependency"), {L"Test_Dependency", L"Test_HardDependency"}, L"__CLASS"},
        {Refs(L"ResultClass = Test_HardDependency"), {L"Test_HardDependency"}, L"__CLASS"},
        {Refs(L"Role = Service"), {L"Test_ServiceDisk"}, L"__CLASS"},
        {L"REFERENCES OF {Test_Service.Name=\"RpcSs\"} WHERE Role = Antecedent",
         {L"Test_Service.Name=\"Spooler\"", L"Test_Service.Name=\"W3SVC\""}, L"Dependent"},
        {L"REFERENCES OF {Test_Disk.Name=\"C:\"} WHERE ResultClass = Test_Dependency", {}, L"__CLASS"},
    });
}

}  // namespace
