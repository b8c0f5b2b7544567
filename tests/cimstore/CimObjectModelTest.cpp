// Classes, instances, system properties, qualifiers and copy semantics.
#include "CimTestSupport.h"

#include <gtest/gtest.h>

using namespace cimstore;
using namespace cimtest;

namespace {

class cimstoreObjectModel : public testing::Test {
protected:
    void SetUp() override
    {
        const MofResult result = LoadFixture(m_repository);
        ASSERT_EQ(result.hr, S_OK) << Narrow(result.message);
    }
    CimInstance Get(const wchar_t* wszPath)
    {
        CimInstance instance;
        EXPECT_EQ(m_repository.GetInstance(kCimv2, wszPath, instance), S_OK) << Narrow(wszPath);
        return instance;
    }
    CimRepository m_repository{kServer};
};

struct SystemRow {
    const wchar_t* wszPath;
    const wchar_t* wszProperty;
    CimValue expected;
    CIMTYPE type;
};

TEST_F(cimstoreObjectModel, SystemPropertiesDescribeTheInstance)
{
    const wchar_t* spooler = L"Test_Service.Name=\"Spooler\"";
    const wchar_t* disk = L"Test_Driver.Name=\"disk\"";
    const std::wstring wsServer = kServer;
    const SystemRow rows[] = {
        {spooler, L"__CLASS", CimValue(L"Test_Service"), CIM_STRING},
        {spooler, L"__relpath", CimValue(L"Test_Service.Name=\"Spooler\""), CIM_STRING},
        {spooler, L"__PATH", CimValue(L"\\\\" + wsServer + L"\\root\\cimv2:Test_Service.Name=\"Spooler\""), CIM_STRING},
        {spooler, L"__NAMESPACE", CimValue(L"root\\cimv2"), CIM_STRING},
        {spooler, L"__SERVER", CimValue(wsServer), CIM_STRING},
        {spooler, L"__GENUS", CimValue(int64_t{2}), CIM_SINT32},
        {spooler, L"__SUPERCLASS", CimValue(L"Test_Element"), CIM_STRING},
        {spooler, L"__DYNASTY", CimValue(L"Test_Element"), CIM_STRING},
        {spooler, L"__DERIVATION", CimValue::Array({CimScalar(std::wstring(L"Test_Element"))}),
         CIM_STRING | CIM_FLAG_ARRAY},
        {spooler, L"__PROPERTY_COUNT", CimValue(int64_t{9}), CIM_SINT32},
        {disk, L"__DERIVATION",
         CimValue::Array({CimScalar(std::wstring(L"Test_Service")), CimScalar(std::wstring(L"Test_Element"))}),
         CIM_STRING | CIM_FLAG_ARRAY},
        {disk, L"__SUPERCLASS", CimValue(L"Test_Service"), CIM_STRING},
        {disk, L"__PROPERTY_COUNT", CimValue(int64_t{10}), CIM_SINT32},
        {L"Test_Setting=@", L"__SUPERCLASS", CimValue(), CIM_STRING},
        {L"Test_Setting=@", L"__DYNASTY", CimValue(L"Test_Setting"), CIM_STRING},
        {L"Test_Setting=@", L"__RELPATH", CimValue(L"Test_Setting=@"), CIM_STRING},
    };
    for (const SystemRow& row : rows) {
        const CimInstance instance = Get(row.wszPath);
        CimValue value;
        CIMTYPE type = CIM_EMPTY;
        long flavor = 0;
        ASSERT_EQ(instance.Get(row.wszProperty, value, &type, &flavor), S_OK) << Narrow(row.wszProperty);
        EXPECT_TRUE(value == row.expected) << Narrow(row.wszPath) << " " << Narrow(row.wszProperty);
        EXPECT_EQ(type, row.type) << Narrow(row.wszProperty);
        EXPECT_EQ(flavor, WBEM_FLAVOR_ORIGIN_SYSTEM) << Narrow(row.wszProperty);
    }
}

TEST_F(cimstoreObjectModel, ClassObjectsReportGenusOne)
{
    CimClassPtr cls;
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"TEST_DRIVER", cls), S_OK);
    CimValue value;
    CIMTYPE type = CIM_EMPTY;
    ASSERT_EQ(cls->GetSystemProperty(L"__GENUS", value, type), S_OK);
    EXPECT_TRUE(value == CimValue(int64_t{1}));
    ASSERT_EQ(cls->GetSystemProperty(L"__PATH", value, type), S_OK);
    EXPECT_TRUE(value == CimValue(std::wstring(L"\\\\") + kServer + L"\\root\\cimv2:Test_Driver"));
    EXPECT_TRUE(cls->InheritsFrom(L"test_element"));
    EXPECT_FALSE(cls->InheritsFrom(L"Test_Disk"));
    EXPECT_EQ(cls->KeyRoot(), L"Test_Element");
}

