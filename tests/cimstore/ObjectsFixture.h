// Helpers of the tests of CimStore's service, and a fixture with tests/fixtures/cimstore/objects.mof
// loaded and a connection to its namespace.
#pragma once

#include "CimStoreTest.h"
#include "TempDir.h"
#include "WbemTestClient.h"

constexpr wchar_t kDevicePath[] = L"Test_Device.Name=\"a\"";
constexpr wchar_t kDiskPath[] = L"Test_Disk.Name=\"b\"";

constexpr HRESULT Wbem(WBEMSTATUS status) { return static_cast<HRESULT>(status); }

inline HRESULT PutInt(IWbemClassObject* pObject, const wchar_t* wszName, LONG lValue, CIMTYPE type = 0)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_I4;
    V_I4(value.Ptr()) = lValue;
    return pObject->Put(wszName, 0, value.Ptr(), type);
}

inline HRESULT PutText(IWbemClassObject* pObject, const wchar_t* wszName, const wchar_t* wszValue)
{
    CCVariant value;
    value.SetText(wszValue);
    return pObject->Put(wszName, 0, value.Ptr(), 0);
}

class ObjectsFixture : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        LoadFixture(L"cimstore\\objects.mof");
        ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", m_pServices), S_OK);
    }
    void TearDown() override
    {
        m_pServices.Reset();
        CimStoreTest::TearDown();
    }
    Microsoft::WRL::ComPtr<IWbemClassObject> Object(const std::wstring& wsPath, HRESULT hrExpected = S_OK)
    {
        Microsoft::WRL::ComPtr<IWbemClassObject> pObject;
        EXPECT_EQ(GetObjectByPath(m_pServices.Get(), wsPath, pObject), hrExpected) << Narrow(wsPath);
        return pObject;
    }
    size_t Count(const std::wstring& wsQuery, HRESULT hrExpected = S_OK)
    {
        WbemObjects objects;
        EXPECT_EQ(QueryAll(m_pServices.Get(), wsQuery, objects), hrExpected) << Narrow(wsQuery);
        return objects.size();
    }
    Microsoft::WRL::ComPtr<IWbemServices> m_pServices;
};
