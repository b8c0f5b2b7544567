// The simulation kind on its own, the id table, and the array building of a request driven
// with a scripted kind (counts the handler's own kinds cannot produce yet).
#include "CimStoreTest.h"
#include "GlobalTraceLog.h"
#include "TempDir.h"

#include "access/CCWMIAccess.h"
#include "access/ComHolders.h"
#include "core/CNotfySimulation.h"
#include "core/CNotificationHandler.h"
#include "framework/HResultError.h"

#include <wrl/client.h>

#include <memory>
#include <set>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kEventNamespace[] = "root\\oxl1v2\\KM_Notification";

class SimulationTest : public CimStoreTest {
protected:
    void SetUp() override
    {
        CimStoreTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Notification.mof"));
        m_pEvents = std::make_unique<CCWMIAccess>();
        ASSERT_EQ(m_pEvents->ConnectToNamespace(kEventNamespace, -1, nullptr), S_OK);
    }
    void TearDown() override
    {
        m_pEvents.reset();
        CimStoreTest::TearDown();
    }
    HRESULT InitKind(CNotfyBase& kind)
    {
        const CNotfyNames names = {"Notify", "2.5", "Agent"};
        return kind.Init(*m_pEvents, &names);
    }

    std::unique_ptr<CCWMIAccess> m_pEvents;
};

// Lists one KM_Notifications event per DeviceId given, or fails after listing them.
class CNotfyScripted : public CNotfyBase {
public:
    explicit CNotfyScripted(std::vector<LONG> deviceIds, HRESULT hrResult = S_OK)
        : m_deviceIds(std::move(deviceIds)), m_hrResult(hrResult)
    {
        m_ulNotfyId = 59;
        m_sEventClassName = "KM_Notifications";
    }
    HRESULT RetrieveInstances() override
    {
        for (LONG lId : m_deviceIds) {
            m_wmi.NewInstance(m_sEventClassName.c_str());
            CCVariant value;
            V_VT(value.Ptr()) = VT_I4;
            V_I4(value.Ptr()) = lId;
            m_wmi.SetProperty("DeviceId", value.Ptr());
            AddToList();
        }
        return m_hrResult;
    }

private:
    std::vector<LONG> m_deviceIds;
    HRESULT m_hrResult;
};

std::vector<LONG> DeviceIdsOf(const CCVariant& value)
{
    std::vector<LONG> ids;
    if (value.Type() != (VT_ARRAY | VT_VARIANT))
        return {-1};
    SAFEARRAY* psa = V_ARRAY(&value.Get());
    LONG lLower = 0;
    LONG lUpper = -1;
    SafeArrayGetLBound(psa, 1, &lLower);
    SafeArrayGetUBound(psa, 1, &lUpper);
    for (LONG i = lLower; i <= lUpper; ++i) {
        CCVariant element;
        SafeArrayGetElement(psa, &i, element.Ptr());
        ComPtr<IWbemClassObject> pObject;
        if (element.Type() != VT_UNKNOWN ||
            FAILED(V_UNKNOWN(&element.Get())->QueryInterface(IID_IWbemClassObject, reinterpret_cast<void**>(pObject.GetAddressOf()))))
            return {-2};
        CCVariant id;
        pObject->Get(L"DeviceId", 0, id.GetAddress(), nullptr, nullptr);
        ids.push_back(id.Type() == VT_I4 ? V_I4(&id.Get()) : -3);
    }
    return ids;
}

