// Every store call of a request failed on its own, then all of them at once, on the example
// workstation after one agent cycle and its change. Whatever fails, the handler must answer in
// the shape of a failed request or with a success that only lacks events, leave no store object
// alive, and never delete a stored event that the undisturbed request keeps.
#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>

using Microsoft::WRL::ComPtr;

namespace {

constexpr LONG kSentinel = 0x5EA1;
constexpr LONG kNoFault = -1;

struct Outcome {
    HRESULT hr = E_FAIL;
    ULONG ulReturn = 0xDEADBEEF;
    bool bUntouched = true;  // *pvInstances still holds what the caller put there
    bool bArray = false;     // *pvInstances is a VT_ARRAY | VT_VARIANT
    bool bChanged = false;   // the stored events differ from what PrepareState left
    std::multiset<std::wstring> events;  // class and path of every returned event
    std::multiset<std::wstring> stored;  // path of every stored event afterwards (deletions only)
};

// What a holds more often than b.
std::string Missing(const std::multiset<std::wstring>& a, const std::multiset<std::wstring>& b)
{
    std::vector<std::wstring> missing;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(missing));
    std::string sText;
    for (const std::wstring& ws : missing)
        sText += " " + Narrow(ws);
    return sText;
}

std::wstring EventNamespaceText()
{
    CCBstr text;
    EXPECT_EQ(CimStoreSerializeNamespace(kWorkstationEvents, FALSE, text.GetAddress()), S_OK);
    return std::wstring(text ? text.Get() : L"", text.Length());
}

std::multiset<std::wstring> StoredEvents()
{
    ComPtr<IWbemServices> pServices;
    WbemObjects objects;
    EXPECT_EQ(ConnectWmi(kWorkstationEvents, pServices), S_OK);
    EXPECT_EQ(pServices ? QueryAll(pServices.Get(), L"select * from KM_Event", objects) : E_POINTER, S_OK);
    std::multiset<std::wstring> relPaths;
    for (const auto& pObject : objects)
        relPaths.insert(PropertyText(pObject.Get(), L"__RELPATH"));
    return relPaths;
}

