// Per-class delegation: in a namespace of the repository, reads of a class it does not define
// come from Wine's own WMI, writes to such a class are refused, and the repository's classes
// never mix with Wine's rows.
#include "CimStoreTest.h"
#include "TempDir.h"
#include "WbemTestClient.h"

#include <algorithm>
#include <functional>
#include <map>

using Microsoft::WRL::ComPtr;

namespace {

// Win32_Processor shadows Wine's class of that name; Test_Other lives in a namespace Wine lacks.
constexpr wchar_t kOurMof[] = LR"(#pragma namespace("\\\\.\\root\\cimv2")
class Win32_Processor { [key] string DeviceID; string Name; };
instance of Win32_Processor { DeviceID = "CPU_OURS"; Name = "Ours"; };
#pragma namespace("\\\\.\\root\\cimstoretest")
class Test_Other { [key] string Name; };
instance of Test_Other { Name = "x"; };
)";

const wchar_t* const kDelegated[] = {L"Win32_OperatingSystem", L"Win32_LogicalDisk"};

std::vector<std::wstring> RelPaths(const WbemObjects& objects)
{
    std::vector<std::wstring> paths;
    for (const ComPtr<IWbemClassObject>& pObject : objects)
        paths.push_back(PropertyText(pObject.Get(), L"__RELPATH"));
    std::sort(paths.begin(), paths.end());
    return paths;
}

HRESULT EnumAll(IWbemServices* pServices, const wchar_t* wszClass, WbemObjects& out, IWbemContext* pCtx = nullptr)
{
    out.clear();
    CCBstr bstrClass(wszClass);
    ComPtr<IEnumWbemClassObject> pEnum;
    HRESULT hr = pServices->CreateInstanceEnum(bstrClass.Get(), 0, pCtx, pEnum.GetAddressOf());
    while (SUCCEEDED(hr)) {
        ComPtr<IWbemClassObject> pObject;
        ULONG uReturned = 0;
        hr = pEnum->Next(WBEM_INFINITE, 1, pObject.GetAddressOf(), &uReturned);
        if (SUCCEEDED(hr) && uReturned == 0)
            return S_OK;
        if (SUCCEEDED(hr))
            out.push_back(pObject);
    }
    return hr;
}

std::wstring SerializedCimv2()
{
    CCBstr bstrText;
    EXPECT_EQ(CimStoreSerializeNamespace(L"root\\cimv2", TRUE, bstrText.GetAddress()), S_OK);
    return bstrText ? std::wstring(bstrText.Get()) : std::wstring();
}

class DelegationTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        // Wine's rows first, while CimStore still hands the whole namespace over.
        ComPtr<IWbemServices> pWine;
        ASSERT_EQ(ConnectWmi(L"root\\cimv2", pWine), S_OK);
        for (const wchar_t* wszClass : {kDelegated[0], kDelegated[1], L"Win32_Processor"}) {
            WbemObjects rows;
            ASSERT_EQ(QueryAll(pWine.Get(), std::wstring(L"SELECT * FROM ") + wszClass, rows), S_OK);
            ASSERT_FALSE(rows.empty()) << "Wine has no " << Narrow(wszClass);
            m_wineRelPaths[wszClass] = RelPaths(rows);
        }
        pWine.Reset();
        LoadMof(kOurMof);
        ASSERT_EQ(ConnectWmi(L"root\\cimv2", m_pServices), S_OK);
    }
    void TearDown() override
    {
        m_pServices.Reset();
        CimStoreTest::TearDown();
    }

    ComPtr<IWbemServices> m_pServices;
    std::map<std::wstring, std::vector<std::wstring>> m_wineRelPaths;
};