TEST(IdTable, EveryCatalogueIdAndNothingElseIsInTheTable)
{
    const struct {
        unsigned long ulId;
        const char* szClass;
    } expected[] = {
        {1, "CNotfyHardDisksSMART"},         {2, "CNotfyCoverOpening"},
        {3, "CNotfyCoverSensor"},            {7, "CNotfyTemperature"},
        {8, "CNotfyFanMonitoring"},          {9, "CNotfyFanDeterioration"},
        {11, "CNotfyVoltage"},               {21, "CNotfyHardDisksFreeSpaceData"},
        {22, "CNotfyMemoryChange"},          {23, "CNotfyDeviceChange"},
        {56, "CNotfyHardDisksFreeSpaceSystem"}, {57, "CNotfyLeaseExpiration"},
        {58, "CNotfyProcessorChange"},       {59, "CNotfySimulation"},
        {60, "CNotfyDisplayChange"},         {61, "CNotfyServiceMonitoring"},
        {62, "CNotfyAutoStartMonitoring"},   {63, "CNotfyBiosSettingsChange"},
        {64, "CNotfyVideoAdapterChange"},    {65, "CNotfyPhysicalHDDChange"},
    };
    const auto& table = CNotificationHandler::KindTable();
    ASSERT_EQ(table.size(), std::size(expected));
    for (size_t i = 0; i < table.size(); ++i) {
        EXPECT_EQ(table[i].ulNotfyId, expected[i].ulId) << i;
        EXPECT_STREQ(table[i].szClassName, expected[i].szClass) << i;
    }
}

TEST(IdTable, GetDataObjectCreatesTheKindOfItsId)
{
    std::set<unsigned long> tableIds;
    for (const auto& entry : CNotificationHandler::KindTable())
        tableIds.insert(entry.ulNotfyId);
    for (unsigned long ulId = 0; ulId <= 100; ++ulId) {
        std::unique_ptr<CNotfyBase> pObject(CNotificationHandler::GetDataObject(ulId));
        if (!tableIds.count(ulId)) {
            EXPECT_EQ(pObject, nullptr) << ulId;
            continue;
        }
        bool bBuilt = false;
        for (const auto& entry : CNotificationHandler::KindTable())
            if (entry.ulNotfyId == ulId)
                bBuilt = entry.pfnCreate != nullptr;
        EXPECT_EQ(pObject != nullptr, bBuilt) << ulId;
        if (ulId == 59) {
            EXPECT_NE(pObject, nullptr) << "the simulation kind is always built";
        }
        if (pObject) {
            EXPECT_EQ(pObject->GetNotfyId(), ulId);
        }
    }
}

TEST(IdTable, UnknownIdIsTraced)
{
    const size_t uMark = GlobalTraceLog::Get().Mark();
    std::unique_ptr<CNotfyBase> pObject(CNotificationHandler::GetDataObject(66));
    EXPECT_EQ(pObject, nullptr);
    bool bFound = false;
    for (const auto& fields : GlobalTraceLog::Get().LinesSince(uMark))
        if (fields.size() >= 9 && fields[7] == "Unknown Notification Id...") {
            bFound = true;
            EXPECT_EQ(fields[3], "Warning");
            EXPECT_EQ(fields[6], "Internal");
            EXPECT_EQ(fields[8], "ulNotfyId: 66");
        }
    EXPECT_TRUE(bFound);
}

TEST_F(SimulationTest, ConstructorSetsIdAndEventClass)
{
    CNotfySimulation kind;
    EXPECT_EQ(kind.GetNotfyId(), 59u);
    EXPECT_EQ(kind.GetEventClassName(), "KM_Notifications");
}

TEST_F(SimulationTest, RetrievesExactlyOneEventAndServesTheSecondCallFromTheCache)
{
    CNotfySimulation kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    unsigned long ulCount = 0;
    ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    ASSERT_EQ(ulCount, 1u);
    IWbemClassObject* apObjects[1] = {};
    EXPECT_EQ(kind.GetInstances(apObjects, &ulCount), 0x00040001);
    ComPtr<IWbemClassObject> pEvent;
    TakeOwnership(pEvent, apObjects[0]);
    ASSERT_TRUE(pEvent);
    CCVariant value;
    ASSERT_EQ(pEvent->Get(L"EventType", 0, value.GetAddress(), nullptr, nullptr), S_OK);
    EXPECT_EQ(V_I4(&value.Get()), 5);
}

