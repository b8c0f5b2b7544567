// Failures under the handler on the example workstation. Every store call of a request fails alone,
// then all at once: the answer is a failed request's or a success that only lacks events, no store
// object stays alive, no stored event that the undisturbed request keeps is deleted. Every allocation
// of a request fails in turn (the handler is linked in, so this executable's operator new is its
// own): no exception escapes and no store object stays alive.
#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>

using Microsoft::WRL::ComPtr;

namespace {

// While armed on a thread, that thread's allocations are counted and number t_lFailAt fails (0: none).
thread_local bool t_bArmed = false;
thread_local long t_lAllocations = 0;
thread_local long t_lFailAt = 0;

void* Allocate(std::size_t cb, bool bThrow)
{
    void* p = t_bArmed && ++t_lAllocations == t_lFailAt ? nullptr : std::malloc(cb ? cb : 1);
    if (!p && bThrow)
        throw std::bad_alloc();
    return p;
}

}  // namespace

void* operator new(std::size_t cb) { return Allocate(cb, true); }
void* operator new[](std::size_t cb) { return Allocate(cb, true); }
void* operator new(std::size_t cb, const std::nothrow_t&) noexcept { return Allocate(cb, false); }
void* operator new[](std::size_t cb, const std::nothrow_t&) noexcept { return Allocate(cb, false); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace {

using Texts = std::multiset<std::wstring>;
constexpr LONG kSentinel = 0x5EA1;

struct Outcome {
    HRESULT hr = E_FAIL;
    bool bChanged = false;  // the stored events differ from what PrepareState left
    Texts events;           // class and path of every returned event
    Texts stored;           // of every stored event afterwards (deletions only)
};

// What a holds more often than b.
std::string Missing(const Texts& a, const Texts& b)
{
    std::string sText;
    for (const std::wstring& ws : a)
        sText += a.count(ws) > b.count(ws) ? " " + Narrow(ws) : "";
    return sText;
}

std::wstring EventNamespaceText()
{
    CCBstr text;
    EXPECT_EQ(CimStoreSerializeNamespace(kWorkstationEvents, FALSE, text.GetAddress()), S_OK);
    return std::wstring(text ? text.Get() : L"", text.Length());
}

Texts ClassesAndPaths(const WbemObjects& objects)
{
    Texts texts;
    for (const auto& pObject : objects)
        texts.insert(PropertyText(pObject.Get(), L"__CLASS") + L" " + PropertyText(pObject.Get(), L"__RELPATH"));
    return texts;
}

Texts StoredEvents()
{
    ComPtr<IWbemServices> pServices;
    WbemObjects objects;
    EXPECT_EQ(ConnectWmi(kWorkstationEvents, pServices), S_OK);
    EXPECT_EQ(pServices ? QueryAll(pServices.Get(), L"select * from KM_Event", objects) : E_POINTER, S_OK);
    return ClassesAndPaths(objects);
}

std::string EventClassOf(ULONG ulId)
{
    const std::unique_ptr<CNotfyBase> pKind(CNotificationHandler::GetDataObject(ulId));
    return pKind ? pKind->GetEventClassName() : std::string();
}

class FaultSweep : public WorkstationTest, public testing::WithParamInterface<ULONG> {
protected:
    // Loaded afresh, one cycle, then the change. A kind reads and deletes only the events of its own
    // class, so a cycle of the ids sharing it prepares the request as a cycle over all ids would, in a
    // fraction of the time; every deleting fault point needs a fresh state.
    void PrepareState()
    {
        ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
        for (ULONG ulId : TableIds())
            if (!m_sClass.empty() && EventClassOf(ulId) == m_sClass) {
                ASSERT_NO_FATAL_FAILURE(RunAgentCycle(ulId));
            }
        wchar_t wszError[1024] = {};
        ASSERT_EQ(CimStoreLoadMofFile(m_wsChange.c_str(), L"root\\default", wszError, 1024), S_OK) << Narrow(wszError);
        m_wsState = EventNamespaceText();
    }
    // One request on a fresh handler, checked against the undisturbed outcome; without one it is the
    // undisturbed run. The fault is armed after Initialize and cleared before anything returned is
    // read; every returned object is released before the store's objects are counted.
    Outcome Run(bool bGet, const Outcome* pClean, LONG lNth = 0, HRESULT hrFault = S_OK)
    {
        Outcome out;
        const Outcome& clean = *(pClean ? pClean : &out);
        const LONG lObjects = CimStoreLiveObjects();
        ULONG ulReturn = 0xDEADBEEF;
        if (ComPtr<INotifications> pHandler = InitializedHandler()) {
            CimStoreClearFaults();
            EXPECT_EQ(pClean ? CimStoreInjectFault(nullptr, nullptr, lNth, hrFault) : S_OK, S_OK);
            CCVariant instances;
            V_VT(instances.Ptr()) = VT_I4;
            V_I4(instances.Ptr()) = kSentinel;
            out.hr = bGet ? pHandler->GetInstances(GetParam(), instances.Ptr(), &ulReturn)
                          : pHandler->DeleteObsoleteInstances(GetParam(), &ulReturn);
            m_lCalls = pClean ? m_lCalls : CimStoreCallCount();
            CimStoreClearFaults();
            if (FAILED(out.hr)) {
                // A failure of the kind object: its HRESULT, the id as return value, the VARIANT as it was.
                EXPECT_EQ(ulReturn, GetParam()) << "hr 0x" << std::hex << out.hr;
                EXPECT_TRUE(instances.Type() == VT_I4 && V_I4(&instances.Get()) == kSentinel)
                    << "a failed request changed *pvInstances";
            } else {
                EXPECT_TRUE(SUCCEEDED(clean.hr)) << "undisturbed, the request fails: 0x" << std::hex << clean.hr;
                // A deletion cut short may answer another success code (a cover kind answers 0x00040005
                // when the stored event's Object cannot be read); what it deleted is checked below.
                EXPECT_EQ(ulReturn, 0u);
                EXPECT_TRUE(!bGet || (out.hr == S_OK && instances.Type() == (VT_ARRAY | VT_VARIANT)))
                    << "GetInstances succeeded with 0x" << std::hex << out.hr << " and no array";
            }
            out.events = ClassesAndPaths(ReturnedObjects(instances));
        }
        EXPECT_EQ(CimStoreLiveObjects(), lObjects) << "store objects outlive the request and its results";
        out.bChanged = EventNamespaceText() != m_wsState;
        EXPECT_FALSE(bGet && out.bChanged) << "GetInstances changed the stored events";
        if (!bGet)
            out.stored = StoredEvents();
        // Events may be missing (a fault on an optional read reads as its absence), none new or doubled.
        EXPECT_EQ(Missing(out.events, clean.events), "") << "events not in the undisturbed answer";
        EXPECT_EQ(Missing(clean.stored, out.stored), "") << "deleted although the undisturbed request keeps them";
        return out;
    }
    // The undisturbed request, then store call 1..N failing alone, then every call failing; stops at
    // the first fault point that breaks a rule. Answers the number of faulted runs.
    long Sweep(bool bGet)
    {
        SCOPED_TRACE(bGet ? "GetInstances" : "DeleteObsoleteInstances");
        const bool bFailedBefore = HasFailure();
        long lTried = 0;
        PrepareState();
        if (HasFatalFailure())
            return 0;
        const Outcome clean = Run(bGet, nullptr);
        for (bool bChanged = clean.bChanged; lTried <= m_lCalls && (bFailedBefore || !HasFailure()); ++lTried) {
            const bool bAll = lTried == m_lCalls;
            SCOPED_TRACE(bAll ? std::string("every store call failing")
                              : "store call " + std::to_string(lTried + 1) + " of " + std::to_string(m_lCalls));
            if (bChanged)
                PrepareState();
            if (HasFatalFailure())
                break;
            bChanged = Run(bGet, &clean, bAll ? 0 : lTried + 1, bAll ? WBEM_E_OUT_OF_MEMORY : WBEM_E_FAILED).bChanged;
        }
        return lTried;
    }

    const std::string m_sClass = EventClassOf(GetParam());
    std::wstring m_wsState;  // the event namespace as PrepareState left it
    LONG m_lCalls = 0;       // store calls of the undisturbed request
};

TEST_P(FaultSweep, EveryStoreCallFailsAloneThenAllAtOnce)
{
    const long lGet = Sweep(true);
    const long lDelete = Sweep(false);
    std::printf("fault sweep: id %lu: %ld GetInstances and %ld DeleteObsoleteInstances fault points (the last of "
                "each with every store call failing)\n", GetParam(), lGet, lDelete);
}

INSTANTIATE_TEST_SUITE_P(KindTable, FaultSweep, testing::ValuesIn(TableIds()), IdTestName);

// The handler on the stack in place of the module's COM wrapper; nothing asks it for an interface.
class InProcessHandler final : public CNotificationHandler {
public:
    ~InProcessHandler() override { FinalRelease(); }
    STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    STDMETHODIMP_(ULONG) AddRef() override { return 1; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
};

enum ERequest { kInitialize, kGetInstances, kDeleteObsoleteInstances };
constexpr const char* kRequestNames[] = {"Initialize", "GetInstances", "DeleteObsoleteInstances"};

class AllocationFailure : public WorkstationTest, public testing::WithParamInterface<ULONG> {
protected:
    // One request on a new handler with its allocation lFailAt failing; answers how many it made.
    long RunRequest(ERequest request, long lFailAt, HRESULT& hr, ULONG& ulReturn)
    {
        InProcessHandler handler;
        CCBstr bstrNamespace(kWorkstationEvents);
        CCVariant instances;
        if (request != kInitialize && FAILED(handler.Initialize(bstrNamespace.Get(), &ulReturn)))
            return 0;
        ulReturn = 0x5EA1;
        t_lAllocations = 0;
        t_lFailAt = lFailAt;
        t_bArmed = true;
        try {
            hr = request == kInitialize     ? handler.Initialize(bstrNamespace.Get(), &ulReturn)
                 : request == kGetInstances ? handler.GetInstances(GetParam(), instances.Ptr(), &ulReturn)
                                            : handler.DeleteObsoleteInstances(GetParam(), &ulReturn);
        } catch (...) {
            t_bArmed = false;
            ADD_FAILURE() << "an exception left the method";
        }
        t_bArmed = false;
        return t_lAllocations;
    }
    // Every allocation of the request failed in turn; answers how many were tried.
    long Sweep(ERequest request)
    {
        SCOPED_TRACE(kRequestNames[request]);
        HRESULT hr = E_FAIL;
        ULONG ulReturn = 0;
        const long lAllocations = RunRequest(request, 0, hr, ulReturn);
        for (long k = 1; k <= lAllocations && !HasFailure(); ++k) {
            SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(lAllocations));
            const LONG lObjects = CimStoreLiveObjects();
            hr = S_OK;
            RunRequest(request, k, hr, ulReturn);
            EXPECT_EQ(CimStoreLiveObjects(), lObjects) << "store objects outlive the request";
            EXPECT_TRUE(SUCCEEDED(hr) || request == kInitialize || ulReturn == GetParam() || ulReturn == 0xFFFFFFFF)
                << "hr 0x" << std::hex << hr << " return value " << std::dec << ulReturn;
        }
        return lAllocations;
    }
};

TEST_P(AllocationFailure, EveryAllocationOfARequestMayFail)
{
    ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
    RunAgentCycle(GetParam());
    long lTried = Sweep(kGetInstances);
    lTried += Sweep(kDeleteObsoleteInstances);
    if (GetParam() == CNotificationHandler::KindTable().front().ulNotfyId)  // Initialize does not depend on the id
        lTried += Sweep(kInitialize);
    std::printf("allocation failures: id %lu: %ld allocations failed in turn\n", GetParam(), lTried);
}

INSTANTIATE_TEST_SUITE_P(KindTable, AllocationFailure, testing::ValuesIn(TableIds()), IdTestName);

}  // namespace