TEST_F(cimstoreObjectModel, ClassEnumerationFollowsTheHierarchy)
{
    const struct {
        const wchar_t* wszSuperclass;
        bool bDeep;
        std::vector<std::wstring> expected;
        HRESULT hr;
    } rows[] = {
        {L"Test_Element", false, {L"Test_Disk", L"Test_Service"}, S_OK},
        {L"test_element", true, {L"Test_Disk", L"Test_Driver", L"Test_Service"}, S_OK},
        {L"Test_Dependency", true, {L"Test_HardDependency"}, S_OK},
        {L"Test_Driver", true, {}, S_OK},
        {L"", false,
         {L"Test_Dependency", L"Test_Element", L"Test_Numbered", L"Test_ServiceDisk", L"Test_Setting"}, S_OK},
        {L"NoSuchClass", true, {}, Hr(WBEM_E_INVALID_CLASS)},
    };
    for (const auto& row : rows) {
        std::vector<CimClassPtr> classes;
        EXPECT_EQ(m_repository.EnumClasses(kCimv2, row.wszSuperclass, row.bDeep, classes), row.hr)
            << Narrow(row.wszSuperclass);
        std::vector<std::wstring> names;
        for (const CimClassPtr& cls : classes)
            names.push_back(cls->Name());
        EXPECT_EQ(Sorted(names), Sorted(row.expected)) << Narrow(row.wszSuperclass) << " deep " << row.bDeep;
    }
}

TEST_F(cimstoreObjectModel, NamespacesAreCreatedOnceUnderRoot)
{
    EXPECT_EQ(m_repository.CreateNamespace(L"root\\new\\deeper"), S_OK);
    EXPECT_TRUE(m_repository.HasNamespace(L"ROOT\\NEW"));
    EXPECT_EQ(m_repository.CreateNamespace(L"Root/New/Deeper"), Hr(WBEM_E_ALREADY_EXISTS));
    EXPECT_EQ(m_repository.CreateNamespace(L"elsewhere\\x"), Hr(WBEM_E_INVALID_NAMESPACE));
    CimClassPtr cls;
    EXPECT_EQ(m_repository.GetClass(L"root\\new", L"Test_Disk", cls), Hr(WBEM_E_NOT_FOUND));
    std::vector<CimInstance> instances;
    EXPECT_EQ(m_repository.ExecQuery(L"root\\missing", L"SELECT * FROM Test_Disk", instances),
              Hr(WBEM_E_INVALID_NAMESPACE));
}

TEST_F(cimstoreObjectModel, PropertiesEnumerateSystemOnesFirst)
{
    const CimInstance instance = Get(L"Test_Driver.Name=\"disk\"");
    const std::vector<std::wstring> names = instance.PropertyNames(true);
    ASSERT_EQ(names.size(), 20u);
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(names[i].rfind(L"__", 0), 0u) << Narrow(names[i]);
    }
    // Inherited properties come before the class's own ones.
    EXPECT_EQ(names[10], L"Name");
    EXPECT_EQ(names.back(), L"Level");
    EXPECT_EQ(instance.PropertyNames(false).size(), 10u);
}