TEST_F(SimulationTest, EachFailingStepRaisesWithItsMessage)
{
    struct Row {
        const wchar_t* wszMethod;
        const wchar_t* wszTarget;
        const char* szStepMessage;
        const char* szOuterMessage;  // null: the step is RetrieveInstances' own
    };
    const Row rows[] = {
        {L"GetObject", L"KM_Notifications", "Raising exception because NewInstance failed.", nullptr},
        {L"Put", L"DeviceId", "Raising exception because SetProperty on 'DeviceId' failed.", nullptr},
        {L"Put", L"EventStatus", "Raising exception because SetProperty on 'EventStatus' failed",
         "Raising exception because SetEventData failed."},
        {L"Put", L"EventTextId", "Raising exception because SetProperty on 'EventTextId' failed",
         "Raising exception because SetEventData failed."},
        {L"Put", L"EventType", "Raising exception because SetProperty on 'EventType' failed",
         "Raising exception because SetEventData failed."},
        {L"Put", L"EventId", "Raising exception because SetCommonData failed.", nullptr},
    };
    const HRESULT hrFault = WBEM_E_ACCESS_DENIED;
    for (const Row& row : rows) {
        CNotfySimulation kind;
        ASSERT_EQ(InitKind(kind), S_OK);
        ASSERT_EQ(CimStoreInjectFault(row.wszMethod, row.wszTarget, 0, hrFault), S_OK);
        const size_t uMark = GlobalTraceLog::Get().Mark();
        unsigned long ulCount = 0xdeadbeef;
        EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), hrFault) << Narrow(row.wszTarget);
        EXPECT_EQ(ulCount, 0u);
        EXPECT_FALSE(kind.IsRetrieved());
        EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, row.szStepMessage)) << row.szStepMessage;
        if (row.szOuterMessage) {
            EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, row.szOuterMessage)) << row.szOuterMessage;
        }
        CimStoreClearFaults();
    }
}

TEST_F(SimulationTest, DeleteObsoleteInstancesReturnsNothingToDeleteAtOnce)
{
    CNotfySimulation kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    CimStoreClearFaults();
    const LONG lCalls = CimStoreCallCount();
    EXPECT_EQ(kind.DeleteObsoleteInstances(), 0x00040017);
    EXPECT_EQ(CimStoreCallCount(), lCalls) << "no store call";
}

TEST_F(SimulationTest, CollectedArraysKeepTheListOrder)
{
    const std::vector<std::vector<LONG>> scripts = {{}, {4}, {3, 1, 2}, {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 11, 12}};
    for (const auto& script : scripts) {
        auto pKind = std::make_unique<CNotfyScripted>(script);
        ASSERT_EQ(InitKind(*pKind), S_OK);
        CCVariant instances;
        instances.SetText(L"previous content");
        ULONG ulReturn = 0xdeadbeef;
        EXPECT_EQ(CNotificationHandler::CollectInstances(std::move(pKind), 59, instances.Ptr(), &ulReturn), S_OK);
        EXPECT_EQ(ulReturn, 0u);
        // An empty result is still an array, never an empty VARIANT.
        ASSERT_EQ(instances.Type(), VT_ARRAY | VT_VARIANT) << script.size();
        EXPECT_EQ(SafeArrayGetDim(V_ARRAY(&instances.Get())), 1u);
        EXPECT_EQ(DeviceIdsOf(instances), script);
    }
}

TEST_F(SimulationTest, FailedRetrievalReturnsTheKindsHresultAndItsId)
{
    auto pKind = std::make_unique<CNotfyScripted>(std::vector<LONG>{1, 2}, WBEM_E_FAILED);
    ASSERT_EQ(InitKind(*pKind), S_OK);
    CCVariant instances;
    V_VT(instances.Ptr()) = VT_I4;
    V_I4(instances.Ptr()) = 17;
    ULONG ulReturn = 0xFFFFFFFF;
    EXPECT_EQ(CNotificationHandler::CollectInstances(std::move(pKind), 59, instances.Ptr(), &ulReturn),
              static_cast<HRESULT>(WBEM_E_FAILED));
    EXPECT_EQ(ulReturn, 59u);
    EXPECT_EQ(instances.Type(), VT_I4);
    EXPECT_EQ(V_I4(&instances.Get()), 17);
}

}  // namespace
