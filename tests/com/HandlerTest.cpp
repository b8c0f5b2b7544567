// CNotificationHandler: through Moradel.dll's class factory, vtable and IDispatch against CimStore;
// its id table, the simulation kind and the array building with a scripted kind.
#include "CimStoreTest.h"
#include "CommonKeyValues.h"
#include "GlobalTraceLog.h"
#include "MoradelModule.h"
#include "TempDir.h"
#include "WbemTestClient.h"

#include "access/CCWMIAccess.h"
#include "access/ComHolders.h"
#include "core/CNotfySimulation.h"
#include "core/CNotificationHandler.h"
#include "core/EventValues.h"

#include <fstream>
#include <memory>
#include <set>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kEventNamespace[] = L"root\\oxl1v2\\KM_Notification";
constexpr ULONG kSentinel = 0xdeadbeef;
constexpr ULONG kFailedBefore = 0xFFFFFFFF;
constexpr HRESULT kNothingToDelete = 0x00040017;

// A property as text: a VT_I4 as "i4 <decimal>", a VT_BSTR as it is.
std::wstring Field(IWbemClassObject* pObject, const wchar_t* wszName)
{
    CCVariant value;
    if (!pObject || FAILED(pObject->Get(wszName, 0, value.GetAddress(), nullptr, nullptr)))
        return L"<none>";
    return value.Type() == VT_I4 ? L"i4 " + std::to_wstring(V_I4(&value.Get()))
           : value.Type() == VT_BSTR ? std::wstring(V_BSTR(&value.Get())) : L"<none>";
}

// The event schema in the store and Moradel.dll loaded; kinds of this program are initialised directly.
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
        m_pEvents.reset();
        m_pModule.reset();
        CimStoreTest::TearDown();
    }
    HRESULT InitKind(CNotfyBase& kind)
    {
        if (!m_pEvents) {
            m_pEvents = std::make_unique<CCWMIAccess>();
            EXPECT_EQ(m_pEvents->ConnectToNamespace("root\\oxl1v2\\KM_Notification", -1, nullptr), S_OK);
        }
        const CNotfyNames names = {"Notify", "2.5", "Agent"};
        return kind.Init(*m_pEvents, &names);
    }
    ComPtr<INotifications> NewHandler()
    {
        ComPtr<INotifications> pHandler;
        EXPECT_EQ(m_pModule->CreateHandler(pHandler), S_OK);
        return pHandler;
    }
    static HRESULT Initialize(INotifications* pHandler, const wchar_t* wszNamespace = kEventNamespace)
    {
        CCBstr bstrNamespace(wszNamespace);
        ULONG ulReturn = kSentinel;
        const HRESULT hr = pHandler->Initialize(bstrNamespace.Get(), &ulReturn);
        EXPECT_EQ(ulReturn, 0u);
        return hr;
    }
    ComPtr<INotifications> InitializedHandler(const wchar_t* wszNamespace = kEventNamespace)
    {
        ComPtr<INotifications> pHandler = NewHandler();
        EXPECT_TRUE(pHandler && Initialize(pHandler.Get(), wszNamespace) == S_OK);
        return pHandler;
    }
    // A GetInstances request that must fail and leave the caller's VARIANT as it was.
    static HRESULT FailedRequest(INotifications* pHandler, ULONG ulNotfyId, ULONG ulExpected, const std::string& sCase,
                                 bool bNullArray = false)
    {
        CCVariant instances;
        V_VT(instances.Ptr()) = VT_I4;
        V_I4(instances.Ptr()) = 17;
        ULONG ulReturn = kSentinel;
        const HRESULT hr = pHandler->GetInstances(ulNotfyId, bNullArray ? nullptr : instances.Ptr(), &ulReturn);
        EXPECT_EQ(ulReturn, ulExpected) << sCase;
        EXPECT_TRUE(instances.Type() == VT_I4 && V_I4(&instances.Get()) == 17) << sCase;
        return hr;
    }

    std::unique_ptr<MoradelModule> m_pModule;
    std::unique_ptr<CCWMIAccess> m_pEvents;
};

