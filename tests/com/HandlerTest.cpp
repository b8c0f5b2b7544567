// CNotificationHandler through Moradel.dll's class factory and vtable, against CimStore.
#include "CimStoreTest.h"
#include "CommonKeyValues.h"
#include "MoradelModule.h"
#include "TempDir.h"

#include "access/ComHolders.h"
#include "access/WbemGuids.h"
#include "core/CNotificationHandler.h"

#include <wrl/client.h>

#include <fstream>
#include <set>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kEventNamespace[] = L"root\\oxl1v2\\KM_Notification";
constexpr ULONG kSentinel = 0xdeadbeef;
constexpr ULONG kFailedBefore = 0xFFFFFFFF;
constexpr HRESULT kNothingToDelete = 0x00040017;

// A VARIANT that a failing call must leave as it was.
void SetSentinel(CCVariant& value)
{
    V_VT(value.GetAddress()) = VT_I4;
    V_I4(value.Ptr()) = static_cast<LONG>(kSentinel);
}

bool IsSentinel(const CCVariant& value)
{
    return value.Type() == VT_I4 && V_I4(&value.Get()) == static_cast<LONG>(kSentinel);
}

// The elements of a VT_ARRAY | VT_VARIANT result as event instances.
std::vector<ComPtr<IWbemClassObject>> Elements(const CCVariant& value)
{
    std::vector<ComPtr<IWbemClassObject>> objects;
    EXPECT_EQ(value.Type(), VT_ARRAY | VT_VARIANT);
    if (value.Type() != (VT_ARRAY | VT_VARIANT))
        return objects;
    SAFEARRAY* psa = V_ARRAY(&value.Get());
    EXPECT_EQ(SafeArrayGetDim(psa), 1u);
    LONG lLower = -1;
    LONG lUpper = -2;
    SafeArrayGetLBound(psa, 1, &lLower);
    SafeArrayGetUBound(psa, 1, &lUpper);
    EXPECT_EQ(lLower, 0);
    for (LONG i = lLower; i <= lUpper; ++i) {
        CCVariant element;
        EXPECT_EQ(SafeArrayGetElement(psa, &i, element.Ptr()), S_OK);
        EXPECT_EQ(element.Type(), VT_UNKNOWN) << i;
        ComPtr<IWbemClassObject> pObject;
        if (element.Type() == VT_UNKNOWN && V_UNKNOWN(&element.Get()))
            V_UNKNOWN(&element.Get())->QueryInterface(IID_IWbemClassObject, reinterpret_cast<void**>(pObject.GetAddressOf()));
        EXPECT_TRUE(pObject) << i;
        objects.push_back(pObject);
    }
    return objects;
}

LONG I4(IWbemClassObject* pObject, const wchar_t* wszName)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszName, 0, value.GetAddress(), nullptr, nullptr)) || value.Type() != VT_I4)
        return -12345;
    return V_I4(&value.Get());
}

std::wstring Text(IWbemClassObject* pObject, const wchar_t* wszName)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszName, 0, value.GetAddress(), nullptr, nullptr)) || value.Type() != VT_BSTR)
        return L"<none>";
    return V_BSTR(&value.Get());
}

// The store's own services for a namespace, without the handler.
ComPtr<IWbemServices> Connect(const wchar_t* wszNamespace)
{
    ComPtr<IWbemLocator> pLocator;
    ComPtr<IWbemServices> pServices;
    EXPECT_EQ(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                               reinterpret_cast<void**>(pLocator.GetAddressOf())),
              S_OK);
    CCBstr bstrNamespace(wszNamespace);
    if (pLocator) {
        EXPECT_EQ(pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                          pServices.GetAddressOf()),
                  S_OK);
    }
    return pServices;
}

