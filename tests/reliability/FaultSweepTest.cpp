// Every store call of a request failed on its own, then all of them at once, on the example
// workstation after one agent cycle and its change. Whatever fails, the handler must answer in
// the shape of a failed request or with a success that only lacks events, leave no store object
// alive, and never delete a stored event that the undisturbed request keeps.
#include "WbemTestClient.h"
#include "WorkstationTest.h"

#include "access/ComHolders.h"
#include "core/CNotfyBase.h"
#include "core/CNotificationHandler.h"

#include <wrl/client.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr LONG kSentinel = 0x5EA1;
constexpr ULONG kUnwritten = 0xDEADBEEF;
constexpr LONG kNoFault = -1;

long g_lAllFaultPoints = 0;  // over every id run in this process

enum class ERequest { GetInstances, DeleteObsoleteInstances };

const char* RequestName(ERequest request)
{
    return request == ERequest::GetInstances ? "GetInstances" : "DeleteObsoleteInstances";
}

// What the caller can tell apart of one returned event.
struct Event {
    std::wstring wsClass;
    std::wstring wsRelPath;
    std::wstring wsStatus;
    std::wstring wsType;
};

struct Outcome {
    HRESULT hr = E_FAIL;
    ULONG ulReturn = kUnwritten;
    bool bUntouched = true;  // *pvInstances still holds what the caller put there
    bool bArray = false;     // *pvInstances is a VT_ARRAY | VT_VARIANT
    std::vector<Event> events;
    std::set<std::wstring> stored;  // __RELPATH of every stored event afterwards (deletions only)
};

std::set<std::wstring> StoredEvents()
{
    std::set<std::wstring> relPaths;
    ComPtr<IWbemServices> pServices;
    WbemObjects objects;
    EXPECT_EQ(ConnectWmi(kWorkstationEvents, pServices), S_OK);
    if (pServices) {
        EXPECT_EQ(QueryAll(pServices.Get(), L"select * from KM_Event", objects), S_OK);
    }
    for (const auto& pObject : objects)
        relPaths.insert(PropertyText(pObject.Get(), L"__RELPATH"));
    return relPaths;
}

std::wstring EventNamespaceText()
{
    CCBstr text;
    EXPECT_EQ(CimStoreSerializeNamespace(kWorkstationEvents, FALSE, text.GetAddress()), S_OK);
    return text ? std::wstring(text.Get(), text.Length()) : std::wstring();
}

// The reference class of a kind; empty for a kind this build lacks.
std::string EventClassOf(const CNotificationHandler::KindEntry& entry)
{
    const std::unique_ptr<CNotfyBase> pKind(entry.pfnCreate ? entry.pfnCreate() : nullptr);
    return pKind ? pKind->GetEventClassName() : std::string();
}

class FaultSweep : public WorkstationTest, public testing::WithParamInterface<ULONG> {
protected:
    void SetUp() override
    {
        WorkstationTest::SetUp();
        if (HasFatalFailure())
            return;
        // A kind reads and deletes only the events of its own reference class, so a cycle of the
        // kinds sharing this id's class prepares its requests as a cycle over all ids would, for a
        // fraction of the time; every deleting fault point needs a fresh state.
        const ULONG ulId = GetParam();
        const auto& table = CNotificationHandler::KindTable();
        const auto pKind = std::find_if(table.begin(), table.end(), [&](const auto& e) { return e.ulNotfyId == ulId; });
        ASSERT_NE(pKind, table.end());
        const std::string sClass = EventClassOf(*pKind);
        for (const CNotificationHandler::KindEntry& entry : table)
            if (!sClass.empty() && EventClassOf(entry) == sClass)
                m_cycleIds.push_back(entry.ulNotfyId);
        // The cover opening kind does not use the result of its SetEventType: when the comparison
        // with the stored event fails, the event is still reported, without EventType.
        m_bTypeMayBeUnset = std::string(pKind->szClassName) == "CNotfyCoverOpening";
    }
    // Loaded afresh (without what earlier runs saved), one cycle, then the change.
    void PrepareState()
    {
        ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
        for (ULONG ulId : m_cycleIds)
            ASSERT_NO_FATAL_FAILURE(RunAgentCycle(ulId));
        wchar_t wszError[1024] = {};
        const HRESULT hr = CimStoreLoadMofFile(m_wsChange.c_str(), L"root\\default", wszError, 1024);
        ASSERT_EQ(hr, S_OK) << Narrow(wszError);
        m_wsState = EventNamespaceText();
        ++m_iLoads;
    }

