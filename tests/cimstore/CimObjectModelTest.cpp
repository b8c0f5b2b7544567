// Classes, instances, system properties, qualifiers and copy semantics.
#include "CimTestSupport.h"

using namespace cimstore;
using namespace cimtest;

namespace {

using cimstoreObjectModel = LoadedRepository;
const wchar_t kSpooler[] = L"Test_Service.Name=\"Spooler\"";
const wchar_t kDisk[] = L"Test_Driver.Name=\"disk\"";

CimScalar S(const wchar_t* wsz) { return CimScalar(std::wstring(wsz)); }

TEST_F(cimstoreObjectModel, SystemPropertiesDescribeTheInstance)
{
    const std::wstring wsServer = kServer;
    const struct { const wchar_t *wszPath, *wszProperty; CimValue expected; CIMTYPE type = CIM_STRING; } rows[] = {
        {kSpooler, L"__CLASS", L"Test_Service"}, {kSpooler, L"__relpath", kSpooler}, {kSpooler, L"__SERVER", wsServer},
        {kSpooler, L"__PATH", L"\\\\" + wsServer + L"\\root\\cimv2:" + kSpooler},
        {kSpooler, L"__GENUS", int64_t{2}, CIM_SINT32}, {kSpooler, L"__DYNASTY", L"Test_Element"},
        {kSpooler, L"__PROPERTY_COUNT", int64_t{9}, CIM_SINT32}, {kDisk, L"__PROPERTY_COUNT", int64_t{10}, CIM_SINT32},
        {kDisk, L"__DERIVATION", CimValue::Array({S(L"Test_Service"), S(L"Test_Element")}),
         CIM_STRING | CIM_FLAG_ARRAY},
        {kDisk, L"__SUPERCLASS", L"Test_Service"}, {L"Test_Setting=@", L"__SUPERCLASS", CimValue()},
        {L"Test_Setting=@", L"__DYNASTY", L"Test_Setting"}, {kSpooler, L"__NAMESPACE", L"root\\cimv2"}};
    for (const auto& row : rows) {
        CimValue value;
        CIMTYPE type = CIM_EMPTY;
        long flavor = 0;
        ASSERT_EQ(Get(row.wszPath).Get(row.wszProperty, value, &type, &flavor), S_OK) << Narrow(row.wszProperty);
        EXPECT_TRUE(value == row.expected) << Narrow(row.wszPath) << " " << Narrow(row.wszProperty);
        EXPECT_EQ(type, row.type) << Narrow(row.wszProperty);
        EXPECT_EQ(flavor, WBEM_FLAVOR_ORIGIN_SYSTEM) << Narrow(row.wszProperty);
    }
    const std::vector<std::wstring> names = Get(kDisk).PropertyNames(true);
    ASSERT_EQ(names.size(), 20u);
    // Inherited properties come before the class's own ones.
    EXPECT_EQ(names[10], L"Name");
    EXPECT_EQ(names.back(), L"Level");
    EXPECT_EQ(Get(kDisk).PropertyNames(false).size(), 10u);
}

TEST_F(cimstoreObjectModel, ClassesAndNamespaces)
{
    CimClassPtr cls;
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"TEST_DRIVER", cls), S_OK);
    CimValue value;
    CIMTYPE type = CIM_EMPTY;
    ASSERT_EQ(cls->GetSystemProperty(L"__PATH", value, type), S_OK);
    EXPECT_TRUE(value == CimValue(std::wstring(L"\\\\") + kServer + L"\\root\\cimv2:Test_Driver"));
    EXPECT_TRUE(cls->InheritsFrom(L"test_element"));
    EXPECT_FALSE(cls->InheritsFrom(L"Test_Disk"));
    EXPECT_EQ(cls->KeyRoot(), L"Test_Element");
    const struct { const wchar_t* wszParent; bool bDeep; std::vector<std::wstring> names; HRESULT hr = {}; } rows[] = {
        {L"Test_Element", false, {L"Test_Disk", L"Test_Service"}},
        {L"test_element", true, {L"Test_Disk", L"Test_Driver", L"Test_Service"}},
        {L"Test_Dependency", true, {L"Test_HardDependency"}}, {L"Test_Driver", true, {}},
        {L"", false, {L"Test_Dependency", L"Test_Element", L"Test_Numbered", L"Test_ServiceDisk", L"Test_Setting"}},
        {L"NoSuchClass", true, {}, Hr(WBEM_E_INVALID_CLASS)},
    };
    for (const auto& row : rows) {
        std::vector<CimClassPtr> classes;
        EXPECT_EQ(m_repository.EnumClasses(kCimv2, row.wszParent, row.bDeep, classes), row.hr)
            << Narrow(row.wszParent);
        std::vector<std::wstring> names;
        for (const CimClassPtr& p : classes)
            names.push_back(p->Name());
        EXPECT_EQ(Sorted(names), Sorted(row.names)) << Narrow(row.wszParent) << " deep " << row.bDeep;
    }
    EXPECT_EQ(m_repository.CreateNamespace(L"root\\new\\deeper"), S_OK);
    EXPECT_TRUE(m_repository.HasNamespace(L"ROOT\\NEW"));
    EXPECT_EQ(m_repository.CreateNamespace(L"Root/New/Deeper"), Hr(WBEM_E_ALREADY_EXISTS));
    EXPECT_EQ(m_repository.CreateNamespace(L"elsewhere\\x"), Hr(WBEM_E_INVALID_NAMESPACE));
    EXPECT_EQ(m_repository.GetClass(L"root\\new", L"Test_Disk", cls), Hr(WBEM_E_NOT_FOUND));
    std::vector<CimInstance> instances;
    EXPECT_EQ(m_repository.ExecQuery(L"root\\missing", L"SELECT * FROM Test_Disk", instances),
              Hr(WBEM_E_INVALID_NAMESPACE));
}