TEST_F(DelegationTest, ReadsOfClassesTheRepositoryLacksShowWinesRows)
{
    for (const wchar_t* wszClass : kDelegated) {
        const LONG lBefore = CimStoreLiveObjects();
        WbemObjects rows;
        ASSERT_EQ(QueryAll(m_pServices.Get(), std::wstring(L"SELECT * FROM ") + wszClass, rows), S_OK)
            << Narrow(wszClass);
        EXPECT_EQ(CimStoreLiveObjects(), lBefore) << "rows are Wine's objects, not CimStore copies";
        EXPECT_EQ(RelPaths(rows), m_wineRelPaths[wszClass]) << Narrow(wszClass);
        WbemObjects enumerated;
        ASSERT_EQ(EnumAll(m_pServices.Get(), wszClass, enumerated), S_OK) << Narrow(wszClass);
        EXPECT_EQ(RelPaths(enumerated), m_wineRelPaths[wszClass]) << Narrow(wszClass);

        // Wine itself reads only relative paths; a full path of this namespace works too. Wine's own
        // GetObject does not find every disk row by the path it reports, so disks are left out here.
        if (std::wstring(wszClass) == L"Win32_LogicalDisk")
            continue;
        for (const ComPtr<IWbemClassObject>& pRow : rows) {
            for (const wchar_t* wszPathProperty : {L"__RELPATH", L"__PATH"}) {
                const std::wstring wsPath = PropertyText(pRow.Get(), wszPathProperty);
                ComPtr<IWbemClassObject> pObject;
                ASSERT_EQ(GetObjectByPath(m_pServices.Get(), wsPath, pObject), S_OK) << Narrow(wsPath);
                EXPECT_EQ(PropertyText(pObject.Get(), L"__RELPATH"), PropertyText(pRow.Get(), L"__RELPATH"))
                    << Narrow(wsPath);
            }
        }
    }
}

TEST_F(DelegationTest, ClassesNobodyKnowsAreInvalid)
{
    struct Case {
        const wchar_t* wszNamespace;
        const wchar_t* wszClass;
    };
    const Case cases[] = {
        {L"root\\cimv2", L"Win32_NoSuchClass"},
        {L"root\\cimstoretest", L"Win32_OperatingSystem"},  // a namespace Wine does not have
    };
    for (const Case& row : cases) {
        const std::string sRow = Narrow(row.wszNamespace) + " " + Narrow(row.wszClass);
        ComPtr<IWbemServices> pServices;
        ASSERT_EQ(ConnectWmi(row.wszNamespace, pServices), S_OK) << sRow;
        WbemObjects objects;
        EXPECT_EQ(QueryAll(pServices.Get(), std::wstring(L"SELECT * FROM ") + row.wszClass, objects),
                  static_cast<HRESULT>(WBEM_E_INVALID_CLASS))
            << sRow;
        EXPECT_EQ(EnumAll(pServices.Get(), row.wszClass, objects), static_cast<HRESULT>(WBEM_E_INVALID_CLASS)) << sRow;
        // GetObject's published code for a missing object, as for the repository's own classes.
        ComPtr<IWbemClassObject> pObject;
        EXPECT_EQ(GetObjectByPath(pServices.Get(), std::wstring(row.wszClass) + L".Name=\"x\"", pObject),
                  static_cast<HRESULT>(WBEM_E_NOT_FOUND))
            << sRow;
    }
}

TEST_F(DelegationTest, WritesToPlatformClassesAreRefused)
{
    const std::wstring wsBefore = SerializedCimv2();
    WbemObjects disks;
    ASSERT_EQ(QueryAll(m_pServices.Get(), L"SELECT * FROM Win32_LogicalDisk", disks), S_OK);
    ASSERT_FALSE(disks.empty());
    // An instance made by CimStore, of a class that only another namespace defines.
    ComPtr<IWbemServices> pOther;
    ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", pOther), S_OK);
    ComPtr<IWbemClassObject> pOtherClass;
    ASSERT_EQ(GetObjectByPath(pOther.Get(), L"Test_Other", pOtherClass), S_OK);
    ComPtr<IWbemClassObject> pOurs;
    ASSERT_EQ(pOtherClass->SpawnInstance(0, pOurs.GetAddressOf()), S_OK);
    CCVariant name;
    name.SetText(L"y");
    ASSERT_EQ(pOurs->Put(L"Name", 0, name.Ptr(), 0), S_OK);

    for (IWbemClassObject* pInstance : {disks.front().Get(), pOurs.Get()})
        EXPECT_EQ(m_pServices->PutInstance(pInstance, 0, nullptr, nullptr), static_cast<HRESULT>(WBEM_E_ACCESS_DENIED))
            << Narrow(PropertyText(pInstance, L"__CLASS"));
    const std::wstring paths[] = {PropertyText(disks.front().Get(), L"__RELPATH"), L"Test_Other.Name=\"x\""};
    for (const std::wstring& wsPath : paths) {
        CCBstr bstrPath(wsPath.c_str());
        EXPECT_EQ(m_pServices->DeleteInstance(bstrPath.Get(), 0, nullptr, nullptr),
                  static_cast<HRESULT>(WBEM_E_ACCESS_DENIED))
            << Narrow(wsPath);
    }
    EXPECT_EQ(SerializedCimv2(), wsBefore);
    ComPtr<IWbemClassObject> pStill;
    EXPECT_EQ(GetObjectByPath(pOther.Get(), L"Test_Other.Name=\"x\"", pStill), S_OK);
}