// Both requests answer a failure before any object exists the same way, except for the array check.
TEST_F(HandlerTest, FailuresAnswerAsTheReturnValueTableSays)
{
    const struct { const char* szCase; bool bInitialize, bNullArray; ULONG ulNotfyId, ulReturn; HRESULT hr; } rows[] = {
        {"null array, not initialised", false, true, 59, kFailedBefore, E_POINTER},
        {"null array, initialised", true, true, 59, kFailedBefore, E_POINTER},
        {"null array, unknown id", true, true, 4, kFailedBefore, E_POINTER},
        {"not initialised, known id", false, false, 59, kFailedBefore, E_UNEXPECTED},
        {"not initialised, unknown id", false, false, 4, kFailedBefore, E_UNEXPECTED},
        {"unknown id 4", true, false, 4, 4, E_INVALIDARG},
        {"unknown id 66", true, false, 66, 66, E_INVALIDARG},
    };
    for (const auto& row : rows) {
        ComPtr<INotifications> pHandler = row.bInitialize ? InitializedHandler() : NewHandler();
        ASSERT_TRUE(pHandler) << row.szCase;
        EXPECT_EQ(FailedRequest(pHandler.Get(), row.ulNotfyId, row.ulReturn, row.szCase, row.bNullArray), row.hr)
            << row.szCase;
        ULONG ulReturn = kSentinel;
        if (!row.bNullArray) {
            EXPECT_EQ(pHandler->DeleteObsoleteInstances(row.ulNotfyId, &ulReturn), row.hr) << row.szCase;
            EXPECT_EQ(ulReturn, row.ulReturn) << row.szCase;
        }
    }
}

// A failed connection is left for the requests to find; Initialize again replaces it.
TEST_F(HandlerTest, SimulationYieldsOneFreshEventPerRequestAndKeepsNoReference)
{
    ComPtr<INotifications> pHandler = InitializedHandler(L"root\\no\\such\\namespace");
    ASSERT_TRUE(pHandler);
    EXPECT_TRUE(FAILED(FailedRequest(pHandler.Get(), 59, 59, "no namespace")));
    ASSERT_EQ(Initialize(pHandler.Get()), S_OK);
    const LONG lWithHandler = CimStoreLiveObjects();
    std::set<std::wstring> uuids;
    for (int iRequest = 0; iRequest < 2; ++iRequest) {
        {
            CCVariant instances;
            instances.SetText(L"replaced, not leaked");
            ULONG ulReturn = kSentinel;
            ASSERT_EQ(pHandler->GetInstances(59, instances.Ptr(), &ulReturn), S_OK) << iRequest;
            EXPECT_EQ(ulReturn, 0u);
            const auto objects = ReturnedObjects(instances);
            ASSERT_EQ(objects.size(), 1u) << iRequest;
            const std::pair<const wchar_t*, const wchar_t*> aFields[] = {
                {L"__CLASS", L"KM_Notifications"}, {L"DeviceId", L"i4 1"}, {L"EventStatus", L"i4 1"},
                {L"EventTextId", L"i4 59001"},     {L"EventType", L"i4 5"}, {L"EventId", L"i4 59"}};
            for (const auto& [wszName, wszValue] : aFields)
                EXPECT_EQ(Field(objects[0].Get(), wszName), wszValue) << Narrow(wszName);
            const std::wstring wsUuid = Field(objects[0].Get(), L"UUID");
            EXPECT_EQ(wsUuid.size(), 38u) << Narrow(wsUuid);
            uuids.insert(wsUuid);
        }
        EXPECT_EQ(CimStoreLiveObjects(), lWithHandler) << "after GetInstances " << iRequest;
        // The simulation's own success code passes through.
        ULONG ulReturn = kSentinel;
        EXPECT_EQ(pHandler->DeleteObsoleteInstances(59, &ulReturn), kNothingToDelete);
        EXPECT_EQ(ulReturn, 0u);
        EXPECT_EQ(CimStoreLiveObjects(), lWithHandler) << "after DeleteObsoleteInstances " << iRequest;
    }
    EXPECT_EQ(uuids.size(), 2u) << "every request builds a new event";
}

