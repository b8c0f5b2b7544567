// CimStore's class objects, qualifier sets and enumerators as a WMI client sees them.
#include "ObjectsFixture.h"

#include <set>

using Microsoft::WRL::ComPtr;

namespace {

class ServiceObjectsTest : public ObjectsFixture {
protected:
    static std::vector<std::wstring> Names(IWbemClassObject* pObject, long lFlags)
    {
        std::vector<std::wstring> names;
        EXPECT_EQ(pObject->BeginEnumeration(lFlags), S_OK);
        HRESULT hr = S_OK;
        for (CCBstr bstrName; (hr = pObject->Next(0, bstrName.GetAddress(), nullptr, nullptr, nullptr)) == S_OK;)
            names.push_back(bstrName.Get());
        EXPECT_EQ(hr, WBEM_S_NO_MORE_DATA);
        EXPECT_EQ(pObject->EndEnumeration(), S_OK);
        return names;
    }
};

TEST_F(ServiceObjectsTest, ValuesArriveAsWmiTypes)
{
    const struct { const wchar_t *wszPath, *wszName; VARTYPE vt; CIMTYPE type; const wchar_t* wszText; } rows[] = {
        {kDiskPath, L"Size", VT_I4, CIM_UINT32, L"20"}, {kDiskPath, L"Capacity", VT_BSTR, CIM_UINT64, L"5000000000"},
        {kDiskPath, L"Big", VT_NULL, CIM_SINT64, L""}, {kDiskPath, L"Enabled", VT_BOOL, CIM_BOOLEAN, L"-1"},
        {kDiskPath, L"Tags", VT_NULL, CIM_STRING | CIM_FLAG_ARRAY, L""},
        {kDevicePath, L"Big", VT_BSTR, CIM_SINT64, L"-5"},
        {kDiskPath, L"__CLASS", VT_BSTR, CIM_STRING, L"Test_Disk"}, {kDiskPath, L"__GENUS", VT_I4, CIM_SINT32, L"2"},
        {kDiskPath, L"__DERIVATION", VT_ARRAY | VT_BSTR, CIM_STRING | CIM_FLAG_ARRAY, L"Test_Device"},  // first item
        {kDevicePath, L"Tags", VT_ARRAY | VT_BSTR, CIM_STRING | CIM_FLAG_ARRAY, L"x"},
        {kDevicePath, L"Installed", VT_BSTR, CIM_DATETIME, L"20260101120000.000000+060"}};
    for (const auto& row : rows) {
        const std::string sRow = Narrow(row.wszPath) + " " + Narrow(row.wszName);
        ComPtr<IWbemClassObject> pObject = Object(row.wszPath);
        ASSERT_TRUE(pObject) << sRow;
        CCVariant value;
        CIMTYPE type = 0;
        ASSERT_EQ(pObject->Get(row.wszName, 0, value.GetAddress(), &type, nullptr), S_OK) << sRow;
        EXPECT_TRUE(value.Type() == row.vt && type == row.type) << sRow << " vt " << value.Type() << " type " << type;
        std::wstring wsText = PropertyText(pObject.Get(), row.wszName);
        if (value.Type() & VT_ARRAY) {
            LONG lFirst = 0;
            CCBstr bstrFirst;
            SafeArrayGetElement(V_ARRAY(&value.Get()), &lFirst, bstrFirst.GetAddress());
            wsText = bstrFirst ? bstrFirst.Get() : L"";
        }
        EXPECT_EQ(wsText, row.wszText) << sRow;
    }
    const std::wstring wsPath = PropertyText(Object(kDiskPath).Get(), L"__PATH");
    EXPECT_TRUE(wsPath.starts_with(L"\\\\") && wsPath.ends_with(L"\\root\\cimstoretest:Test_Disk.Name=\"b\""))
        << Narrow(wsPath);
}

TEST_F(ServiceObjectsTest, PutCoercesOrRefusesAndStoresOnlyThroughPutInstance)
{
    ComPtr<IWbemClassObject> pDevice = Object(kDevicePath);
    ASSERT_TRUE(pDevice);
    EXPECT_EQ(PutText(pDevice.Get(), L"Size", L"42"), S_OK);
    EXPECT_EQ(PropertyText(pDevice.Get(), L"Size"), L"42");
    EXPECT_EQ(PropertyText(Object(kDevicePath).Get(), L"Size"), L"10");
    ASSERT_EQ(m_pServices->PutInstance(pDevice.Get(), WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr), S_OK);
    EXPECT_EQ(PropertyText(Object(kDevicePath).Get(), L"Size"), L"42");
    EXPECT_EQ(PutText(pDevice.Get(), L"Size", L"forty-two"), Wbem(WBEM_E_TYPE_MISMATCH));
    EXPECT_EQ(PutInt(pDevice.Get(), L"Status", -1), Wbem(WBEM_E_TYPE_MISMATCH));
    EXPECT_EQ(PutInt(pDevice.Get(), L"Size", 7, CIM_STRING), Wbem(WBEM_E_TYPE_MISMATCH));
    EXPECT_EQ(PutInt(pDevice.Get(), L"NoSuchProperty", 7), Wbem(WBEM_E_NOT_FOUND));
    EXPECT_EQ(PutInt(pDevice.Get(), nullptr, 7), Wbem(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(pDevice->Put(L"Size", 0, nullptr, 0), S_OK);
    EXPECT_EQ(PropertyText(pDevice.Get(), L"Size"), L"");
}

TEST_F(ServiceObjectsTest, ClassObjectsSpawnedAndDeletedInstances)
{
    ComPtr<IWbemClassObject> pClass = Object(L"Test_Disk");
    ASSERT_TRUE(pClass);
    EXPECT_EQ(PropertyText(pClass.Get(), L"__GENUS") + PropertyText(pClass.Get(), L"__CLASS"), L"1Test_Disk");
    ComPtr<IWbemClassObject> pNew;
    ASSERT_EQ(pClass->SpawnInstance(0, pNew.GetAddressOf()), S_OK);
    EXPECT_EQ(PropertyText(pNew.Get(), L"__GENUS"), L"2");
    EXPECT_EQ(PropertyText(pNew.Get(), L"Status"), L"1");  // class default
    EXPECT_EQ(PropertyText(pNew.Get(), L"Enabled"), L"-1");
    EXPECT_EQ(PropertyText(pNew.Get(), L"Name"), L"");
    ComPtr<IWbemClassObject> pNone;
    EXPECT_NE(Object(L"Test_Element")->SpawnInstance(0, pNone.GetAddressOf()), S_OK);
    EXPECT_EQ(pNone.Get(), nullptr);
    ASSERT_EQ(PutText(pNew.Get(), L"Name", L"c"), S_OK);
    const auto put = [&](long lFlags) { return m_pServices->PutInstance(pNew.Get(), lFlags, nullptr, nullptr); };
    EXPECT_EQ(put(WBEM_FLAG_CREATE_ONLY), S_OK);
    EXPECT_EQ(put(WBEM_FLAG_CREATE_ONLY), Wbem(WBEM_E_ALREADY_EXISTS));
    ASSERT_EQ(PutText(pNew.Get(), L"Name", L"d"), S_OK);
    EXPECT_EQ(put(WBEM_FLAG_UPDATE_ONLY), Wbem(WBEM_E_NOT_FOUND));
    EXPECT_EQ(Count(L"SELECT * FROM Test_Disk"), 2u);
    CCBstr bstrPath(kDiskPath);
    ASSERT_EQ(m_pServices->DeleteInstance(bstrPath.Get(), 0, nullptr, nullptr), S_OK);
    Object(kDiskPath, Wbem(WBEM_E_NOT_FOUND));
    EXPECT_EQ(Count(L"SELECT * FROM Test_Element"), 2u);
}

TEST_F(ServiceObjectsTest, PropertyEnumerationAndNames)
{
    ComPtr<IWbemClassObject> pDisk = Object(kDiskPath);
    ASSERT_TRUE(pDisk);
    const std::vector<std::wstring> all = Names(pDisk.Get(), 0);
    ASSERT_GE(all.size(), 10u + 9u);
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(all[i].rfind(L"__", 0), 0u) << "system properties come first: " << Narrow(all[i]);
    const std::vector<std::wstring> own = Names(pDisk.Get(), WBEM_FLAG_NONSYSTEM_ONLY);
    EXPECT_EQ(own.size(), 9u);
    for (const std::wstring& wsName : own)
        EXPECT_NE(wsName.rfind(L"__", 0), 0u) << Narrow(wsName);
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_SYSTEM_ONLY).size(), 10u);
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_KEYS_ONLY), std::vector<std::wstring>{L"Name"});
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_LOCAL_ONLY), std::vector<std::wstring>{L"Capacity"});
    EXPECT_EQ(pDisk->BeginEnumeration(0x1000), Wbem(WBEM_E_INVALID_PARAMETER));
    CCBstr bstrName;
    EXPECT_EQ(Object(kDiskPath)->Next(0, bstrName.GetAddress(), nullptr, nullptr, nullptr), Wbem(WBEM_E_UNEXPECTED));
}

