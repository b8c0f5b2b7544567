// The retrieval cycle, the instance list, SetEventType, the obsolescence scan and the threshold
// query (GetThresholdState with the limits of its notification from KM_Filter) of CNotfyBase.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"

#include <climits>

namespace {

using NotfyBaseTest = KindTest;

constexpr HRESULT kDenied = static_cast<HRESULT>(WBEM_E_ACCESS_DENIED);

bool Traced(size_t uMark, const char* szMessage)
{
    return GlobalTraceLog::Get().Contains(uMark, szMessage);
}

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

TEST_F(NotfyBaseTest, RequestsThatHandOutNothing)
{
    CNotfyTestKind kind;
    const CNotfyNames names = {"F", "V", "C"};
    EXPECT_EQ(kind.Init(nullptr, &names), E_INVALIDARG);
    EXPECT_EQ(kind.Init(*m_pEvents, nullptr), E_INVALIDARG);
    kind.m_items = {1, 2};
    kind.m_iFailingRetrievals = 1;
    ASSERT_EQ(InitKind(kind), S_OK);
    EXPECT_EQ(kind.GetInstances(nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(kind.m_iRetrieveCalls, 0);
    const LONG lBefore = CimStoreLiveObjects();
    unsigned long ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), E_FAIL);
    EXPECT_EQ(ulCount, 0u);
    EXPECT_FALSE(kind.IsRetrieved());
    EXPECT_LE(CimStoreLiveObjects(), lBefore + 1);  // the access object may still hold its current instance
    // The next call retrieves again and reports only what that retrieval listed.
    kind.m_items = {7};
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 1u);
    EXPECT_EQ(kind.m_iRetrieveCalls, 2);
    InstanceArray array(ulCount);
    ASSERT_EQ(kind.GetInstances(array.pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
    EXPECT_EQ(GetI4(array.pointers[0], L"DeviceId"), 7);

    // AddToList without a current object adds nothing; an unsupported kind retrieves nothing.
    for (const bool bSupported : {true, false}) {
        CNotfyTestKind other;
        other.m_bSupported = bSupported;
        if (!bSupported)
            other.m_items = {1};
        ASSERT_EQ(InitKind(other), S_OK);
        EXPECT_EQ(other.AddToList(), S_OK);
        ulCount = 0xdeadbeef;
        EXPECT_EQ(other.GetInstances(nullptr, &ulCount), S_OK);
        EXPECT_EQ(std::make_pair(ulCount, other.m_iRetrieveCalls), std::make_pair(0ul, bSupported ? 1 : 0));
    }
}

// Beyond the list's first block of ten, in the kind's order, served from the cache with one
// reference per call, and outliving the kind.
TEST_F(NotfyBaseTest, ListIsCachedInOrderAndHandedOutWithAReferencePerCall)
{
    constexpr size_t kItems = 23;
    const LONG lBefore = CimStoreLiveObjects();
    InstanceArray first(kItems), second(kItems);
    {
        CNotfyTestKind kind;
        for (LONG l = 1; l <= static_cast<LONG>(kItems); ++l)
            kind.m_items.push_back(l);
        ASSERT_EQ(InitKind(kind), S_OK);
        CimStoreClearContextRecords();
        const size_t uMark = GlobalTraceLog::Get().Mark();
        unsigned long ulCount = 0xdeadbeef;
        ASSERT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
        ASSERT_EQ(ulCount, kItems);
        wchar_t wszMethod[64] = {}, wszFeature[64] = {}, wszContext[64] = {};
        EXPECT_EQ(CimStoreGetContextRecord(0, L"FeatureName", wszMethod, 64, wszFeature, 64), S_OK);
        EXPECT_EQ(CimStoreGetContextRecord(0, L"ContextName", wszMethod, 64, wszContext, 64), S_OK);
        EXPECT_STREQ(wszFeature, L"TestFeature");
        EXPECT_STREQ(wszContext, L"TestContext");
        ulCount = 0xdeadbeef;
        EXPECT_EQ(kind.GetInstances(first.pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
        EXPECT_EQ(ulCount, kItems);
        EXPECT_TRUE(Traced(uMark, "Data already retrieved, taking cached data."));
        EXPECT_EQ(kind.GetInstances(second.pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
        EXPECT_EQ(kind.m_iRetrieveCalls, 1);
    }
    EXPECT_EQ(CimStoreLiveObjects(), lBefore + static_cast<LONG>(kItems));
    for (size_t i = 0; i < kItems; ++i) {
        ASSERT_NE(first.pointers[i], nullptr) << i;
        EXPECT_EQ(second.pointers[i], first.pointers[i]) << i;
        EXPECT_EQ(RefCount(first.pointers[i]), 2u) << i;
        EXPECT_EQ(GetI4(first.pointers[i], L"DeviceId"), static_cast<LONG>(i + 1));
    }
}

TEST_F(NotfyBaseTest, SetEventTypeComparesWithTheStoredInstance)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\test_kind_stored.mof"));
    LoadMof(L"instance of KM_TestKind_Static { DeviceId = 6; EventStatus = 4294967295; };",
            L"root\\oxl1v2\\KM_Notification");
    // Stored status by DeviceId: 1 -> 1, 2 -> 2, 3 -> 3, 5 NULL, 6 0xFFFFFFFF, 99 not stored. lType -1: unset.
    const struct { LONG lDeviceId; ULONG ulStatus; LONG lType; HRESULT hr; } cases[] = {
        {1, 1, 3, NOTFY_S_UNCHANGED}, {1, 2, 1, S_OK}, {1, 3, 1, S_OK}, {2, 1, 2, S_OK}, {2, 3, 1, S_OK},
        {3, 1, 2, S_OK}, {3, 3, 3, NOTFY_S_UNCHANGED}, {6, 1, 2, S_OK},  // the stored status compares as unsigned
        {5, 3, -1, S_OK}, {99, 0, 3, S_OK}, {99, 1, 3, S_OK}, {99, 2, 1, S_OK}, {99, 3, 1, S_OK}, {99, 4, 3, S_OK},
    };
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    VARTYPE vt = VT_EMPTY;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "device " << c.lDeviceId << " status " << c.ulStatus);
        ASSERT_NO_FATAL_FAILURE(NewEvent(kind, c.lDeviceId));
        const size_t uMark = GlobalTraceLog::Get().Mark();
        EXPECT_EQ(kind.SetEventType(c.ulStatus), c.hr);
        const LONG lType = GetI4(kind.Access(), L"EventType", &vt);
        if (c.lType < 0)
            EXPECT_EQ(vt, VT_NULL);
        else
            EXPECT_EQ(lType, c.lType);
        EXPECT_EQ(Traced(uMark, "This instance has already been set. "), c.hr == NOTFY_S_UNCHANGED);
    }
    ASSERT_NO_FATAL_FAILURE(NewEvent(kind, 1));
    ASSERT_EQ(CimStoreInjectFault(L"GetObject", L"KM_TestKind_Static", 0, kDenied), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(kind.SetEventType(3), kDenied);
    GetI4(kind.Access(), L"EventType", &vt);
    EXPECT_EQ(vt, VT_NULL);
    EXPECT_TRUE(Traced(uMark, "GetOldObject returned an unexpected WMI HRESULT"));
}

// The stored instances (see the fixture): 1 and 5 refer to live objects, 2 and 4 to vanished
// ones, 3 has no Object and is never listed.
TEST_F(NotfyBaseTest, ObsoleteScanListsAndDeletes)
{
    constexpr char kNoPath[] = "Raising exception because Could not get the Path of the referenced object.";
    // obsoleteIds: the kind's answer for live objects; szReferencedNamespace null: the kind's default;
    // wszFaultMethod null: no fault; remaining: DeviceIds after DeleteObsoleteInstances.
    const struct { const char* szWhat; std::set<LONG> obsoleteIds; const char* szReferencedNamespace;
                   const wchar_t *wszFaultMethod, *wszFaultTarget; LONG lFaultNth; HRESULT hrScan; size_t uListed;
                   std::set<std::wstring> remaining; std::vector<const char*> traced; } cases[] = {
        {"vanished objects", {}, nullptr, nullptr, nullptr, 0, S_OK, 2, {L"1", L"3", L"5"}, {kNoPath}},
        {"the kind decides about live objects", {5, 3}, nullptr, nullptr, nullptr, 0, S_OK, 3, {L"1", L"3"}, {}},
        {"no referenced namespace", {}, "", nullptr, nullptr, 0, S_OK, 0, {L"1", L"2", L"3", L"4", L"5"},
         {"No instances to delete. ", "List of obsolete instances empty. Nothing to do."}},
        // The second of the four deletions (in key order) fails; the others go on.
        {"failed deletion", {1, 5}, nullptr, L"DeleteInstance", L"KM_TestKind_Static", 2, S_OK, 4, {L"2", L"3"},
         {"Delete Instance failed!"}},
        // The scan's result does not decide the deletion: nothing listed, nothing deleted.
        {"live namespace not opened", {}, nullptr, L"ConnectServer", L"root\\oxl1v2\\KM_TestLive", 0, kDenied, 0,
         {L"1", L"2", L"3", L"4", L"5"}, {kNoPath}},
        // Only the first scan fails; the deletion scans again.
        {"unexpected lookup failure", {}, nullptr, L"GetObject", L"Test_Live", 2, kDenied, 0, {L"1", L"3", L"5"},
         {"Raising exception because an error occured (not WBEM_E_NOT_FOUND) when accessing the reference object."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szWhat);
        CimStoreClearFaults();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\test_kind_stored.mof"));
        CNotfyTestKind kind;
        kind.m_obsoleteIds = c.obsoleteIds;
        if (c.szReferencedNamespace)
            kind.SetReferencedNamespace(c.szReferencedNamespace);
        ASSERT_EQ(InitKind(kind), S_OK);
        if (c.wszFaultMethod) {
            ASSERT_EQ(CimStoreInjectFault(c.wszFaultMethod, c.wszFaultTarget, c.lFaultNth, kDenied), S_OK);
        }
        const size_t uMark = GlobalTraceLog::Get().Mark();
        EXPECT_EQ(kind.GetObsoleteInstances(), c.hrScan);
        EXPECT_EQ(kind.GetObsoleteCount(), c.uListed);
        EXPECT_EQ(kind.DeleteObsoleteInstances(), S_OK);
        EXPECT_EQ(kind.GetObsoleteCount(), 0u);
        EXPECT_EQ(StoredTexts("KM_TestKind_Static", L"DeviceId"), c.remaining);
        for (const char* szTraced : c.traced)
            EXPECT_TRUE(Traced(uMark, szTraced)) << "no trace line '" << szTraced << "'";
    }
}

constexpr LONGLONG U = 0x5A5A5A5A5A5ALL;  // not written
struct ThresholdQueryTest : KindTest {
    // The state, and the four limits as written to LowWarning, LowCritical, HighWarning, HighCritical.
    std::pair<unsigned long, std::vector<LONGLONG>> Classify(unsigned long ulNotfyId, ULONGLONG ullCurrent)
    {
        CNotfyTestKind kind(ulNotfyId);
        EXPECT_EQ(InitKind(kind), S_OK);
        std::vector<LONGLONG> limits(4, U);
        return {kind.GetThresholdState(ullCurrent, &limits[0], &limits[1], &limits[2], &limits[3]), limits};
    }
};

TEST_F(ThresholdQueryTest, ClassifiesWithTheStoredLimitsOfItsId)
{
    LoadMof(LR"(
instance of KM_Filter { Id = 90; LowWarning = "10"; LowCritical = "5"; HighWarning = "80"; HighCritical = "90"; };
instance of KM_Filter { Id = 91; LowWarning = "100"; LowCritical = "50"; HighWarning = "800"; HighCritical = "900"; };
instance of KM_Filter { Id = 92; HighCritical = "90"; };
instance of KM_Filter { Id = 93; LowWarning = "-1"; HighCritical = "-1"; };
instance of KM_Filter { Id = 94; };
)",
            L"root\\oxl1v2\\KM_Notification");
    // A negative limit compares as the largest value; no filter (95): the empty result counts as a failed query.
    const struct { ULONG ulId; ULONGLONG ullCurrent; ULONG ulState; std::vector<LONGLONG> limits; } rows[] = {
        {90, 3, 3, {10, 5, 80, 90}}, {90, 7, 2, {10, 5, 80, 90}}, {90, 50, 1, {10, 5, 80, 90}},
        {90, 80, 2, {10, 5, 80, 90}}, {90, 95, 3, {10, 5, 80, 90}}, {91, 50, 3, {100, 50, 800, 900}},
        {92, 89, 1, {U, U, U, 90}}, {92, 90, 3, {U, U, U, 90}}, {92, 0, 1, {U, U, U, 90}},
        {93, 123456, 2, {-1, U, U, -1}}, {93, ULLONG_MAX, 3, {-1, U, U, -1}}, {94, 0, 1, {U, U, U, U}},
        {95, 5, 0, {U, U, U, U}},
    };
    for (const auto& r : rows)
        EXPECT_EQ(Classify(r.ulId, r.ullCurrent), std::make_pair(r.ulState, r.limits)) << r.ulId << " " << r.ullCurrent;
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    EXPECT_EQ(kind.GetThresholdState(80, nullptr, nullptr, nullptr, nullptr), 2u);
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", nullptr, 0, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    EXPECT_EQ(Classify(90, 5), std::make_pair(0ul, std::vector<LONGLONG>(4, U)));
    EXPECT_TRUE(Traced(uMark, "Could not get thresholds."));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Method GetThresholdState has been left.", "State: 0"));
}

}  // namespace