TEST_F(cimstoreObjectModel, PropertyAccess)
{
    CimInstance driver;
    ASSERT_EQ(m_repository.SpawnInstance(kCimv2, L"Test_Driver", driver), S_OK);
    CimValue value;
    ASSERT_EQ(driver.Get(L"Caption", value), S_OK);
    EXPECT_TRUE(value == CimValue(L"driver")) << "overridden default";
    for (const auto& [wszProperty, wszOrigin] : {std::pair{L"Caption", L"Test_Element"}, {L"level", L"Test_Driver"}}) {
        std::wstring origin;
        ASSERT_EQ(driver.GetPropertyOrigin(wszProperty, origin), S_OK) << Narrow(wszProperty);
        EXPECT_EQ(origin, wszOrigin) << Narrow(wszProperty);
    }
    std::wstring origin;
    EXPECT_EQ(driver.GetPropertyOrigin(L"Missing", origin), Hr(WBEM_E_NOT_FOUND));
    CimInstance disk = Get(L"Test_Disk.Name=\"C:\"");
    const struct { const wchar_t* wszProperty; CimValue value; HRESULT hr; } rows[] = {
        {L"SizeMB", L"77", S_OK}, {L"SizeMB", L"-1", Hr(WBEM_E_TYPE_MISMATCH)}, {L"Caption", 12, S_OK},
        {L"__CLASS", L"x", Hr(WBEM_E_READ_ONLY)}, {L"NoSuchProperty", 1, Hr(WBEM_E_NOT_FOUND)},
        {L"Bytes", 1, Hr(WBEM_E_TYPE_MISMATCH)}, {L"Offset", CimValue(), S_OK}};
    for (const auto& row : rows) {
        const HRESULT hr = disk.Put(row.wszProperty, row.value);
        EXPECT_EQ(hr, row.hr) << Narrow(row.wszProperty) << std::hex << " hr=0x" << hr;
    }
    ASSERT_EQ(disk.Get(L"SizeMB", value), S_OK);
    EXPECT_TRUE(value == CimValue(uint64_t{77}));
    ASSERT_EQ(disk.Get(L"Caption", value), S_OK);
    EXPECT_TRUE(value == CimValue(L"12"));
    CimInstance spooler = Get(kSpooler);
    CCVariant v;
    v.SetText(L"-12");
    ASSERT_EQ(spooler.PutVariant(L"Priority", v.Get(), 0), S_OK);
    EXPECT_EQ(spooler.PutVariant(L"Priority", v.Get(), CIM_STRING), Hr(WBEM_E_TYPE_MISMATCH));
    ASSERT_EQ(spooler.Get(L"Priority", value), S_OK);
    EXPECT_TRUE(value == CimValue(int64_t{-12}));
}

