// CimStore's class objects, qualifier sets and enumerators as a WMI client sees them.
#include "ObjectsFixture.h"

#include <set>

using Microsoft::WRL::ComPtr;

namespace {

class ServiceObjectsTest : public ObjectsFixture {
protected:
    ComPtr<IWbemClassObject> Object(const wchar_t* wszPath)
    {
        ComPtr<IWbemClassObject> pObject;
        EXPECT_EQ(GetObjectByPath(m_pServices.Get(), wszPath, pObject), S_OK) << Narrow(wszPath);
        return pObject;
    }
    static std::vector<std::wstring> Names(IWbemClassObject* pObject, long lFlags)
    {
        std::vector<std::wstring> names;
        EXPECT_EQ(pObject->BeginEnumeration(lFlags), S_OK);
        for (;;) {
            CCBstr bstrName;
            const HRESULT hr = pObject->Next(0, bstrName.GetAddress(), nullptr, nullptr, nullptr);
            if (hr != S_OK) {
                EXPECT_EQ(hr, WBEM_S_NO_MORE_DATA);
                break;
            }
            names.push_back(bstrName.Get());
        }
        EXPECT_EQ(pObject->EndEnumeration(), S_OK);
        return names;
    }
};

struct TypeCase {
    const wchar_t* wszProperty;
    VARTYPE vt;
    CIMTYPE type;
    const wchar_t* wszText;
};

TEST_F(ServiceObjectsTest, ValuesArriveAsWmiTypes)
{
    ComPtr<IWbemClassObject> pDisk = Object(L"Test_Disk.Name=\"b\"");
    ComPtr<IWbemClassObject> pDevice = Object(L"Test_Device.Name=\"a\"");
    ASSERT_TRUE(pDisk && pDevice);
    const TypeCase cases[] = {
        {L"Size", VT_I4, CIM_UINT32, L"20"},
        {L"Status", VT_I4, CIM_UINT16, L"1"},
        {L"Capacity", VT_BSTR, CIM_UINT64, L"5000000000"},
        {L"Big", VT_NULL, CIM_SINT64, L""},
        {L"Enabled", VT_BOOL, CIM_BOOLEAN, L"-1"},
        {L"Ratio", VT_NULL, CIM_REAL64, L""},
        {L"Tags", VT_NULL, CIM_STRING | CIM_FLAG_ARRAY, L""},
        {L"__CLASS", VT_BSTR, CIM_STRING, L"Test_Disk"},
        {L"__RELPATH", VT_BSTR, CIM_STRING, L"Test_Disk.Name=\"b\""},
        {L"__GENUS", VT_I4, CIM_SINT32, L"2"},
        {L"__SUPERCLASS", VT_BSTR, CIM_STRING, L"Test_Device"},
        {L"__DYNASTY", VT_BSTR, CIM_STRING, L"Test_Element"},
        {L"__NAMESPACE", VT_BSTR, CIM_STRING, L"root\\cimstoretest"},
    };
    for (const TypeCase& c : cases) {
        CCVariant value;
        CIMTYPE type = 0;
        ASSERT_EQ(pDisk->Get(c.wszProperty, 0, value.GetAddress(), &type, nullptr), S_OK) << Narrow(c.wszProperty);
        EXPECT_EQ(value.Type(), c.vt) << Narrow(c.wszProperty);
        EXPECT_EQ(type, c.type) << Narrow(c.wszProperty);
        EXPECT_EQ(PropertyText(pDisk.Get(), c.wszProperty), c.wszText) << Narrow(c.wszProperty);
    }
    CCVariant tags;
    ASSERT_EQ(pDevice->Get(L"Tags", 0, tags.GetAddress(), nullptr, nullptr), S_OK);
    EXPECT_EQ(tags.Type(), VT_ARRAY | VT_BSTR);
    EXPECT_EQ(PropertyText(pDevice.Get(), L"Big"), L"-5");
    EXPECT_EQ(PropertyText(pDevice.Get(), L"Installed"), L"20260101120000.000000+060");

    CCVariant derivation;
    ASSERT_EQ(pDisk->Get(L"__DERIVATION", 0, derivation.GetAddress(), nullptr, nullptr), S_OK);
    ASSERT_EQ(derivation.Type(), VT_ARRAY | VT_BSTR);
    LONG lIndex = 0;
    CCBstr bstrFirst;
    SafeArrayGetElement(V_ARRAY(&derivation.Get()), &lIndex, bstrFirst.GetAddress());
    EXPECT_STREQ(bstrFirst.Get(), L"Test_Device");
    const std::wstring wsPath = PropertyText(pDisk.Get(), L"__PATH");
    EXPECT_EQ(wsPath.rfind(L"\\\\", 0), 0u);
    EXPECT_NE(wsPath.find(L"\\root\\cimstoretest:Test_Disk.Name=\"b\""), std::wstring::npos) << Narrow(wsPath);
}

TEST_F(ServiceObjectsTest, PutCoercesOrRefuses)
{
    ComPtr<IWbemClassObject> pDevice = Object(L"Test_Device.Name=\"a\"");
    ASSERT_TRUE(pDevice);
    CCVariant value;
    value.SetText(L"42");
    EXPECT_EQ(pDevice->Put(L"Size", 0, value.Ptr(), 0), S_OK);
    EXPECT_EQ(PropertyText(pDevice.Get(), L"Size"), L"42");
    value.SetText(L"forty-two");
    EXPECT_EQ(pDevice->Put(L"Size", 0, value.Ptr(), 0), static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH));
    V_VT(value.GetAddress()) = VT_I4;
    V_I4(value.Ptr()) = -1;
    EXPECT_EQ(pDevice->Put(L"Status", 0, value.Ptr(), 0), static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH));
    V_I4(value.Ptr()) = 7;
    EXPECT_EQ(pDevice->Put(L"Size", 0, value.Ptr(), CIM_STRING), static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH));
    EXPECT_EQ(pDevice->Put(L"NoSuchProperty", 0, value.Ptr(), 0), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(pDevice->Put(nullptr, 0, value.Ptr(), 0), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(pDevice->Put(L"Size", 0, nullptr, 0), S_OK);
    EXPECT_EQ(PropertyText(pDevice.Get(), L"Size"), L"");
    EXPECT_EQ(pDevice->Delete(L"Status"), WBEM_S_RESET_TO_DEFAULT);
    EXPECT_EQ(pDevice->Delete(L"__CLASS"), static_cast<HRESULT>(WBEM_E_SYSTEM_PROPERTY));
}

TEST_F(ServiceObjectsTest, ObjectsAreCopiesUntilPutInstance)
{
    ComPtr<IWbemClassObject> pDevice = Object(L"Test_Device.Name=\"a\"");
    ASSERT_TRUE(pDevice);
    CCVariant value;
    V_VT(value.GetAddress()) = VT_I4;
    V_I4(value.Ptr()) = 99;
    ASSERT_EQ(pDevice->Put(L"Size", 0, value.Ptr(), 0), S_OK);
    EXPECT_EQ(PropertyText(Object(L"Test_Device.Name=\"a\"").Get(), L"Size"), L"10");
    ASSERT_EQ(m_pServices->PutInstance(pDevice.Get(), WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr), S_OK);
    EXPECT_EQ(PropertyText(Object(L"Test_Device.Name=\"a\"").Get(), L"Size"), L"99");
}

TEST_F(ServiceObjectsTest, ClassObjectsAndSpawnedInstances)
{
    ComPtr<IWbemClassObject> pClass = Object(L"Test_Disk");
    ASSERT_TRUE(pClass);
    EXPECT_EQ(PropertyText(pClass.Get(), L"__GENUS"), L"1");
    EXPECT_EQ(PropertyText(pClass.Get(), L"__CLASS"), L"Test_Disk");
    EXPECT_EQ(pClass->InheritsFrom(L"Test_Element"), S_OK);
    EXPECT_EQ(pClass->InheritsFrom(L"test_device"), S_OK);
    EXPECT_EQ(pClass->InheritsFrom(L"Test_Disk"), WBEM_S_FALSE);
    EXPECT_EQ(pClass->InheritsFrom(L"Test_Connection"), WBEM_S_FALSE);
    CCBstr bstrOrigin;
    ASSERT_EQ(pClass->GetPropertyOrigin(L"Size", bstrOrigin.GetAddress()), S_OK);
    EXPECT_STREQ(bstrOrigin.Get(), L"Test_Device");
    ASSERT_EQ(pClass->GetPropertyOrigin(L"Capacity", bstrOrigin.GetAddress()), S_OK);
    EXPECT_STREQ(bstrOrigin.Get(), L"Test_Disk");

    ComPtr<IWbemClassObject> pNew;
    ASSERT_EQ(pClass->SpawnInstance(0, pNew.GetAddressOf()), S_OK);
    EXPECT_EQ(PropertyText(pNew.Get(), L"__GENUS"), L"2");
    EXPECT_EQ(PropertyText(pNew.Get(), L"Status"), L"1");  // class default
    EXPECT_EQ(PropertyText(pNew.Get(), L"Enabled"), L"-1");
    EXPECT_EQ(PropertyText(pNew.Get(), L"Name"), L"");
    ComPtr<IWbemClassObject> pAbstract = Object(L"Test_Element");
    ComPtr<IWbemClassObject> pNone;
    EXPECT_NE(pAbstract->SpawnInstance(0, pNone.GetAddressOf()), S_OK);
    EXPECT_EQ(pNone.Get(), nullptr);

    CCVariant name;
    name.SetText(L"c");
    ASSERT_EQ(pNew->Put(L"Name", 0, name.Ptr(), 0), S_OK);
    EXPECT_EQ(m_pServices->PutInstance(pNew.Get(), WBEM_FLAG_CREATE_ONLY, nullptr, nullptr), S_OK);
    EXPECT_EQ(m_pServices->PutInstance(pNew.Get(), WBEM_FLAG_CREATE_ONLY, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_ALREADY_EXISTS));
    name.SetText(L"d");
    ASSERT_EQ(pNew->Put(L"Name", 0, name.Ptr(), 0), S_OK);
    EXPECT_EQ(m_pServices->PutInstance(pNew.Get(), WBEM_FLAG_UPDATE_ONLY, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    WbemObjects disks;
    ASSERT_EQ(QueryAll(m_pServices.Get(), L"SELECT * FROM Test_Disk", disks), S_OK);
    EXPECT_EQ(disks.size(), 2u);
}

TEST_F(ServiceObjectsTest, PropertyEnumerationAndNames)
{
    ComPtr<IWbemClassObject> pDisk = Object(L"Test_Disk.Name=\"b\"");
    ASSERT_TRUE(pDisk);
    const std::vector<std::wstring> all = Names(pDisk.Get(), 0);
    ASSERT_GE(all.size(), 10u + 9u);
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(all[i].rfind(L"__", 0), 0u) << "system properties come first: " << Narrow(all[i]);
    for (const std::wstring& wsName : Names(pDisk.Get(), WBEM_FLAG_NONSYSTEM_ONLY))
        EXPECT_NE(wsName.rfind(L"__", 0), 0u) << Narrow(wsName);
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_NONSYSTEM_ONLY).size(), 9u);
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_SYSTEM_ONLY).size(), 10u);
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_KEYS_ONLY), std::vector<std::wstring>{L"Name"});
    EXPECT_EQ(Names(pDisk.Get(), WBEM_FLAG_LOCAL_ONLY), std::vector<std::wstring>{L"Capacity"});
    EXPECT_EQ(pDisk->BeginEnumeration(0x1000), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));

    ComPtr<IWbemClassObject> pFresh = Object(L"Test_Disk.Name=\"b\"");
    CCBstr bstrName;
    EXPECT_EQ(pFresh->Next(0, bstrName.GetAddress(), nullptr, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_UNEXPECTED));

    CCSafeArray names;
    ComPtr<IWbemClassObject> pClass = Object(L"Test_Disk");
    ASSERT_EQ(pClass->GetNames(L"key", WBEM_FLAG_ALWAYS, nullptr, names.GetAddress()), S_OK);
    LONG lUpper = -1;
    SafeArrayGetUBound(names.Get(), 1, &lUpper);
    EXPECT_EQ(lUpper, 0);
    ASSERT_EQ(pDisk->GetNames(nullptr, WBEM_FLAG_NONSYSTEM_ONLY, nullptr, names.GetAddress()), S_OK);
    SafeArrayGetUBound(names.Get(), 1, &lUpper);
    EXPECT_EQ(lUpper, 8);
}