    // One request on a fresh handler, the fault armed after Initialize and cleared before anything
    // returned is read; every returned object is released before the store's objects are counted.
    Outcome Run(ERequest request, LONG lNth, HRESULT hrFault, LONG* plCalls = nullptr)
    {
        Outcome outcome;
        const LONG lObjects = CimStoreLiveObjects();
        {
            ComPtr<INotifications> pHandler = InitializedHandler();
            if (!pHandler)
                return outcome;
            CimStoreClearFaults();
            if (lNth != kNoFault) {
                EXPECT_EQ(CimStoreInjectFault(nullptr, nullptr, lNth, hrFault), S_OK);
            }
            CCVariant instances;
            V_VT(instances.Ptr()) = VT_I4;
            V_I4(instances.Ptr()) = kSentinel;
            outcome.hr = request == ERequest::GetInstances
                             ? pHandler->GetInstances(GetParam(), instances.Ptr(), &outcome.ulReturn)
                             : pHandler->DeleteObsoleteInstances(GetParam(), &outcome.ulReturn);
            if (plCalls)
                *plCalls = CimStoreCallCount();
            CimStoreClearFaults();
            outcome.bUntouched = instances.Type() == VT_I4 && V_I4(&instances.Get()) == kSentinel;
            outcome.bArray = instances.Type() == (VT_ARRAY | VT_VARIANT);
            for (const auto& pEvent : ReturnedObjects(instances))
                outcome.events.push_back({PropertyText(pEvent.Get(), L"__CLASS"), PropertyText(pEvent.Get(), L"__RELPATH"),
                                          PropertyText(pEvent.Get(), L"EventStatus"),
                                          PropertyText(pEvent.Get(), L"EventType")});
        }
        EXPECT_EQ(CimStoreLiveObjects(), lObjects) << "store objects outlive the request and its results";
        if (request == ERequest::DeleteObsoleteInstances)
            outcome.stored = StoredEvents();
        return outcome;
    }

    void Check(ERequest request, const Outcome& clean, const Outcome& faulted)
    {
        if (FAILED(faulted.hr)) {
            // A failure of the kind object: its HRESULT, the id as return value, the VARIANT as it was.
            EXPECT_EQ(faulted.ulReturn, GetParam()) << "hr 0x" << std::hex << faulted.hr;
            EXPECT_TRUE(faulted.bUntouched) << "a failed request changed *pvInstances";
        } else {
            EXPECT_TRUE(SUCCEEDED(clean.hr)) << "success 0x" << std::hex << faulted.hr
                                             << " where the undisturbed request fails with 0x" << clean.hr;
            // A deletion cut short may answer another success code (a cover kind answers 0x00040005
            // when the stored event's Object cannot be read); what it deleted is checked below.
            EXPECT_EQ(faulted.ulReturn, 0u);
            if (request == ERequest::GetInstances) {
                EXPECT_EQ(faulted.hr, S_OK);
                EXPECT_TRUE(faulted.bArray) << "a successful GetInstances hands over an array";
            }
        }
        // Events may be missing, but none may be new or doubled. One whose state differs is counted,
        // not failed: a fault on an optional read (a threshold, a limit) reads as its absence.
        std::vector<bool> used(clean.events.size(), false);
        for (const Event& event : faulted.events) {
            size_t uMatch = clean.events.size();
            for (size_t u = 0; u < clean.events.size() && uMatch == clean.events.size(); ++u)
                if (!used[u] && event.wsClass == clean.events[u].wsClass && event.wsRelPath == clean.events[u].wsRelPath)
                    uMatch = u;
            EXPECT_LT(uMatch, clean.events.size()) << "not in the undisturbed answer: "
                                                   << Narrow(event.wsClass + L" " + event.wsRelPath);
            if (uMatch == clean.events.size())
                continue;
            used[uMatch] = true;
            const Event& known = clean.events[uMatch];
            if (event.wsStatus != known.wsStatus ||
                !(event.wsType == known.wsType || (m_bTypeMayBeUnset && event.wsType.empty())))
                ++m_lAltered;
        }
        for (const std::wstring& wsKept : clean.stored)
            EXPECT_EQ(faulted.stored.count(wsKept), 1u) << "deleted although the undisturbed request keeps it: "
                                                        << Narrow(wsKept);
    }