TEST_F(ServiceObjectsTest, QualifiersAndClones)
{
    ComPtr<IWbemClassObject> pDevice = Object(kDevicePath);
    ASSERT_TRUE(pDevice);
    ComPtr<IWbemQualifierSet> pQualifiers;
    ASSERT_EQ(pDevice->GetQualifierSet(pQualifiers.GetAddressOf()), S_OK);
    CCVariant value;
    long lFlavor = 0;
    ASSERT_EQ(pQualifiers->Get(L"description", 0, value.GetAddress(), &lFlavor), S_OK);
    EXPECT_STREQ(V_BSTR(&value.Get()), L"A device of the test machine");
    EXPECT_EQ(lFlavor & WBEM_FLAVOR_MASK_ORIGIN, WBEM_FLAVOR_ORIGIN_PROPAGATED);
    EXPECT_EQ(pQualifiers->Delete(L"Description"), Wbem(WBEM_E_PROPAGATED_QUALIFIER));
    V_VT(value.GetAddress()) = VT_BOOL;
    V_BOOL(value.Ptr()) = VARIANT_TRUE;
    ASSERT_EQ(pQualifiers->Put(L"NoPut", value.Ptr(), 0), S_OK);
    ASSERT_EQ(pQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr), S_OK);
    EXPECT_EQ(V_BOOL(&value.Get()), VARIANT_TRUE);
    // The instance qualifier travels with the object's clones.
    ComPtr<IWbemClassObject> pClone;
    ASSERT_EQ(pDevice->Clone(pClone.GetAddressOf()), S_OK);
    ComPtr<IWbemQualifierSet> pCloneQualifiers;
    ASSERT_EQ(pClone->GetQualifierSet(pCloneQualifiers.GetAddressOf()), S_OK);
    EXPECT_EQ(pCloneQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr), S_OK);
    EXPECT_EQ(pQualifiers->Delete(L"NoPut"), S_OK);
    EXPECT_EQ(pQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr), Wbem(WBEM_E_NOT_FOUND));
    ComPtr<IWbemQualifierSet> pPropertyQualifiers;
    EXPECT_EQ(pDevice->GetPropertyQualifierSet(L"__CLASS", pPropertyQualifiers.GetAddressOf()),
              Wbem(WBEM_E_SYSTEM_PROPERTY));
    EXPECT_EQ(pDevice->GetPropertyQualifierSet(L"Missing", pPropertyQualifiers.GetAddressOf()), Wbem(WBEM_E_NOT_FOUND));
    ASSERT_EQ(Object(L"Test_Device")->GetPropertyQualifierSet(L"Status", pPropertyQualifiers.GetAddressOf()), S_OK);
    ASSERT_EQ(pPropertyQualifiers->Get(L"Values", 0, value.GetAddress(), nullptr), S_OK);
    EXPECT_EQ(value.Type(), VT_ARRAY | VT_BSTR);
    ASSERT_EQ(pPropertyQualifiers->BeginEnumeration(0), S_OK);
    std::set<std::wstring> seen;
    for (CCBstr bstrName; pPropertyQualifiers->Next(0, bstrName.GetAddress(), nullptr, nullptr) == S_OK;)
        seen.insert(bstrName.Get());
    EXPECT_EQ(seen, (std::set<std::wstring>{L"ValueMap", L"Values"}));
}