TEST_F(ServiceObjectsTest, QualifierSetsOfObjectsAndProperties)
{
    ComPtr<IWbemClassObject> pDevice = Object(L"Test_Device.Name=\"a\"");
    ASSERT_TRUE(pDevice);
    ComPtr<IWbemQualifierSet> pQualifiers;
    ASSERT_EQ(pDevice->GetQualifierSet(pQualifiers.GetAddressOf()), S_OK);
    CCVariant value;
    long lFlavor = 0;
    ASSERT_EQ(pQualifiers->Get(L"description", 0, value.GetAddress(), &lFlavor), S_OK);
    EXPECT_STREQ(V_BSTR(&value.Get()), L"A device of the test machine");
    EXPECT_EQ(lFlavor & WBEM_FLAVOR_MASK_ORIGIN, WBEM_FLAVOR_ORIGIN_PROPAGATED);
    EXPECT_EQ(pQualifiers->Delete(L"Description"), static_cast<HRESULT>(WBEM_E_PROPAGATED_QUALIFIER));

    V_VT(value.GetAddress()) = VT_BOOL;
    V_BOOL(value.Ptr()) = VARIANT_TRUE;
    ASSERT_EQ(pQualifiers->Put(L"NoPut", value.Ptr(), 0), S_OK);
    ASSERT_EQ(pQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr), S_OK);
    EXPECT_EQ(V_BOOL(&value.Get()), VARIANT_TRUE);
    // The instance qualifier travels with the object and its clones.
    ComPtr<IWbemClassObject> pClone;
    ASSERT_EQ(pDevice->Clone(pClone.GetAddressOf()), S_OK);
    ComPtr<IWbemQualifierSet> pCloneQualifiers;
    ASSERT_EQ(pClone->GetQualifierSet(pCloneQualifiers.GetAddressOf()), S_OK);
    EXPECT_EQ(pCloneQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr), S_OK);
    CCSafeArray names;
    ASSERT_EQ(pQualifiers->GetNames(WBEM_FLAG_LOCAL_ONLY, names.GetAddress()), S_OK);
    LONG lUpper = -1;
    SafeArrayGetUBound(names.Get(), 1, &lUpper);
    EXPECT_EQ(lUpper, 0);
    EXPECT_EQ(pQualifiers->Delete(L"NoPut"), S_OK);
    EXPECT_EQ(pQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr), static_cast<HRESULT>(WBEM_E_NOT_FOUND));

    ComPtr<IWbemQualifierSet> pPropertyQualifiers;
    EXPECT_EQ(pDevice->GetPropertyQualifierSet(L"__CLASS", pPropertyQualifiers.GetAddressOf()),
              static_cast<HRESULT>(WBEM_E_SYSTEM_PROPERTY));
    EXPECT_EQ(pDevice->GetPropertyQualifierSet(L"Missing", pPropertyQualifiers.GetAddressOf()),
              static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    ComPtr<IWbemClassObject> pClass = Object(L"Test_Device");
    ASSERT_EQ(pClass->GetPropertyQualifierSet(L"Status", pPropertyQualifiers.GetAddressOf()), S_OK);
    ASSERT_EQ(pPropertyQualifiers->Get(L"Values", 0, value.GetAddress(), nullptr), S_OK);
    EXPECT_EQ(value.Type(), VT_ARRAY | VT_BSTR);
    ASSERT_EQ(pPropertyQualifiers->BeginEnumeration(0), S_OK);
    std::set<std::wstring> seen;
    for (;;) {
        CCBstr bstrName;
        if (pPropertyQualifiers->Next(0, bstrName.GetAddress(), nullptr, nullptr) != S_OK)
            break;
        seen.insert(bstrName.Get());
    }
    EXPECT_EQ(seen, (std::set<std::wstring>{L"ValueMap", L"Values"}));
}

