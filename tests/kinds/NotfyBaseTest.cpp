// The retrieval cycle, the instance list, SetEventType and the obsolescence scan of CNotfyBase.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "access/ComHolders.h"

#include <wrl/client.h>

#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

class NotfyBaseTest : public KindTest {
protected:
    // Makes a new event instance the kind's current one, keyed by lDeviceId.
    void NewEvent(CNotfyTestKind& kind, LONG lDeviceId)
    {
        ASSERT_EQ(kind.Access().NewInstance("KM_TestKind_Static"), S_OK);
        CCVariant deviceId;
        V_VT(deviceId.Ptr()) = VT_I4;
        V_I4(deviceId.Ptr()) = lDeviceId;
        ASSERT_EQ(kind.Access().SetProperty("DeviceId", deviceId.Ptr()), S_OK);
    }
    void LoadStored() { ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\test_kind_stored.mof")); }
    bool Traced(size_t uMark, const char* szMessage) { return GlobalTraceLog::Get().Contains(uMark, szMessage); }
};

// Releases what GetInstances handed out.
struct InstanceArray {
    explicit InstanceArray(size_t n) : pointers(n, nullptr) {}
    ~InstanceArray()
    {
        for (IWbemClassObject* p : pointers)
            if (p)
                p->Release();
    }
    std::vector<IWbemClassObject*> pointers;
};

ULONG RefCount(IUnknown* p)
{
    p->AddRef();
    return p->Release();
}

TEST_F(NotfyBaseTest, InitRejectsNullArguments)
{
    CNotfyTestKind kind;
    const CNotfyNames names = {"F", "V", "C"};
    EXPECT_EQ(kind.Init(nullptr, &names), E_INVALIDARG);
    EXPECT_EQ(kind.Init(*m_pEvents, nullptr), E_INVALIDARG);
    EXPECT_EQ(InitKind(kind), S_OK);
}

TEST_F(NotfyBaseTest, InitPassesTheFeatureContextToTheStore)
{
    CNotfyTestKind kind;
    kind.m_items = {{1, 1, nullptr}};
    ASSERT_EQ(InitKind(kind), S_OK);
    CimStoreClearContextRecords();
    unsigned long ulCount = 0;
    ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    ASSERT_GT(CimStoreContextRecordCount(), 0);
    for (const auto& [wszName, wszExpected] :
         {std::pair{L"FeatureName", L"TestFeature"}, std::pair{L"ContextName", L"TestContext"}}) {
        wchar_t wszMethod[64] = {};
        wchar_t wszValue[64] = {};
        ASSERT_EQ(CimStoreGetContextRecord(0, wszName, wszMethod, 64, wszValue, 64), S_OK);
        EXPECT_STREQ(wszValue, wszExpected);
    }
}

TEST_F(NotfyBaseTest, NullCountPointerDoesNotRetrieve)
{
    CNotfyTestKind kind;
    kind.m_items = {{1, 1, nullptr}};
    ASSERT_EQ(InitKind(kind), S_OK);
    EXPECT_EQ(kind.GetInstances(nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(kind.m_iRetrieveCalls, 0);
    EXPECT_FALSE(kind.IsRetrieved());
}

TEST_F(NotfyBaseTest, UnsupportedKindReportsNothingWithoutRetrieving)
{
    CNotfyTestKind kind;
    kind.m_items = {{1, 1, nullptr}};
    kind.m_bSupported = false;
    ASSERT_EQ(InitKind(kind), S_OK);
    unsigned long ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 0u);
    EXPECT_EQ(kind.m_iRetrieveCalls, 0);
}

TEST_F(NotfyBaseTest, SecondCallIsServedFromTheCacheWithOneMoreReference)
{
    CNotfyTestKind kind;
    kind.m_items = {{1, 1, nullptr}, {2, 3, nullptr}, {3, 2, nullptr}};
    ASSERT_EQ(InitKind(kind), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    unsigned long ulCount = 0xdeadbeef;
    ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    ASSERT_EQ(ulCount, 3u);

    InstanceArray first(ulCount);
    unsigned long ulSecond = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(first.pointers.data(), &ulSecond), NOTFY_S_UNCHANGED);
    EXPECT_EQ(ulSecond, 3u);
    EXPECT_TRUE(Traced(uMark, "Data already retrieved, taking cached data."));

    InstanceArray second(ulCount);
    std::vector<ULONG> before;
    for (IWbemClassObject* p : first.pointers)
        before.push_back(RefCount(p));
    EXPECT_EQ(kind.GetInstances(second.pointers.data(), &ulSecond), NOTFY_S_UNCHANGED);
    EXPECT_EQ(kind.m_iRetrieveCalls, 1);
    for (size_t i = 0; i < ulCount; ++i) {
        EXPECT_EQ(second.pointers[i], first.pointers[i]) << "entry " << i;
        EXPECT_EQ(RefCount(first.pointers[i]), before[i] + 1) << "entry " << i;
    }
}

TEST_F(NotfyBaseTest, HandedOutInstancesOutliveTheKind)
{
    const LONG lBefore = CimStoreLiveObjects();
    InstanceArray array(2);
    {
        CNotfyTestKind kind;
        kind.m_items = {{1, 1, nullptr}, {2, 1, nullptr}};
        ASSERT_EQ(InitKind(kind), S_OK);
        unsigned long ulCount = 0;
        ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
        ASSERT_EQ(ulCount, 2u);
        ASSERT_EQ(kind.GetInstances(array.pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
    }
    // Only the two handed-out instances are still alive.
    EXPECT_EQ(CimStoreLiveObjects(), lBefore + 2);
    for (IWbemClassObject* p : array.pointers)
        EXPECT_EQ(RefCount(p), 1u);
}

TEST_F(NotfyBaseTest, FailedRetrievalLeavesNothingBehind)
{
    CNotfyTestKind kind;
    kind.m_items = {{1, 1, nullptr}, {2, 1, nullptr}};
    kind.m_iFailingRetrievals = 1;
    ASSERT_EQ(InitKind(kind), S_OK);
    const LONG lBefore = CimStoreLiveObjects();
    unsigned long ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), E_FAIL);
    EXPECT_EQ(ulCount, 0u);
    EXPECT_FALSE(kind.IsRetrieved());
    // The instances listed before the failure are gone (the access object may still hold its current one).
    EXPECT_LE(CimStoreLiveObjects(), lBefore + 1);

    // The next call retrieves again and reports only what that retrieval listed.
    kind.m_items = {{7, 1, nullptr}};
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 1u);
    EXPECT_EQ(kind.m_iRetrieveCalls, 2);
    InstanceArray array(ulCount);
    ASSERT_EQ(kind.GetInstances(array.pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
    EXPECT_EQ(GetI4(array.pointers[0], L"DeviceId"), 7);
}

TEST_F(NotfyBaseTest, AddToListWithoutCurrentObjectAddsNothing)
{
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    EXPECT_EQ(kind.AddToList(), S_OK);
    unsigned long ulCount = 0xdeadbeef;
    ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 0u);
}

// Beyond the list's first block, and in the order in which the kind added the instances.
TEST_F(NotfyBaseTest, ListGrowsBeyondItsFirstBlock)
{
    CNotfyTestKind kind;
    for (LONG l = 1; l <= 23; ++l)
        kind.m_items.push_back({l, 1, nullptr});
    ASSERT_EQ(InitKind(kind), S_OK);
    unsigned long ulCount = 0;
    ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    ASSERT_EQ(ulCount, 23u);
    InstanceArray array(ulCount);
    ASSERT_EQ(kind.GetInstances(array.pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
    for (size_t i = 0; i < ulCount; ++i)
        EXPECT_EQ(GetI4(array.pointers[i], L"DeviceId"), static_cast<LONG>(i + 1));
}

TEST_F(NotfyBaseTest, SetEventTypeComparesWithTheStoredInstance)
{
    ASSERT_NO_FATAL_FAILURE(LoadStored());
    LoadMof(L"instance of KM_TestKind_Static { DeviceId = 6; EventStatus = 4294967295; };",
            L"root\\oxl1v2\\KM_Notification");
    const struct {
        LONG lDeviceId;          // stored instance to compare with (see the fixture)
        unsigned long ulStatus;  // the new status
        LONG lExpectedType;      // -1: EventType stays unset
        HRESULT hrExpected;
    } cases[] = {
        {1, 1, 3, NOTFY_S_UNCHANGED},  // stored 1
        {1, 2, 1, S_OK},
        {1, 3, 1, S_OK},
        {2, 1, 2, S_OK},               // stored 2
        {2, 3, 1, S_OK},
        {3, 1, 2, S_OK},               // stored 3
        {3, 3, 3, NOTFY_S_UNCHANGED},
        {6, 1, 2, S_OK},               // stored 0xFFFFFFFF compares as unsigned
        {5, 3, -1, S_OK},              // stored status NULL: type left alone
        {99, 0, 3, S_OK},              // not stored: a first normal or unknown state is unchanged
        {99, 1, 3, S_OK},
        {99, 2, 1, S_OK},
        {99, 3, 1, S_OK},
        {99, 4, 3, S_OK},
    };
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "device " << c.lDeviceId << " status " << c.ulStatus);
        ASSERT_NO_FATAL_FAILURE(NewEvent(kind, c.lDeviceId));
        const size_t uMark = GlobalTraceLog::Get().Mark();
        EXPECT_EQ(kind.SetEventType(c.ulStatus), c.hrExpected);
        VARTYPE vt = VT_EMPTY;
        const LONG lType = GetI4(kind.Access(), L"EventType", &vt);
        if (c.lExpectedType < 0)
            EXPECT_EQ(vt, VT_NULL);
        else
            EXPECT_EQ(lType, c.lExpectedType);
        EXPECT_EQ(Traced(uMark, "This instance has already been set. "), c.hrExpected == NOTFY_S_UNCHANGED);
    }
}

TEST_F(NotfyBaseTest, SetEventTypeReportsAnUnexpectedLookupFailure)
{
    ASSERT_NO_FATAL_FAILURE(LoadStored());
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    ASSERT_NO_FATAL_FAILURE(NewEvent(kind, 1));
    ASSERT_EQ(CimStoreInjectFault(L"GetObject", L"KM_TestKind_Static", 0, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.SetEventType(3), static_cast<HRESULT>(WBEM_E_ACCESS_DENIED));
    VARTYPE vt = VT_EMPTY;
    GetI4(kind.Access(), L"EventType", &vt);
    EXPECT_EQ(vt, VT_NULL);
    EXPECT_TRUE(Traced(uMark, "GetOldObject returned an unexpected WMI HRESULT"));
}

TEST_F(NotfyBaseTest, ObsoleteScanDeletesWhatIsObsolete)
{
    const struct {
        const char* szWhat;
        std::set<LONG> obsoleteIds;  // the kind's own answer for objects that still exist
        const char* szReferencedNamespace;  // nullptr: the kind's default
        std::set<LONG> remaining;
        const char* szTraced;  // nullptr: nothing in particular
    } cases[] = {
        // 2 and 4 refer to vanished objects; 3 has no Object and is skipped, not deleted.
        {"vanished objects", {}, nullptr, {1, 3, 5},
         "Raising exception because Could not get the Path of the referenced object."},
        // 3 is never asked: it has no usable Object.
        {"the kind decides about existing objects", {5, 3}, nullptr, {1, 3}, nullptr},
        {"empty referenced namespace disables the scan", {}, "", {1, 2, 3, 4, 5}, "No instances to delete. "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szWhat);
        ASSERT_NO_FATAL_FAILURE(LoadStored());
        CNotfyTestKind kind;
        kind.m_obsoleteIds = c.obsoleteIds;
        if (c.szReferencedNamespace)
            kind.SetReferencedNamespace(c.szReferencedNamespace);
        ASSERT_EQ(InitKind(kind), S_OK);
        const size_t uMark = GlobalTraceLog::Get().Mark();
        EXPECT_EQ(kind.DeleteObsoleteInstances(), S_OK);
        EXPECT_EQ(StoredDeviceIds(), c.remaining);
        EXPECT_EQ(kind.GetObsoleteCount(), 0u);
        EXPECT_TRUE(!c.szTraced || Traced(uMark, c.szTraced)) << "no trace line '" << c.szTraced << "'";
    }
}

TEST_F(NotfyBaseTest, FailedDeletionDoesNotStopTheOthers)
{
    ASSERT_NO_FATAL_FAILURE(LoadStored());
    CNotfyTestKind kind;
    kind.m_obsoleteIds = {1, 5};
    ASSERT_EQ(InitKind(kind), S_OK);
    ASSERT_EQ(kind.GetObsoleteInstances(), S_OK);
    ASSERT_EQ(kind.GetObsoleteCount(), 4u);
    ASSERT_EQ(CimStoreInjectFault(L"DeleteInstance", L"KM_TestKind_Static", 2, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.DeleteObsoleteInstances(), S_OK);
    EXPECT_TRUE(Traced(uMark, "Delete Instance failed!"));
    EXPECT_EQ(StoredDeviceIds().size(), 2u);  // 3 (no Object) and the one whose deletion failed
    EXPECT_EQ(StoredDeviceIds().count(3), 1u);
    EXPECT_EQ(kind.GetObsoleteCount(), 0u);
}

TEST_F(NotfyBaseTest, EmptyObsoleteListIsNothingToDo)
{
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.DeleteInstancesInList(), S_OK);
    EXPECT_TRUE(Traced(uMark, "List of obsolete instances empty. Nothing to do."));
}

TEST_F(NotfyBaseTest, ScanEndsWhenTheReferencedNamespaceCannotBeOpened)
{
    ASSERT_NO_FATAL_FAILURE(LoadStored());
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    ASSERT_EQ(CimStoreInjectFault(L"ConnectServer", L"root\\oxl1v2\\KM_TestLive", 0, WBEM_E_ACCESS_DENIED), S_OK);
    EXPECT_EQ(kind.GetObsoleteInstances(), static_cast<HRESULT>(WBEM_E_ACCESS_DENIED));
    EXPECT_EQ(kind.GetObsoleteCount(), 0u);
    // The scan's result does not decide the deletion: nothing listed, nothing deleted.
    EXPECT_EQ(kind.DeleteObsoleteInstances(), S_OK);
    EXPECT_EQ(StoredDeviceIds().size(), 5u);
}

TEST_F(NotfyBaseTest, ScanEndsOnAnUnexpectedLookupFailure)
{
    ASSERT_NO_FATAL_FAILURE(LoadStored());
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    ASSERT_EQ(CimStoreInjectFault(L"GetObject", L"Test_Live", 2, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.GetObsoleteInstances(), static_cast<HRESULT>(WBEM_E_ACCESS_DENIED));
    EXPECT_TRUE(Traced(uMark, "Raising exception because an error occured (not WBEM_E_NOT_FOUND) when accessing "
                              "the reference object."));
}

}  // namespace