// A GetInstances request that must fail: its return value is checked and the VARIANT must be left
// as it was; the HRESULT goes back to the caller.
HRESULT FailedRequest(INotifications* pHandler, ULONG ulNotfyId, ULONG ulExpected, const std::string& sCase,
                      bool bNullArray = false)
{
    CCVariant instances;
    SetSentinel(instances);
    ULONG ulReturn = kSentinel;
    const HRESULT hr = pHandler->GetInstances(ulNotfyId, bNullArray ? nullptr : instances.Ptr(), &ulReturn);
    EXPECT_EQ(ulReturn, ulExpected) << sCase;
    EXPECT_TRUE(IsSentinel(instances)) << sCase;
    return hr;
}

class HandlerTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Notification.mof"));
        m_pModule = std::make_unique<MoradelModule>();
        ASSERT_TRUE(m_pModule->Loaded()) << GetLastError();
    }
    void TearDown() override
    {
        m_pModule.reset();
        CimStoreTest::TearDown();
    }

    ComPtr<INotifications> NewHandler()
    {
        ComPtr<INotifications> pHandler;
        EXPECT_EQ(m_pModule->CreateHandler(pHandler), S_OK);
        return pHandler;
    }
    HRESULT GetFactory(ComPtr<IClassFactory>& pFactory)
    {
        return m_pModule->GetClassObject(CLSID_NotificationHandler, IID_IClassFactory,
                                         reinterpret_cast<void**>(pFactory.ReleaseAndGetAddressOf()));
    }
    ComPtr<INotifications> InitializedHandler(const wchar_t* wszNamespace = kEventNamespace)
    {
        ComPtr<INotifications> pHandler = NewHandler();
        if (!pHandler)
            return pHandler;
        CCBstr bstrNamespace(wszNamespace);
        ULONG ulReturn = kSentinel;
        EXPECT_EQ(pHandler->Initialize(bstrNamespace.Get(), &ulReturn), S_OK);
        EXPECT_EQ(ulReturn, 0u);
        return pHandler;
    }

    std::unique_ptr<MoradelModule> m_pModule;
};

// Both requests answer a failure before any object exists the same way, except for the array check.
TEST_F(HandlerTest, FailuresAnswerAsTheReturnValueTableSays)
{
    const struct {
        const char* szCase;
        bool bInitialize;
        bool bNullArray;
        ULONG ulNotfyId;
        HRESULT hrExpected;
        ULONG ulReturnExpected;
    } rows[] = {
        {"null array, not initialised", false, true, 59, E_POINTER, kFailedBefore},
        {"null array, initialised", true, true, 59, E_POINTER, kFailedBefore},
        {"null array, unknown id", true, true, 4, E_POINTER, kFailedBefore},
        {"not initialised, known id", false, false, 59, E_UNEXPECTED, kFailedBefore},
        {"not initialised, unknown id", false, false, 4, E_UNEXPECTED, kFailedBefore},
        {"unknown id 4", true, false, 4, E_INVALIDARG, 4},
        {"unknown id 66", true, false, 66, E_INVALIDARG, 66},
        {"unknown id 0", true, false, 0, E_INVALIDARG, 0},
        {"unknown id 0xFFFFFFFE", true, false, 0xFFFFFFFE, E_INVALIDARG, 0xFFFFFFFE},
    };
    for (const auto& row : rows) {
        ComPtr<INotifications> pHandler = row.bInitialize ? InitializedHandler() : NewHandler();
        ASSERT_TRUE(pHandler) << row.szCase;
        EXPECT_EQ(FailedRequest(pHandler.Get(), row.ulNotfyId, row.ulReturnExpected, row.szCase, row.bNullArray),
                  row.hrExpected)
            << row.szCase;
        if (row.bNullArray)
            continue;
        ULONG ulReturn = kSentinel;
        EXPECT_EQ(pHandler->DeleteObsoleteInstances(row.ulNotfyId, &ulReturn), row.hrExpected) << row.szCase;
        EXPECT_EQ(ulReturn, row.ulReturnExpected) << row.szCase;
    }
}