TEST_F(ServiceObjectsTest, EnumeratorCountsSkipsAndClones)
{
    CCBstr bstrClass(L"Test_Device");
    ComPtr<IEnumWbemClassObject> pEnum;
    ASSERT_EQ(m_pServices->CreateInstanceEnum(bstrClass.Get(), 0, nullptr, pEnum.GetAddressOf()), S_OK);
    IWbemClassObject* apObjects[5] = {};
    ULONG uReturned = 0xdeadbeef;
    ASSERT_EQ(pEnum->Next(WBEM_INFINITE, 5, apObjects, &uReturned), WBEM_S_FALSE);
    ASSERT_EQ(uReturned, 2u);  // the device and the disk derived from it
    WbemObjects owned(2);
    TakeOwnership(owned[0], apObjects[0]);
    TakeOwnership(owned[1], apObjects[1]);
    EXPECT_EQ(pEnum->Next(0, 1, apObjects, &uReturned), WBEM_S_FALSE);
    EXPECT_EQ(uReturned, 0u);
    EXPECT_EQ(pEnum->Next(-5, 1, apObjects, &uReturned), Wbem(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(pEnum->Next(0, 1, nullptr, &uReturned), Wbem(WBEM_E_INVALID_PARAMETER));
    ASSERT_EQ(pEnum->Reset(), S_OK);
    EXPECT_EQ(pEnum->Skip(WBEM_INFINITE, 1), S_OK);
    ComPtr<IEnumWbemClassObject> pClone;
    ASSERT_EQ(pEnum->Clone(pClone.GetAddressOf()), S_OK);
    EXPECT_EQ(pEnum->Skip(WBEM_INFINITE, 1), S_OK) << "skips exactly what remains";
    EXPECT_EQ(pEnum->Skip(WBEM_INFINITE, 5), WBEM_S_FALSE);
    ASSERT_EQ(pClone->Next(WBEM_INFINITE, 1, apObjects, &uReturned), S_OK);
    ComPtr<IWbemClassObject> pSecond;
    TakeOwnership(pSecond, apObjects[0]);
    EXPECT_EQ(PropertyText(pSecond.Get(), L"Name"), PropertyText(owned[1].Get(), L"Name")) << "the clone's position";
    pEnum.Reset();
    ASSERT_EQ(m_pServices->CreateInstanceEnum(bstrClass.Get(), WBEM_FLAG_SHALLOW, nullptr, pEnum.GetAddressOf()), S_OK);
    ASSERT_EQ(pEnum->Next(WBEM_INFINITE, 5, apObjects, &uReturned), WBEM_S_FALSE);
    ASSERT_EQ(uReturned, 1u);
    TakeOwnership(pSecond, apObjects[0]);
    EXPECT_EQ(PropertyText(pSecond.Get(), L"__CLASS"), L"Test_Device");
}

}  // namespace