TEST_F(cimstoreObjectModel, OverriddenDefaultsAndOrigins)
{
    CimInstance driver;
    ASSERT_EQ(m_repository.SpawnInstance(kCimv2, L"Test_Driver", driver), S_OK);
    CimValue caption;
    ASSERT_EQ(driver.Get(L"Caption", caption), S_OK);
    EXPECT_TRUE(caption == CimValue(L"driver"));
    const struct {
        const wchar_t* wszProperty;
        const wchar_t* wszOrigin;
    } rows[] = {{L"Name", L"Test_Element"}, {L"Caption", L"Test_Element"}, {L"Started", L"Test_Service"},
                {L"level", L"Test_Driver"}};
    for (const auto& row : rows) {
        std::wstring origin;
        ASSERT_EQ(driver.GetPropertyOrigin(row.wszProperty, origin), S_OK) << Narrow(row.wszProperty);
        EXPECT_EQ(origin, row.wszOrigin) << Narrow(row.wszProperty);
    }
    std::wstring origin;
    EXPECT_EQ(driver.GetPropertyOrigin(L"Missing", origin), Hr(WBEM_E_NOT_FOUND));
}

TEST_F(cimstoreObjectModel, PutCoercesAndRejects)
{
    CimInstance disk = Get(L"Test_Disk.Name=\"C:\"");
    const struct {
        const wchar_t* wszProperty;
        CimValue value;
        HRESULT hr;
    } rows[] = {
        {L"SizeMB", CimValue(L"77"), S_OK},
        {L"SizeMB", CimValue(L"-1"), Hr(WBEM_E_TYPE_MISMATCH)},
        {L"Tiny", CimValue(200), Hr(WBEM_E_TYPE_MISMATCH)},
        {L"Caption", CimValue(12), S_OK},
        {L"__CLASS", CimValue(L"x"), Hr(WBEM_E_READ_ONLY)},
        {L"NoSuchProperty", CimValue(1), Hr(WBEM_E_NOT_FOUND)},
        {L"Bytes", CimValue(1), Hr(WBEM_E_TYPE_MISMATCH)},
        {L"Offset", CimValue(), S_OK},
    };
    for (const auto& row : rows) {
        const HRESULT hr = disk.Put(row.wszProperty, row.value);
        EXPECT_EQ(hr, row.hr) << Narrow(row.wszProperty) << std::hex << " hr=0x" << hr;
    }
    CimValue value;
    ASSERT_EQ(disk.Get(L"SizeMB", value), S_OK);
    EXPECT_TRUE(value == CimValue(uint64_t{77}));
    ASSERT_EQ(disk.Get(L"Caption", value), S_OK);
    EXPECT_TRUE(value == CimValue(L"12"));
}

TEST_F(cimstoreObjectModel, VariantAccessUsesWmiTypes)
{
    CimInstance spooler = Get(L"Test_Service.Name=\"Spooler\"");
    CCVariant bytes;
    CIMTYPE type = CIM_EMPTY;
    ASSERT_EQ(spooler.GetVariant(L"Bytes", bytes.Ptr(), &type, nullptr), S_OK);
    EXPECT_EQ(type, CIM_UINT64);
    ASSERT_EQ(bytes.Get().vt, VT_BSTR);
    EXPECT_STREQ(bytes.Get().bstrVal, L"18446744073709551615");

    CCVariant priority;
    priority.Ptr()->vt = VT_BSTR;
    priority.Ptr()->bstrVal = SysAllocString(L"-12");
    ASSERT_EQ(spooler.PutVariant(L"Priority", priority.Get(), 0), S_OK);
    EXPECT_EQ(spooler.PutVariant(L"Priority", priority.Get(), CIM_STRING), Hr(WBEM_E_TYPE_MISMATCH));
    CCVariant back;
    ASSERT_EQ(spooler.GetVariant(L"Priority", back.Ptr(), &type, nullptr), S_OK);
    EXPECT_EQ(back.Get().vt, VT_I4);
    EXPECT_EQ(back.Get().lVal, -12);

    CCVariant tags;
    ASSERT_EQ(spooler.GetVariant(L"Tags", tags.Ptr(), &type, nullptr), S_OK);
    EXPECT_EQ(tags.Get().vt, VT_ARRAY | VT_BSTR);
    EXPECT_EQ(type, CIM_STRING | CIM_FLAG_ARRAY);
    CCVariant load;
    ASSERT_EQ(Get(L"Test_Service.Name=\"RpcSs\"").GetVariant(L"Load", load.Ptr(), &type, nullptr), S_OK);
    EXPECT_EQ(load.Get().vt, VT_NULL);
}