TEST_F(HandlerTest, SimulationYieldsOneFreshEventPerRequest)
{
    ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    std::set<std::wstring> uuids;
    for (int iRequest = 0; iRequest < 3; ++iRequest) {
        CCVariant instances;
        instances.SetText(L"replaced, not leaked");
        ULONG ulReturn = kSentinel;
        ASSERT_EQ(pHandler->GetInstances(59, instances.Ptr(), &ulReturn), S_OK) << iRequest;
        EXPECT_EQ(ulReturn, 0u);
        const auto objects = Elements(instances);
        ASSERT_EQ(objects.size(), 1u) << iRequest;
        IWbemClassObject* pEvent = objects[0].Get();
        ASSERT_TRUE(pEvent);
        EXPECT_EQ(Text(pEvent, L"__CLASS"), L"KM_Notifications");
        const std::pair<const wchar_t*, LONG> aFields[] = {
            {L"DeviceId", 1}, {L"EventStatus", 1}, {L"EventTextId", 59001}, {L"EventType", 5}, {L"EventId", 59}};
        for (const auto& [wszName, lValue] : aFields)
            EXPECT_EQ(I4(pEvent, wszName), lValue) << Narrow(wszName);
        EXPECT_EQ(Text(pEvent, L"EventTime").size(), 25u) << Narrow(Text(pEvent, L"EventTime"));
        EXPECT_NE(Text(pEvent, L"MachineName"), L"<none>");
        const std::wstring wsUuid = Text(pEvent, L"UUID");
        EXPECT_EQ(wsUuid.size(), 38u) << Narrow(wsUuid);
        uuids.insert(wsUuid);
    }
    EXPECT_EQ(uuids.size(), 3u) << "every request builds a new event";
}

TEST_F(HandlerTest, RequestsLeaveNoStoreObjectBehind)
{
    ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    const LONG lWithHandler = CimStoreLiveObjects();
    for (ULONG ulId : {59ul, 4ul, 59ul}) {
        {
            CCVariant instances;
            ULONG ulReturn = kSentinel;
            pHandler->GetInstances(ulId, instances.Ptr(), &ulReturn);
        }
        EXPECT_EQ(CimStoreLiveObjects(), lWithHandler) << "after GetInstances(" << ulId << ")";
        ULONG ulReturn = kSentinel;
        pHandler->DeleteObsoleteInstances(ulId, &ulReturn);
        EXPECT_EQ(CimStoreLiveObjects(), lWithHandler) << "after DeleteObsoleteInstances(" << ulId << ")";
    }
}

TEST_F(HandlerTest, SimulationDeletesNothingAndPassesItsSuccessCodeThrough)
{
    LoadMof(LR"(
#pragma namespace("\\\\.\\root\\oxl1v2\\KM_Notification")
instance of KM_Notifications { DeviceId = 7; Object = "Win32_Gone.Name=\"x\""; EventId = 59; };
)");
    ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    ULONG ulReturn = kSentinel;
    EXPECT_EQ(pHandler->DeleteObsoleteInstances(59, &ulReturn), kNothingToDelete);
    EXPECT_EQ(ulReturn, 0u);

    ComPtr<IWbemServices> pServices = Connect(kEventNamespace);
    ASSERT_TRUE(pServices);
    ComPtr<IWbemClassObject> pStored;
    CCBstr bstrPath(L"KM_Notifications.DeviceId=7");
    EXPECT_EQ(pServices->GetObject(bstrPath.Get(), 0, nullptr, pStored.GetAddressOf(), nullptr), S_OK);
}