TEST_F(cimstoreObjectModel, PutAndDeleteInstance)
{
    CimInstance copy = Get(kSpooler);
    ASSERT_EQ(copy.Put(L"Priority", CimValue(99)), S_OK);
    EXPECT_TRUE(Value(kSpooler, L"Priority") == CimValue(int64_t{5})) << "handed-out instances are copies";
    ASSERT_EQ(m_repository.PutInstance(kCimv2, copy, WBEM_FLAG_UPDATE_ONLY), S_OK);
    EXPECT_TRUE(Value(kSpooler, L"Priority") == CimValue(int64_t{99}));
    CimInstance fresh;
    ASSERT_EQ(m_repository.SpawnInstance(kCimv2, L"Test_Disk", fresh), S_OK);
    EXPECT_EQ(m_repository.PutInstance(kCimv2, fresh), Hr(WBEM_E_ILLEGAL_NULL));
    ASSERT_EQ(fresh.Put(L"Name", CimValue(L"E:")), S_OK);
    EXPECT_EQ(m_repository.PutInstance(kCimv2, fresh, WBEM_FLAG_UPDATE_ONLY), Hr(WBEM_E_NOT_FOUND));
    std::wstring rel;
    EXPECT_EQ(m_repository.PutInstance(kCimv2, fresh, WBEM_FLAG_CREATE_ONLY, &rel), S_OK);
    EXPECT_EQ(rel, L"Test_Disk.Name=\"E:\"");
    EXPECT_EQ(m_repository.PutInstance(kCimv2, fresh, WBEM_FLAG_CREATE_ONLY), Hr(WBEM_E_ALREADY_EXISTS));
    CimInstance abstractOne;
    ASSERT_EQ(m_repository.SpawnInstance(kCimv2, L"Test_Element", abstractOne), S_OK);
    ASSERT_EQ(abstractOne.Put(L"Name", CimValue(L"z")), S_OK);
    EXPECT_EQ(m_repository.PutInstance(kCimv2, abstractOne), Hr(WBEM_E_INVALID_OPERATION));
    EXPECT_EQ(m_repository.SpawnInstance(kCimv2, L"NoSuch", fresh), Hr(WBEM_E_INVALID_CLASS));
    EXPECT_EQ(m_repository.PutInstance(L"root\\nowhere", fresh), Hr(WBEM_E_INVALID_NAMESPACE));
    // The key space is shared along the hierarchy: a driver named like a service replaces it.
    CimInstance driver;
    ASSERT_EQ(m_repository.SpawnInstance(kCimv2, L"Test_Driver", driver), S_OK);
    ASSERT_EQ(driver.Put(L"Name", CimValue(L"SPOOLER")), S_OK);
    EXPECT_EQ(m_repository.PutInstance(kCimv2, driver, WBEM_FLAG_CREATE_ONLY), Hr(WBEM_E_ALREADY_EXISTS));
    ASSERT_EQ(m_repository.PutInstance(kCimv2, driver), S_OK);
    EXPECT_EQ(Get(kSpooler).ClassName(), L"Test_Driver");
    const wchar_t* wszD = L"Test_Disk.Name=\"D:\"";
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, wszD), S_OK);
    CimInstance gone;
    EXPECT_EQ(m_repository.GetInstance(kCimv2, wszD, gone), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, wszD), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, L"Test_Driver.Name=\"RpcSs\""), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, L"Test_Disk.Name=="), Hr(WBEM_E_INVALID_OBJECT_PATH));
}

TEST_F(cimstoreObjectModel, QualifiersPropagateByFlavor)
{
    CimClassPtr element, service;
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"Test_Element", element), S_OK);
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"Test_Service", service), S_OK);
    EXPECT_TRUE(element->IsAbstract());
    EXPECT_FALSE(service->IsAbstract()) << "Abstract is restricted to its class";
    EXPECT_EQ(service->Qualifiers().Find(L"Locale"), nullptr) << "Restricted";
    const CimQualifier* pDescription = service->Qualifiers().Find(L"description");
    ASSERT_NE(pDescription, nullptr);
    EXPECT_EQ(pDescription->flavor & WBEM_FLAVOR_MASK_ORIGIN, WBEM_FLAVOR_ORIGIN_PROPAGATED);
    EXPECT_TRUE(pDescription->value == CimValue(L"Root of the test schema"));
    const CimInstance spooler = Get(kSpooler);
    EXPECT_NE(spooler.EffectiveQualifiers().Find(L"Description"), nullptr) << "ToInstance";
    EXPECT_TRUE(Get(kDisk).Qualifiers().IsTrue(L"NoPut")) << "instance qualifier kept";
    EXPECT_EQ(spooler.Qualifiers().Find(L"NoPut"), nullptr);
    CimInstance changed = Get(kDisk);
    ASSERT_EQ(changed.Put(L"Level", CimValue(3)), S_OK);
    EXPECT_FALSE(Get(kDisk).Equals(changed, true)) << "the persistence round trips rely on Equals";
    CimClassPtr hard;
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"Test_HardDependency", hard), S_OK);
    const CimQualifier* pAssociation = hard->Qualifiers().Find(L"Association");
    ASSERT_NE(pAssociation, nullptr);
    EXPECT_EQ(pAssociation->flavor & WBEM_FLAVOR_MASK_PROPAGATION,
              WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS | WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE);
    EXPECT_TRUE(pAssociation->flavor & WBEM_FLAVOR_NOT_OVERRIDABLE);
    QualifierSet qualifiers;
    EXPECT_EQ(spooler.GetPropertyQualifiers(L"Nope", qualifiers), Hr(WBEM_E_NOT_FOUND));
    const CimInstance numbered = Get(L"Test_Numbered.alpha=TRUE,Id=7,Part=\"a\\\\b\\\"c\"");
    ASSERT_EQ(numbered.GetPropertyQualifiers(L"Value", qualifiers), S_OK);
    const CimQualifier* pNote = qualifiers.Find(L"NOTE");
    ASSERT_NE(pNote, nullptr);
    EXPECT_TRUE(pNote->value == CimValue(L"local"));
}

}  // namespace