TEST_F(HandlerTest, ComponentInitializeAnswersSOkEitherWayAndTheIdentityReachesTheStore)
{
    CommonKeyValues common;
    TempDir tables;
    std::ofstream(tables.File(L"Notify_2.5.xml").c_str(), std::ios::binary)
        << "<?xml version=\"1.0\"?>\n<features><feature name=\"Notify\" version=\"2.5\"><context name=\"Agent\">\n"
           "<assemblyIdentity name=\"Moradel.dll\" version=\"1.06.0.0\"><dependencies/></assemblyIdentity>\n"
           "</context></feature></features>\n";
    common.Set("DependencyTables", Narrow(tables.Path()));
    ComPtr<INotifications> pHandler = NewHandler();
    ASSERT_TRUE(pHandler);
    CCBstr bstrVersion(L"2.5"), bstrContext(L"Agent");
    for (const auto& [wszFeature, expected] : {std::pair{L"Unknown", VARIANT_FALSE}, {L"Notify", VARIANT_TRUE}}) {
        CCBstr bstrFeature(wszFeature);
        VARIANT_BOOL bResult = 0x1234;
        EXPECT_EQ(pHandler->ComponentInitialize(bstrFeature.Get(), bstrVersion.Get(), bstrContext.Get(), &bResult),
                  S_OK);
        EXPECT_EQ(bResult, expected) << Narrow(wszFeature);
    }
    ASSERT_EQ(Initialize(pHandler.Get()), S_OK);
    CimStoreClearContextRecords();
    CCVariant instances;
    ULONG ulReturn = kSentinel;
    ASSERT_EQ(pHandler->GetInstances(59, instances.Ptr(), &ulReturn), S_OK);
    for (const auto& [wszName, wszExpected] :
         {std::pair{L"FeatureName", L"Notify"}, {L"FeatureVersion", L"2.5"}, {L"ContextName", L"Agent"}}) {
        wchar_t wszMethod[64] = {}, wszValue[64] = {};
        ASSERT_EQ(CimStoreGetContextRecord(0, wszName, wszMethod, 64, wszValue, 64), S_OK) << Narrow(wszName);
        EXPECT_STREQ(wszValue, wszExpected);
    }
}

TEST_F(HandlerTest, ClassObjectsAnswerAsComAsksAndHoldTheModule)
{
    ComPtr<IUnknown> pUnknown;
    EXPECT_EQ(m_pModule->GetClassObject(IID_INotifications, IID_IClassFactory, &pUnknown), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_FALSE(pUnknown);
    EXPECT_EQ(m_pModule->GetClassObject(CLSID_NotificationHandler, IID_IClassFactory, nullptr), E_POINTER);
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_OK);
    ComPtr<IClassFactory> pFactory;
    ASSERT_EQ(m_pModule->GetClassObject(CLSID_NotificationHandler, IID_IClassFactory, &pFactory), S_OK);
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "factory held";
    EXPECT_EQ(pFactory->CreateInstance(pFactory.Get(), IID_IUnknown, &pUnknown), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(pFactory->CreateInstance(nullptr, IID_IClassFactory, &pUnknown), E_NOINTERFACE);
    EXPECT_FALSE(pUnknown);
    ComPtr<INotifications> pFirst;
    ComPtr<IDispatch> pSecond;
    ASSERT_EQ(pFactory->CreateInstance(nullptr, IID_INotifications, &pFirst), S_OK);
    ASSERT_EQ(pFactory->CreateInstance(nullptr, IID_IDispatch, &pSecond), S_OK);
    {
        ComPtr<IDispatch> pDispatch;
        ComPtr<IUnknown> pIdentity1, pIdentity2;
        EXPECT_TRUE(pFirst.As(&pDispatch) == S_OK && pFirst.As(&pIdentity1) == S_OK &&
                    pDispatch.As(&pIdentity2) == S_OK && pIdentity1 == pIdentity2)
            << "one identity behind INotifications and IDispatch";
    }
    EXPECT_EQ(pFactory->LockServer(TRUE), S_OK);
    pFactory.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "two handlers and a lock";
    pFirst.Reset();
    pSecond.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_FALSE) << "a lock";
    ASSERT_EQ(m_pModule->GetClassObject(CLSID_NotificationHandler, IID_IClassFactory, &pFactory), S_OK);
    EXPECT_EQ(pFactory->LockServer(FALSE), S_OK);
    pFactory.Reset();
    EXPECT_EQ(m_pModule->CanUnloadNow(), S_OK);
}