TEST_F(DelegationTest, DelegatedCallsAreRecordedAndFaultedFirst)
{
    ComPtr<IWbemContext> pContext;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemContext,
                               reinterpret_cast<void**>(pContext.GetAddressOf())),
              S_OK);
    CCVariant value;
    value.SetText(L"Inventory");
    ASSERT_EQ(pContext->SetValue(L"FeatureName", 0, value.Ptr()), S_OK);

    IWbemServices* pServices = m_pServices.Get();
    IWbemContext* pCtx = pContext.Get();
    const std::pair<const wchar_t*, std::function<HRESULT()>> calls[] = {
        {L"ExecQuery",
         [=] {
             CCBstr bstrWql(L"WQL");
             CCBstr bstrQuery(L"SELECT * FROM Win32_OperatingSystem");
             ComPtr<IEnumWbemClassObject> pEnum;
             return pServices->ExecQuery(bstrWql.Get(), bstrQuery.Get(), 0, pCtx, pEnum.GetAddressOf());
         }},
        {L"CreateInstanceEnum",
         [=] {
             WbemObjects objects;
             return EnumAll(pServices, L"Win32_OperatingSystem", objects, pCtx);
         }},
        {L"GetObject",
         [=] {
             CCBstr bstrPath(L"Win32_OperatingSystem");
             ComPtr<IWbemClassObject> pObject;
             return pServices->GetObject(bstrPath.Get(), 0, pCtx, pObject.GetAddressOf(), nullptr);
         }},
    };
    for (const auto& [wszMethod, call] : calls) {
        ASSERT_EQ(CimStoreClearContextRecords(), S_OK);
        EXPECT_EQ(call(), S_OK) << Narrow(wszMethod);
        ASSERT_EQ(CimStoreContextRecordCount(), 1) << Narrow(wszMethod);
        wchar_t wszRecorded[64] = {};
        wchar_t wszValue[64] = {};
        ASSERT_EQ(CimStoreGetContextRecord(0, L"FeatureName", wszRecorded, 64, wszValue, 64), S_OK);
        EXPECT_STREQ(wszRecorded, wszMethod);
        EXPECT_STREQ(wszValue, L"Inventory") << Narrow(wszMethod);

        ASSERT_EQ(CimStoreInjectFault(wszMethod, L"Win32_OperatingSystem", 0, WBEM_E_PROVIDER_FAILURE), S_OK);
        EXPECT_EQ(call(), static_cast<HRESULT>(WBEM_E_PROVIDER_FAILURE)) << Narrow(wszMethod);
        ASSERT_EQ(CimStoreClearFaults(), S_OK);
    }
}

TEST_F(DelegationTest, RepositoryClassesNeverMixWithWinesRows)
{
    WbemObjects rows;
    ASSERT_EQ(QueryAll(m_pServices.Get(), L"SELECT * FROM Win32_Processor", rows), S_OK);
    EXPECT_EQ(RelPaths(rows), std::vector<std::wstring>{L"Win32_Processor.DeviceID=\"CPU_OURS\""});
    ASSERT_EQ(EnumAll(m_pServices.Get(), L"Win32_Processor", rows), S_OK);
    EXPECT_EQ(RelPaths(rows), std::vector<std::wstring>{L"Win32_Processor.DeviceID=\"CPU_OURS\""});
    for (const std::wstring& wsWinePath : m_wineRelPaths[L"Win32_Processor"]) {
        ComPtr<IWbemClassObject> pObject;
        EXPECT_EQ(GetObjectByPath(m_pServices.Get(), wsWinePath, pObject), static_cast<HRESULT>(WBEM_E_NOT_FOUND))
            << Narrow(wsWinePath);
    }
}

}  // namespace