TEST_F(cimstoreObjectModel, HandedOutInstancesAreCopies)
{
    CimInstance copy = Get(L"Test_Service.Name=\"Spooler\"");
    ASSERT_EQ(copy.Put(L"Priority", CimValue(99)), S_OK);
    CimValue value;
    ASSERT_EQ(Get(L"Test_Service.Name=\"Spooler\"").Get(L"Priority", value), S_OK);
    EXPECT_TRUE(value == CimValue(int64_t{5})) << "changed without a put";
    ASSERT_EQ(m_repository.PutInstance(kCimv2, copy, WBEM_FLAG_UPDATE_ONLY), S_OK);
    ASSERT_EQ(Get(L"Test_Service.Name=\"Spooler\"").Get(L"Priority", value), S_OK);
    EXPECT_TRUE(value == CimValue(int64_t{99}));
}

TEST_F(cimstoreObjectModel, PutInstanceFlagsAndChecks)
{
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
    EXPECT_EQ(Get(L"Test_Service.Name=\"Spooler\"").ClassName(), L"Test_Driver");
}

TEST_F(cimstoreObjectModel, DeleteInstance)
{
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, L"Test_Disk.Name=\"D:\""), S_OK);
    CimInstance gone;
    EXPECT_EQ(m_repository.GetInstance(kCimv2, L"Test_Disk.Name=\"D:\"", gone), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, L"Test_Disk.Name=\"D:\""), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, L"Test_Driver.Name=\"Spooler\""), Hr(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_repository.DeleteInstance(kCimv2, L"Test_Disk.Name=="), Hr(WBEM_E_INVALID_OBJECT_PATH));
}

TEST_F(cimstoreObjectModel, QualifiersPropagateByFlavor)
{
    CimClassPtr element;
    CimClassPtr service;
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"Test_Element", element), S_OK);
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"Test_Service", service), S_OK);
    EXPECT_TRUE(element->IsAbstract());
    EXPECT_FALSE(service->IsAbstract()) << "Abstract is restricted to its class";
    EXPECT_EQ(service->Qualifiers().Find(L"Locale"), nullptr) << "Restricted";
    const CimQualifier* pDescription = service->Qualifiers().Find(L"description");
    ASSERT_NE(pDescription, nullptr);
    EXPECT_EQ(pDescription->flavor & WBEM_FLAVOR_MASK_ORIGIN, WBEM_FLAVOR_ORIGIN_PROPAGATED);
    EXPECT_TRUE(pDescription->value == CimValue(L"Root of the test schema"));

    const CimInstance spooler = Get(L"Test_Service.Name=\"Spooler\"");
    const QualifierSet effective = spooler.EffectiveQualifiers();
    EXPECT_NE(effective.Find(L"Description"), nullptr) << "ToInstance";
    const CimInstance disk = Get(L"Test_Driver.Name=\"disk\"");
    EXPECT_TRUE(disk.Qualifiers().IsTrue(L"NoPut")) << "instance qualifier kept";
    EXPECT_EQ(spooler.Qualifiers().Find(L"NoPut"), nullptr);

    CimClassPtr hard;
    ASSERT_EQ(m_repository.GetClass(kCimv2, L"Test_HardDependency", hard), S_OK);
    const CimQualifier* pAssociation = hard->Qualifiers().Find(L"Association");
    ASSERT_NE(pAssociation, nullptr);
    EXPECT_EQ(pAssociation->flavor & WBEM_FLAVOR_MASK_PROPAGATION,
              WBEM_FLAVOR_FLAG_PROPAGATE_TO_DERIVED_CLASS | WBEM_FLAVOR_FLAG_PROPAGATE_TO_INSTANCE);
    EXPECT_TRUE(pAssociation->flavor & WBEM_FLAVOR_NOT_OVERRIDABLE);

    QualifierSet nameQualifiers;
    EXPECT_EQ(spooler.GetPropertyQualifiers(L"Nope", nameQualifiers), Hr(WBEM_E_NOT_FOUND));
    const CimInstance numbered = Get(L"Test_Numbered.alpha=TRUE,Id=7,Part=\"a\\\\b\\\"c\"");
    QualifierSet valueQualifiers;
    ASSERT_EQ(numbered.GetPropertyQualifiers(L"Value", valueQualifiers), S_OK);
    const CimQualifier* pNote = valueQualifiers.Find(L"NOTE");
    ASSERT_NE(pNote, nullptr);
    EXPECT_TRUE(pNote->value == CimValue(L"local"));
}