TEST_F(HandlerTest, UnopenableNamespaceInitialisesAndTheRequestFailsInTheObject)
{
    ComPtr<INotifications> pHandler = InitializedHandler(L"root\\no\\such\\namespace");
    ASSERT_TRUE(pHandler);
    const HRESULT hr = FailedRequest(pHandler.Get(), 59, 59, "no namespace");
    EXPECT_TRUE(FAILED(hr)) << std::hex << hr;

    // Initialize again replaces the connection.
    CCBstr bstrNamespace(kEventNamespace);
    CCVariant instances;
    ULONG ulReturn = kSentinel;
    ASSERT_EQ(pHandler->Initialize(bstrNamespace.Get(), &ulReturn), S_OK);
    EXPECT_EQ(pHandler->GetInstances(59, instances.Ptr(), &ulReturn), S_OK);
    EXPECT_EQ(Elements(instances).size(), 1u);
}

TEST_F(HandlerTest, MissingEventClassFailsWithTheStoresAnswer)
{
    LoadMof(LR"(
#pragma namespace("\\\\.\\root\\oxl1v2\\Elsewhere")
class Unrelated { [key] string Name; };
)");
    // What the store answers for the class, asked directly.
    ComPtr<IWbemServices> pServices = Connect(L"root\\oxl1v2\\Elsewhere");
    ASSERT_TRUE(pServices);
    ComPtr<IWbemClassObject> pClass;
    CCBstr bstrClass(L"KM_Notifications");
    const HRESULT hrStore = pServices->GetObject(bstrClass.Get(), 0, nullptr, pClass.GetAddressOf(), nullptr);
    ASSERT_TRUE(FAILED(hrStore));

    ComPtr<INotifications> pHandler = InitializedHandler(L"root\\oxl1v2\\Elsewhere");
    ASSERT_TRUE(pHandler);
    EXPECT_EQ(FailedRequest(pHandler.Get(), 59, 59, "no class"), hrStore);
}

TEST_F(HandlerTest, FailingStoreCallsGiveTheStoresHresult)
{
    const struct {
        const wchar_t* wszMethod;
        const wchar_t* wszTarget;
    } rows[] = {
        {L"GetObject", L"KM_Notifications"}, {L"Put", L"DeviceId"}, {L"Put", L"EventType"},
        {L"Put", L"EventTime"},              {L"Put", L"UUID"},
    };
    ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    for (const auto& row : rows) {
        ASSERT_EQ(CimStoreInjectFault(row.wszMethod, row.wszTarget, 0, WBEM_E_PROVIDER_FAILURE), S_OK);
        EXPECT_EQ(FailedRequest(pHandler.Get(), 59, 59, Narrow(row.wszTarget)), WBEM_E_PROVIDER_FAILURE)
            << Narrow(row.wszTarget);
        CimStoreClearFaults();
    }
}

TEST_F(HandlerTest, ComponentInitializeAnswersSOkEitherWayAndTheIdentityReachesTheStore)
{
    CommonKeyValues common;
    TempDir tables;
    std::ofstream(tables.File(L"Notify_2.5.xml").c_str(), std::ios::binary)
        << "<?xml version=\"1.0\"?>\n"
           "<features><feature name=\"Notify\" version=\"2.5\"><context name=\"Agent\">\n"
           "  <assemblyIdentity name=\"Moradel.dll\" version=\"1.06.0.0\"><dependencies/></assemblyIdentity>\n"
           "</context></feature></features>\n";
    common.Set("DependencyTables", Narrow(tables.Path()));

    ComPtr<INotifications> pHandler = NewHandler();
    ASSERT_TRUE(pHandler);
    CCBstr bstrVersion(L"2.5");
    CCBstr bstrContext(L"Agent");
    for (const auto& [wszFeature, expected] :
         {std::pair{L"Unknown", VARIANT_FALSE}, std::pair{L"Notify", VARIANT_TRUE}}) {
        CCBstr bstrFeature(wszFeature);
        VARIANT_BOOL bResult = 0x1234;
        EXPECT_EQ(pHandler->ComponentInitialize(bstrFeature.Get(), bstrVersion.Get(), bstrContext.Get(), &bResult), S_OK);
        EXPECT_EQ(bResult, expected) << Narrow(wszFeature);
    }

    CCBstr bstrNamespace(kEventNamespace);
    ULONG ulReturn = kSentinel;
    ASSERT_EQ(pHandler->Initialize(bstrNamespace.Get(), &ulReturn), S_OK);
    CimStoreClearContextRecords();
    CCVariant instances;
    ASSERT_EQ(pHandler->GetInstances(59, instances.Ptr(), &ulReturn), S_OK);
    ASSERT_GT(CimStoreContextRecordCount(), 0);
    for (const auto& [wszName, wszExpected] : {std::pair{L"FeatureName", L"Notify"}, std::pair{L"FeatureVersion", L"2.5"},
                                               std::pair{L"ContextName", L"Agent"}}) {
        wchar_t wszMethod[64] = {};
        wchar_t wszValue[64] = {};
        ASSERT_EQ(CimStoreGetContextRecord(0, wszName, wszMethod, 64, wszValue, 64), S_OK) << Narrow(wszName);
        EXPECT_STREQ(wszValue, wszExpected);
    }
}