// Script clients (names, calls) are covered by LateBound.js; this is a compiled client's side.
TEST_F(HandlerTest, TypeLibraryAnswersAndInvokeFillsTheCallersVariant)
{
    ComPtr<INotifications> pHandler = InitializedHandler();
    ComPtr<IDispatch> pDispatch;
    ASSERT_TRUE(pHandler && SUCCEEDED(pHandler.As(&pDispatch)));
    UINT uCount = 0;
    EXPECT_TRUE(pDispatch->GetTypeInfoCount(&uCount) == S_OK && uCount == 1) << uCount;
    LPOLESTR pName = const_cast<LPOLESTR>(L"NoSuchMethod");
    DISPID id = 0;
    EXPECT_EQ(pDispatch->GetIDsOfNames(IID_NULL, &pName, 1, LOCALE_USER_DEFAULT, &id), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(id, DISPID_UNKNOWN);
    // GetInstances(59, &instances), the array passed by reference; arguments go last to first.
    CCVariant instances, result;
    VARIANT args[2];
    V_VT(&args[0]) = VT_VARIANT | VT_BYREF;
    V_VARIANTREF(&args[0]) = instances.Ptr();
    V_VT(&args[1]) = VT_UI4;
    V_UI4(&args[1]) = 59;
    DISPPARAMS params = {args, nullptr, 2, 0};
    ASSERT_EQ(pDispatch->Invoke(3, IID_NULL, 0, DISPATCH_METHOD, &params, result.GetAddress(), nullptr, nullptr), S_OK);
    EXPECT_TRUE(result.Type() == VT_UI4 && V_UI4(&result.Get()) == 0);
    EXPECT_EQ(ReturnedObjects(instances).size(), 1u);
}

TEST(IdTable, EveryIdCreatesAKindAnsweringItAndAnUnknownIdNone)
{
    for (const auto& entry : CNotificationHandler::KindTable()) {
        std::unique_ptr<CNotfyBase> pObject(CNotificationHandler::GetDataObject(entry.ulNotfyId));
        ASSERT_EQ(pObject != nullptr, entry.pfnCreate != nullptr) << entry.szClassName;
        EXPECT_TRUE(!pObject || pObject->GetNotfyId() == entry.ulNotfyId) << entry.szClassName;
    }
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(std::unique_ptr<CNotfyBase>(CNotificationHandler::GetDataObject(66)), nullptr);
    std::vector<std::string> levels;
    for (const auto& fields : GlobalTraceLog::Get().LinesSince(uMark))
        if (fields.size() >= 9 && fields[7] == "Unknown Notification Id..." && fields[8] == "ulNotfyId: 66")
            levels.push_back(fields[3] + "/" + fields[6]);
    EXPECT_EQ(levels, std::vector<std::string>{"Warning/Internal"});
}

TEST_F(HandlerTest, EachFailingStepRaisesWithItsMessageAndDeletingCallsNothing)
{
    const struct { const wchar_t *wszMethod, *wszTarget; const char* szStepMessage; bool bInSetEventData; } rows[] = {
        {L"GetObject", L"KM_Notifications", "Raising exception because NewInstance failed.", false},
        {L"Put", L"DeviceId", "Raising exception because SetProperty on 'DeviceId' failed.", false},
        {L"Put", L"EventStatus", "Raising exception because SetProperty on 'EventStatus' failed", true},
        {L"Put", L"EventId", "Raising exception because SetCommonData failed.", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szStepMessage);
        CNotfySimulation kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        ASSERT_EQ(CimStoreInjectFault(row.wszMethod, row.wszTarget, 0, WBEM_E_ACCESS_DENIED), S_OK);
        const GlobalTraceLog& log = GlobalTraceLog::Get();
        const size_t uMark = log.Mark();
        unsigned long ulCount = kSentinel;
        EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), WBEM_E_ACCESS_DENIED);
        EXPECT_EQ(ulCount, 0u);
        EXPECT_FALSE(kind.IsRetrieved());
        EXPECT_TRUE(log.Contains(uMark, row.szStepMessage));
        EXPECT_EQ(log.Contains(uMark, "Raising exception because SetEventData failed."), row.bInSetEventData);
        CimStoreClearFaults();
    }
    CNotfySimulation kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    const LONG lCalls = CimStoreCallCount();
    EXPECT_EQ(kind.DeleteObsoleteInstances(), kNothingToDelete);
    EXPECT_EQ(CimStoreCallCount(), lCalls) << "no store call";
}

