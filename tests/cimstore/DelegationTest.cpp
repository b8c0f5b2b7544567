// Per-class delegation: in a namespace of the repository, reads of a class it does not define
// come from Wine's own WMI, writes to such a class are refused, the repository's classes never
// mix with Wine's rows, and every call records its context and meets its faults first.
#include "ObjectsFixture.h"

#include <algorithm>
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
constexpr wchar_t kOurPath[] = L"Win32_Processor.DeviceID=\"CPU_OURS\"";
constexpr wchar_t kOtherPath[] = L"Test_Other.Name=\"x\"";
constexpr wchar_t kSystem[] = L"Win32_OperatingSystem";

std::vector<std::wstring> RelPaths(const WbemObjects& objects)
{
    std::vector<std::wstring> paths;
    for (const ComPtr<IWbemClassObject>& pObject : objects)
        paths.push_back(PropertyText(pObject.Get(), L"__RELPATH"));
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Every instance of a class, through ExecQuery or (bEnum) CreateInstanceEnum.
HRESULT Rows(IWbemServices* pServices, const std::wstring& wsClass, bool bEnum, WbemObjects& out,
             IWbemContext* pCtx = nullptr)
{
    out.clear();
    CCBstr bstrClass(wsClass.c_str()), bstrWql(L"WQL"), bstrQuery((L"SELECT * FROM " + wsClass).c_str());
    ComPtr<IEnumWbemClassObject> pEnum;
    HRESULT hr = bEnum ? pServices->CreateInstanceEnum(bstrClass.Get(), 0, pCtx, pEnum.GetAddressOf())
                       : pServices->ExecQuery(bstrWql.Get(), bstrQuery.Get(), WBEM_FLAG_FORWARD_ONLY, pCtx,
                                              pEnum.GetAddressOf());
    for (ULONG uReturned = 1; SUCCEEDED(hr) && uReturned;) {
        ComPtr<IWbemClassObject> pObject;
        hr = pEnum->Next(WBEM_INFINITE, 1, pObject.GetAddressOf(), &uReturned);
        if (SUCCEEDED(hr) && uReturned)
            out.push_back(pObject);
    }
    return SUCCEEDED(hr) ? S_OK : hr;
}

class DelegationTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        // Wine's rows first, while CimStore still hands the whole namespace over.
        ComPtr<IWbemServices> pWine;
        ASSERT_EQ(ConnectWmi(L"root\\cimv2", pWine), S_OK);
        for (const wchar_t* wszClass : {kSystem, L"Win32_Processor"}) {
            WbemObjects rows;
            ASSERT_EQ(Rows(pWine.Get(), wszClass, false, rows), S_OK);
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
    static std::wstring SerializedCimv2()
    {
        CCBstr bstrText;
        EXPECT_EQ(CimStoreSerializeNamespace(L"root\\cimv2", TRUE, bstrText.GetAddress()), S_OK);
        return bstrText ? std::wstring(bstrText.Get()) : std::wstring();
    }
    ComPtr<IWbemServices> m_pServices;
    std::map<std::wstring, std::vector<std::wstring>> m_wineRelPaths;
};

TEST_F(DelegationTest, ReadsComeFromWhoeverDefinesTheClass)
{
    // Win32_Processor is the repository's own: its rows only, and none of Wine's paths.
    for (const auto& [wszClass, bWine] : {std::pair{kSystem, true}, {L"Win32_Processor", false}}) {
        for (bool bEnum : {false, true}) {
            const std::string sRow = Narrow(wszClass) + (bEnum ? " enumerated" : " queried");
            const LONG lBefore = CimStoreLiveObjects();
            WbemObjects rows;
            ASSERT_EQ(Rows(m_pServices.Get(), wszClass, bEnum, rows), S_OK) << sRow;
            EXPECT_TRUE(!bWine || CimStoreLiveObjects() == lBefore) << sRow << ": Wine's objects, not CimStore copies";
            EXPECT_EQ(RelPaths(rows), bWine ? m_wineRelPaths[wszClass] : std::vector<std::wstring>{kOurPath}) << sRow;
        }
    }
    for (const std::wstring& wsPath : m_wineRelPaths[L"Win32_Processor"]) {
        ComPtr<IWbemClassObject> pObject;
        EXPECT_EQ(GetObjectByPath(m_pServices.Get(), wsPath, pObject), Wbem(WBEM_E_NOT_FOUND)) << Narrow(wsPath);
    }
    // Wine itself reads only relative paths; a full path of this namespace works too.
    WbemObjects rows;
    ASSERT_EQ(Rows(m_pServices.Get(), kSystem, false, rows), S_OK);
    for (const wchar_t* wszPathProperty : {L"__RELPATH", L"__PATH"}) {
        const std::wstring wsPath = PropertyText(rows.at(0).Get(), wszPathProperty);
        ComPtr<IWbemClassObject> pObject;
        ASSERT_EQ(GetObjectByPath(m_pServices.Get(), wsPath, pObject), S_OK) << Narrow(wsPath);
        EXPECT_EQ(PropertyText(pObject.Get(), L"__RELPATH"), m_wineRelPaths[kSystem].at(0)) << Narrow(wsPath);
    }
}

TEST_F(DelegationTest, ClassesNobodyKnowsAreInvalid)
{
    // root\cimstoretest: a namespace Wine does not have.
    const std::pair<const wchar_t*, const wchar_t*> rows[] = {
        {L"root\\cimv2", L"Win32_NoSuchClass"}, {L"root\\cimstoretest", kSystem}};
    for (const auto& [wszNamespace, wszClass] : rows) {
        const std::string sRow = Narrow(wszNamespace) + " " + Narrow(wszClass);
        ComPtr<IWbemServices> pServices;
        ASSERT_EQ(ConnectWmi(wszNamespace, pServices), S_OK) << sRow;
        WbemObjects objects;
        for (bool bEnum : {false, true})
            EXPECT_EQ(Rows(pServices.Get(), wszClass, bEnum, objects), Wbem(WBEM_E_INVALID_CLASS)) << sRow << bEnum;
        // GetObject's published code for a missing object, as for the repository's own classes.
        ComPtr<IWbemClassObject> pObject;
        EXPECT_EQ(GetObjectByPath(pServices.Get(), std::wstring(wszClass) + L".Name=\"x\"", pObject),
                  Wbem(WBEM_E_NOT_FOUND))
            << sRow;
    }
}

TEST_F(DelegationTest, WritesToPlatformClassesAreRefused)
{
    const std::wstring wsBefore = SerializedCimv2();
    WbemObjects disks;
    ASSERT_EQ(Rows(m_pServices.Get(), L"Win32_LogicalDisk", false, disks), S_OK);
    ASSERT_FALSE(disks.empty());
    // An instance made by CimStore, of a class that only another namespace defines.
    ComPtr<IWbemServices> pOther;
    ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", pOther), S_OK);
    ComPtr<IWbemClassObject> pOtherClass;
    ASSERT_EQ(GetObjectByPath(pOther.Get(), L"Test_Other", pOtherClass), S_OK);
    ComPtr<IWbemClassObject> pOurs;
    ASSERT_EQ(pOtherClass->SpawnInstance(0, pOurs.GetAddressOf()), S_OK);
    ASSERT_EQ(PutText(pOurs.Get(), L"Name", L"y"), S_OK);
    for (IWbemClassObject* pInstance : {disks.front().Get(), pOurs.Get()})
        EXPECT_EQ(m_pServices->PutInstance(pInstance, 0, nullptr, nullptr), Wbem(WBEM_E_ACCESS_DENIED))
            << Narrow(PropertyText(pInstance, L"__CLASS"));
    for (const std::wstring& wsPath : {PropertyText(disks.front().Get(), L"__RELPATH"), std::wstring(kOtherPath)}) {
        CCBstr bstrPath(wsPath.c_str());
        EXPECT_EQ(m_pServices->DeleteInstance(bstrPath.Get(), 0, nullptr, nullptr), Wbem(WBEM_E_ACCESS_DENIED))
            << Narrow(wsPath);
    }
    EXPECT_EQ(SerializedCimv2(), wsBefore);
    ComPtr<IWbemClassObject> pStill;
    EXPECT_EQ(GetObjectByPath(pOther.Get(), kOtherPath, pStill), S_OK);
}

// Delegated or not, a call records its context values first and a fault hits it before any work.
TEST_F(DelegationTest, CallsAreRecordedAndFaultedFirst)
{
    ComPtr<IWbemContext> pContext;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemContext,
                               reinterpret_cast<void**>(pContext.GetAddressOf())),
              S_OK);
    CCVariant value;
    for (const auto& [wszName, wszText] : {std::pair{L"FeatureName", L"Inventory"}, {L"FeatureVersion", L"2.5"}}) {
        value.SetText(wszText);
        ASSERT_EQ(pContext->SetValue(wszName, 0, value.Ptr()), S_OK);
    }
    wchar_t wszMethod[64] = {};
    wchar_t wszValue[64] = {};
    const auto record = [&](LONG lIndex, const wchar_t* wszName) {
        return CimStoreGetContextRecord(lIndex, wszName, wszMethod, 64, wszValue, 64);
    };
    struct Row { const wchar_t* wszMethod; const wchar_t* wszTarget; };
    const Row rows[] = {{L"ExecQuery", kSystem}, {L"CreateInstanceEnum", kSystem}, {L"GetObject", kSystem},
                        {L"GetObject", kOurPath}};
    for (const Row& row : rows) {
        const std::string sRow = Narrow(row.wszMethod) + " " + Narrow(row.wszTarget);
        const auto call = [&](IWbemContext* pCtx) {
            WbemObjects objects;
            ComPtr<IWbemClassObject> pObject;
            CCBstr bstrPath(row.wszTarget);
            if (std::wstring(row.wszMethod) == L"GetObject")
                return m_pServices->GetObject(bstrPath.Get(), 0, pCtx, pObject.GetAddressOf(), nullptr);
            return Rows(m_pServices.Get(), row.wszTarget, std::wstring(row.wszMethod) == L"CreateInstanceEnum", objects,
                        pCtx);
        };
        ASSERT_EQ(CimStoreClearContextRecords(), S_OK);
        EXPECT_EQ(call(pContext.Get()), S_OK) << sRow;
        EXPECT_EQ(call(nullptr), S_OK) << sRow;
        ASSERT_EQ(CimStoreContextRecordCount(), 2) << sRow;
        ASSERT_EQ(record(0, L"FeatureName"), S_OK) << sRow;
        EXPECT_STREQ(wszMethod, row.wszMethod);
        EXPECT_STREQ(wszValue, L"Inventory") << sRow;
        ASSERT_EQ(record(0, L"FeatureVersion"), S_OK) << sRow;
        EXPECT_STREQ(wszValue, L"2.5") << sRow;
        EXPECT_EQ(record(0, L"ContextName"), Wbem(WBEM_E_NOT_FOUND)) << sRow;
        EXPECT_EQ(record(1, L"FeatureName"), Wbem(WBEM_E_NOT_FOUND)) << sRow;
        EXPECT_EQ(record(2, L"FeatureName"), E_INVALIDARG) << sRow;
        ASSERT_EQ(CimStoreInjectFault(row.wszMethod, row.wszTarget, 0, WBEM_E_PROVIDER_FAILURE), S_OK);
        EXPECT_EQ(call(pContext.Get()), Wbem(WBEM_E_PROVIDER_FAILURE)) << sRow;
        ASSERT_EQ(CimStoreClearFaults(), S_OK);
    }
}

}  // namespace