class FaultSweep : public WorkstationTest, public testing::WithParamInterface<ULONG> {
protected:
    void SetUp() override
    {
        WorkstationTest::SetUp();
        // A kind reads and deletes only the events of its own reference class, so a cycle of the ids
        // sharing this id's class prepares the requests as a cycle over all ids would, in a fraction
        // of the time; every deleting fault point needs a fresh state.
        const auto eventClass = [](const CNotificationHandler::KindEntry& entry) {
            const std::unique_ptr<CNotfyBase> pKind(entry.pfnCreate ? entry.pfnCreate() : nullptr);
            return pKind ? pKind->GetEventClassName() : std::string();
        };
        std::string sClass;
        for (const auto& entry : CNotificationHandler::KindTable())
            if (entry.ulNotfyId == GetParam())
                sClass = eventClass(entry);
        for (const auto& entry : CNotificationHandler::KindTable())
            if (!sClass.empty() && eventClass(entry) == sClass)
                m_cycleIds.push_back(entry.ulNotfyId);
    }
    // Loaded afresh, one cycle, then the change.
    void PrepareState()
    {
        ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
        for (ULONG ulId : m_cycleIds)
            ASSERT_NO_FATAL_FAILURE(RunAgentCycle(ulId));
        wchar_t wszError[1024] = {};
        ASSERT_EQ(CimStoreLoadMofFile(m_wsChange.c_str(), L"root\\default", wszError, 1024), S_OK) << Narrow(wszError);
        m_wsState = EventNamespaceText();
    }
    // One request on a fresh handler, the fault armed after Initialize and cleared before anything
    // returned is read; every returned object is released before the store's objects are counted.
    Outcome Run(bool bGet, LONG lNth, HRESULT hrFault, LONG* plCalls = nullptr)
    {
        Outcome out;
        const LONG lObjects = CimStoreLiveObjects();
        if (ComPtr<INotifications> pHandler = InitializedHandler()) {
            CimStoreClearFaults();
            EXPECT_EQ(lNth == kNoFault ? S_OK : CimStoreInjectFault(nullptr, nullptr, lNth, hrFault), S_OK);
            CCVariant instances;
            V_VT(instances.Ptr()) = VT_I4;
            V_I4(instances.Ptr()) = kSentinel;
            out.hr = bGet ? pHandler->GetInstances(GetParam(), instances.Ptr(), &out.ulReturn)
                          : pHandler->DeleteObsoleteInstances(GetParam(), &out.ulReturn);
            if (plCalls)
                *plCalls = CimStoreCallCount();
            CimStoreClearFaults();
            out.bUntouched = instances.Type() == VT_I4 && V_I4(&instances.Get()) == kSentinel;
            out.bArray = instances.Type() == (VT_ARRAY | VT_VARIANT);
            for (const auto& pEvent : ReturnedObjects(instances))
                out.events.insert(PropertyText(pEvent.Get(), L"__CLASS") + L" " +
                                  PropertyText(pEvent.Get(), L"__RELPATH"));
        }
        EXPECT_EQ(CimStoreLiveObjects(), lObjects) << "store objects outlive the request and its results";
        out.bChanged = EventNamespaceText() != m_wsState;
        if (!bGet)
            out.stored = StoredEvents();
        return out;
    }
    void Check(bool bGet, const Outcome& clean, const Outcome& faulted)
    {
        EXPECT_FALSE(bGet && faulted.bChanged) << "GetInstances changed the stored events";
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
            EXPECT_TRUE(!bGet || (faulted.hr == S_OK && faulted.bArray))
                << "GetInstances succeeded with 0x" << std::hex << faulted.hr << " and no array";
        }
        // Events may be missing (a fault on an optional read reads as its absence), none new or doubled.
        EXPECT_EQ(Missing(faulted.events, clean.events), "") << "events not in the undisturbed answer";
        EXPECT_EQ(Missing(clean.stored, faulted.stored), "") << "deleted although the undisturbed request keeps them";
    }
    // The undisturbed request, then store call 1..N failing alone, then every call failing; stops at
    // the first fault point that breaks a rule. Answers the number of faulted runs.
    long Sweep(bool bGet)
    {
        SCOPED_TRACE(bGet ? "GetInstances" : "DeleteObsoleteInstances");
        const bool bFailedBefore = HasFailure();
        LONG lCalls = 0;
        long lTried = 0;
        PrepareState();
        if (HasFatalFailure())
            return 0;
        const Outcome clean = Run(bGet, kNoFault, S_OK, &lCalls);
        Check(bGet, clean, clean);
        for (bool bChanged = clean.bChanged; lTried <= lCalls && (bFailedBefore || !HasFailure()); ++lTried) {
            const bool bAll = lTried == lCalls;
            SCOPED_TRACE(bAll ? std::string("every store call failing")
                              : "store call " + std::to_string(lTried + 1) + " of " + std::to_string(lCalls));
            if (bChanged)
                PrepareState();
            if (HasFatalFailure())
                break;
            const Outcome faulted = bAll ? Run(bGet, 0, WBEM_E_OUT_OF_MEMORY) : Run(bGet, lTried + 1, WBEM_E_FAILED);
            Check(bGet, clean, faulted);
            bChanged = faulted.bChanged;
        }
        return lTried;
    }

    std::wstring m_wsState;  // the event namespace as PrepareState left it
    std::vector<ULONG> m_cycleIds;
};

TEST_P(FaultSweep, EveryStoreCallFailsAloneThenAllAtOnce)
{
    const long lGet = Sweep(true);
    const long lDelete = Sweep(false);
    std::printf("fault sweep: id %lu: %ld GetInstances and %ld DeleteObsoleteInstances fault points (the last of "
                "each with every store call failing)\n", GetParam(), lGet, lDelete);
}

INSTANTIATE_TEST_SUITE_P(KindTable, FaultSweep, testing::ValuesIn(TableIds()), IdTestName);

}  // namespace