    // The undisturbed request, then store call 1..N failing alone, then every call failing; stops at
    // the first fault point that breaks a rule. Answers the number of faulted runs.
    long Sweep(ERequest request)
    {
        SCOPED_TRACE(RequestName(request));
        const bool bFailedBefore = HasFailure();
        long lTried = 0;
        PrepareState();
        if (HasFatalFailure())
            return lTried;
        LONG lCalls = 0;
        const Outcome clean = Run(request, kNoFault, S_OK, &lCalls);
        Check(request, clean, clean);
        bool bChanged = EventNamespaceText() != m_wsState;
        EXPECT_FALSE(bChanged && request == ERequest::GetInstances) << "GetInstances changed the stored events";
        for (LONG lNth = 1; lNth <= lCalls + 1; ++lNth) {
            const bool bAll = lNth > lCalls;
            SCOPED_TRACE(bAll ? std::string("every store call failing")
                              : "store call " + std::to_string(lNth) + " of " + std::to_string(lCalls) + " failing");
            if (bChanged)
                PrepareState();
            if (HasFatalFailure())
                break;
            const Outcome faulted = bAll ? Run(request, 0, static_cast<HRESULT>(WBEM_E_OUT_OF_MEMORY))
                                         : Run(request, lNth, static_cast<HRESULT>(WBEM_E_FAILED));
            ++lTried;
            Check(request, clean, faulted);
            // GetInstances only reads; a deletion that removed nothing leaves the state reusable.
            bChanged = EventNamespaceText() != m_wsState;
            EXPECT_FALSE(bChanged && request == ERequest::GetInstances) << "GetInstances changed the stored events";
            if (!bFailedBefore && HasFailure())
                break;
        }
        return lTried;
    }

    std::wstring m_wsState;  // the event namespace as PrepareState left it
    std::vector<ULONG> m_cycleIds;
    bool m_bTypeMayBeUnset = false;
    long m_lAltered = 0;  // events reported with another state than without the fault
    int m_iLoads = 0;
};

TEST_P(FaultSweep, EveryStoreCallFailsAloneThenAllAtOnce)
{
    const ULONG ulId = GetParam();
    SCOPED_TRACE(testing::Message() << "notification id " << ulId);
    const ULONGLONG ullStart = GetTickCount64();
    long lTotal = 0;
    for (ERequest request : {ERequest::GetInstances, ERequest::DeleteObsoleteInstances}) {
        const int iLoadsBefore = m_iLoads;
        const long lTried = Sweep(request);
        std::printf("fault sweep: id %lu %s: %ld fault points tried (the last with every call failing), "
                    "%d repository loads\n",
                    ulId, RequestName(request), lTried, m_iLoads - iLoadsBefore);
        RecordProperty(std::string(RequestName(request)) + "FaultPoints", static_cast<int>(lTried));
        lTotal += lTried;
    }
    g_lAllFaultPoints += lTotal;
    std::printf("fault sweep: id %lu: %ld fault points in %lu ms (%ld events in another state); %ld over all ids run "
                "in this process\n",
                ulId, lTotal, static_cast<unsigned long>(GetTickCount64() - ullStart), m_lAltered, g_lAllFaultPoints);
}

INSTANTIATE_TEST_SUITE_P(KindTable, FaultSweep, testing::ValuesIn(TableIds()), IdTestName);

}  // namespace