// Lists one KM_Notifications event per DeviceId given, then answers hrResult.
class CNotfyScripted : public CNotfyBase {
public:
    CNotfyScripted(std::vector<LONG> ids, HRESULT hr) : m_deviceIds(std::move(ids)), m_hrResult(hr)
    {
        m_ulNotfyId = 59;
        m_sEventClassName = "KM_Notifications";
    }
    HRESULT RetrieveInstances() override
    {
        for (LONG lId : m_deviceIds) {
            m_wmi.NewInstance(m_sEventClassName.c_str());
            PutI4(m_wmi, "DeviceId", lId);
            AddToList();
        }
        return m_hrResult;
    }
    std::vector<LONG> m_deviceIds;
    HRESULT m_hrResult;
};

// An empty result is still an array, never an empty VARIANT; a failed retrieval answers with its id.
TEST_F(HandlerTest, CollectedArraysKeepTheListOrder)
{
    const HRESULT hrFailed = WBEM_E_FAILED;
    const std::pair<std::vector<LONG>, HRESULT> rows[] = {
        {{}, S_OK}, {{3, 1, 2}, S_OK}, {{9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 11, 12}, S_OK}, {{1, 2}, hrFailed}};
    for (const auto& [script, hr] : rows) {
        auto pKind = std::make_unique<CNotfyScripted>(script, hr);
        ASSERT_EQ(InitKind(*pKind), S_OK);
        CCVariant instances;
        V_VT(instances.Ptr()) = VT_I4;
        V_I4(instances.Ptr()) = 17;
        ULONG ulReturn = kSentinel;
        EXPECT_EQ(CNotificationHandler::CollectInstances(std::move(pKind), 59, instances.Ptr(), &ulReturn), hr);
        EXPECT_EQ(ulReturn, hr == S_OK ? 0u : 59u);
        std::vector<LONG> ids;
        for (const auto& pObject : hr == S_OK ? ReturnedObjects(instances) : WbemObjects{})
            ids.push_back(wcstol(Field(pObject.Get(), L"DeviceId").c_str() + 3, nullptr, 10));
        EXPECT_EQ(ids, hr == S_OK ? script : std::vector<LONG>{}) << script.size();
        EXPECT_EQ(instances.Type(), hr == S_OK ? VT_ARRAY | VT_VARIANT : VT_I4) << script.size();
        EXPECT_TRUE(hr == S_OK || V_I4(&instances.Get()) == 17);
    }
}

}  // namespace