TEST_F(HandlerTest, ModuleCanUnloadOnlyWhenEveryObjectIsReleased)
{
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_OK);
    ComPtr<IClassFactory> pFactory;
    ASSERT_EQ(GetFactory(pFactory), S_OK);
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "factory held";
    ComPtr<INotifications> pFirst;
    ComPtr<IDispatch> pSecond;
    ASSERT_EQ(pFactory->CreateInstance(nullptr, IID_INotifications, reinterpret_cast<void**>(pFirst.GetAddressOf())), S_OK);
    ASSERT_EQ(pFactory->CreateInstance(nullptr, IID_IDispatch, reinterpret_cast<void**>(pSecond.GetAddressOf())), S_OK);
    EXPECT_EQ(pFactory->LockServer(TRUE), S_OK);
    pFactory.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "two handlers and a lock";
    pFirst.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "one handler and a lock";
    pSecond.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "a lock";
    ASSERT_EQ(GetFactory(pFactory), S_OK);
    EXPECT_EQ(pFactory->LockServer(FALSE), S_OK);
    pFactory.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_OK);
}

TEST_F(HandlerTest, ClassObjectsAnswerAsComAsks)
{
    ComPtr<IUnknown> pUnknown;
    EXPECT_EQ(m_pModule->GetClassObject(IID_INotifications, IID_IClassFactory,
                                        reinterpret_cast<void**>(pUnknown.GetAddressOf())),
              CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_FALSE(pUnknown);
    EXPECT_EQ(m_pModule->GetClassObject(CLSID_NotificationHandler, IID_IClassFactory, nullptr), E_POINTER);
    ComPtr<IClassFactory> pFactory;
    ASSERT_EQ(GetFactory(pFactory), S_OK);
    EXPECT_EQ(pFactory->CreateInstance(pFactory.Get(), IID_IUnknown, reinterpret_cast<void**>(pUnknown.GetAddressOf())),
              CLASS_E_NOAGGREGATION);
    EXPECT_EQ(pFactory->CreateInstance(nullptr, IID_IClassFactory, reinterpret_cast<void**>(pUnknown.GetAddressOf())),
              E_NOINTERFACE);
    EXPECT_FALSE(pUnknown);
    pFactory.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_OK) << "a failed creation leaves nothing alive";

    ComPtr<INotifications> pHandler = NewHandler();
    ASSERT_TRUE(pHandler);
    ComPtr<IUnknown> pIdentity1;
    ComPtr<IUnknown> pIdentity2;
    ComPtr<IDispatch> pDispatch;
    ASSERT_EQ(pHandler.As(&pDispatch), S_OK);
    ASSERT_EQ(pHandler.As(&pIdentity1), S_OK);
    ASSERT_EQ(pDispatch.As(&pIdentity2), S_OK);
    EXPECT_EQ(pIdentity1.Get(), pIdentity2.Get());
}

}  // namespace