TEST_F(cimstoreObjectModel, EqualsComparesValuesAndOptionallyQualifiers)
{
    const CimInstance a = Get(L"Test_Driver.Name=\"disk\"");
    CimInstance b = a;
    EXPECT_TRUE(a.Equals(b, false));
    b.Qualifiers().Remove(L"NoPut");
    EXPECT_FALSE(a.Equals(b, false));
    EXPECT_TRUE(a.Equals(b, true));
    ASSERT_EQ(b.Put(L"Level", CimValue(3)), S_OK);
    EXPECT_FALSE(a.Equals(b, true));
    EXPECT_FALSE(a.Equals(Get(L"Test_Service.Name=\"Spooler\""), true));
}

TEST_F(cimstoreObjectModel, ConcurrentReadersAndWriter)
{
    std::vector<HANDLE> threads;
    struct Context {
        CimRepository* pRepository;
        LONG failures;
    } context{&m_repository, 0};
    auto reader = [](void* pv) -> DWORD {
        auto* pContext = static_cast<Context*>(pv);
        for (int i = 0; i < 200; ++i) {
            std::vector<CimInstance> results;
            CimInstance spooler;
            if (pContext->pRepository->ExecQuery(kCimv2, L"SELECT * FROM Test_Disk", results) != S_OK ||
                pContext->pRepository->GetInstance(kCimv2, L"Test_Service.Name=\"Spooler\"", spooler) != S_OK)
                InterlockedIncrement(&pContext->failures);
        }
        return 0;
    };
    auto writer = [](void* pv) -> DWORD {
        auto* pContext = static_cast<Context*>(pv);
        for (int i = 0; i < 200; ++i) {
            CimInstance disk;
            if (pContext->pRepository->SpawnInstance(kCimv2, L"Test_Disk", disk) != S_OK ||
                disk.Put(L"Name", CimValue(L"X" + std::to_wstring(i))) != S_OK ||
                pContext->pRepository->PutInstance(kCimv2, disk) != S_OK)
                InterlockedIncrement(&pContext->failures);
        }
        return 0;
    };
    for (int i = 0; i < 3; ++i)
        threads.push_back(CreateThread(nullptr, 0, reader, &context, 0, nullptr));
    threads.push_back(CreateThread(nullptr, 0, writer, &context, 0, nullptr));
    for (HANDLE h : threads) {
        ASSERT_NE(h, nullptr);
        WaitForSingleObject(h, INFINITE);
        CloseHandle(h);
    }
    EXPECT_EQ(context.failures, 0);
    std::vector<CimInstance> disks;
    ASSERT_EQ(m_repository.EnumInstances(kCimv2, L"Test_Disk", disks), S_OK);
    EXPECT_EQ(disks.size(), 202u);
}

}  // namespace