TEST_F(ServiceObjectsTest, TextAndComparison)
{
    ComPtr<IWbemClassObject> pDevice = Object(L"Test_Device.Name=\"a\"");
    ASSERT_TRUE(pDevice);
    CCBstr bstrText;
    ASSERT_EQ(pDevice->GetObjectText(0, bstrText.GetAddress()), S_OK);
    const std::wstring wsText = bstrText.Get();
    EXPECT_NE(wsText.find(L"instance of Test_Device"), std::wstring::npos) << Narrow(wsText);
    EXPECT_NE(wsText.find(L"Name = \"a\";"), std::wstring::npos) << Narrow(wsText);

    ComPtr<IWbemClassObject> pClone;
    ASSERT_EQ(pDevice->Clone(pClone.GetAddressOf()), S_OK);
    EXPECT_EQ(pDevice->CompareTo(0, pClone.Get()), WBEM_S_SAME);
    ComPtr<IWbemQualifierSet> pQualifiers;
    ASSERT_EQ(pClone->GetQualifierSet(pQualifiers.GetAddressOf()), S_OK);
    CCVariant flag;
    V_VT(flag.GetAddress()) = VT_BOOL;
    V_BOOL(flag.Ptr()) = VARIANT_TRUE;
    ASSERT_EQ(pQualifiers->Put(L"NoPut", flag.Ptr(), 0), S_OK);
    EXPECT_EQ(pDevice->CompareTo(0, pClone.Get()), WBEM_S_DIFFERENT);
    EXPECT_EQ(pDevice->CompareTo(WBEM_FLAG_IGNORE_QUALIFIERS, pClone.Get()), WBEM_S_SAME);
    CCVariant size;
    V_VT(size.GetAddress()) = VT_I4;
    V_I4(size.Ptr()) = 11;
    ASSERT_EQ(pClone->Put(L"Size", 0, size.Ptr(), 0), S_OK);
    EXPECT_EQ(pDevice->CompareTo(WBEM_FLAG_IGNORE_QUALIFIERS, pClone.Get()), WBEM_S_DIFFERENT);
    EXPECT_EQ(pDevice->CompareTo(0, nullptr), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
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
    EXPECT_EQ(pEnum->Next(-5, 1, apObjects, &uReturned), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(pEnum->Next(0, 1, nullptr, &uReturned), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));

    ASSERT_EQ(pEnum->Reset(), S_OK);
    EXPECT_EQ(pEnum->Skip(WBEM_INFINITE, 1), S_OK);
    ComPtr<IEnumWbemClassObject> pClone;
    ASSERT_EQ(pEnum->Clone(pClone.GetAddressOf()), S_OK);
    EXPECT_EQ(pEnum->Skip(WBEM_INFINITE, 5), WBEM_S_FALSE);
    ASSERT_EQ(pClone->Next(WBEM_INFINITE, 1, apObjects, &uReturned), S_OK);
    ComPtr<IWbemClassObject> pSecond;
    TakeOwnership(pSecond, apObjects[0]);
    EXPECT_EQ(PropertyText(pSecond.Get(), L"Name"), PropertyText(owned[1].Get(), L"Name"));

    ASSERT_EQ(m_pServices->CreateInstanceEnum(bstrClass.Get(), WBEM_FLAG_SHALLOW, nullptr,
                                              pEnum.ReleaseAndGetAddressOf()),
              S_OK);
    ASSERT_EQ(pEnum->Next(WBEM_INFINITE, 5, apObjects, &uReturned), WBEM_S_FALSE);
    ASSERT_EQ(uReturned, 1u);
    TakeOwnership(pSecond, apObjects[0]);
    EXPECT_EQ(PropertyText(pSecond.Get(), L"__CLASS"), L"Test_Device");
}

TEST_F(ServiceObjectsTest, AssociationsThroughTheService)
{
    WbemObjects objects;
    ASSERT_EQ(QueryAll(m_pServices.Get(), L"ASSOCIATORS OF {Test_Device.Name=\"a\"} WHERE ResultClass = Test_Element",
                       objects),
              S_OK);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(PropertyText(objects[0].Get(), L"__RELPATH"), L"Test_Disk.Name=\"b\"");
    ASSERT_EQ(QueryAll(m_pServices.Get(), L"REFERENCES OF {Test_Disk.Name=\"b\"} WHERE ResultClass = Test_Connection",
                       objects),
              S_OK);
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(PropertyText(objects[0].Get(), L"__CLASS"), L"Test_Connection");
    ASSERT_EQ(QueryAll(m_pServices.Get(), L"ASSOCIATORS OF {Test_Disk.Name=\"b\"} WHERE ResultClass = Test_Disk",
                       objects),
              S_OK);
    EXPECT_TRUE(objects.empty());
}

}  // namespace
