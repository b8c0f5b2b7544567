// Every allocation a request makes, failed in turn: the handler's methods answer with a result,
// never with an escaping exception, and leave no store object behind. The handler runs in this
// process (linked from the library), so this executable's operator new is the one it uses.
#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

#include <cstdio>
#include <cstdlib>
#include <new>

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

// The handler with a plain reference count in place of the module's COM wrapper.
class InProcessHandler final : public CNotificationHandler {
public:
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override
    {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_ulRefs; }
    STDMETHODIMP_(ULONG) Release() override
    {
        if (--m_ulRefs)
            return m_ulRefs;
        FinalRelease();
        delete this;
        return 0;
    }
    STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }

private:
    ULONG m_ulRefs = 0;
};

enum ERequest { kInitialize, kGetInstances, kDeleteObsoleteInstances };
constexpr const char* kRequestNames[] = {"Initialize", "GetInstances", "DeleteObsoleteInstances"};

class AllocationFailure : public WorkstationTest, public testing::WithParamInterface<ULONG> {
protected:
    void SetUp() override
    {
        WorkstationTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
        RunAgentCycle(GetParam());
    }
    // One request on a new handler with allocation lFailAt of the request failing; answers the number
    // of allocations it made.
    long RunRequest(ERequest request, long lFailAt, HRESULT* phr, ULONG* pulReturn)
    {
        Microsoft::WRL::ComPtr<InProcessHandler> pHandler(new InProcessHandler());
        CCBstr bstrNamespace(kWorkstationEvents);
        CCVariant instances;
        if (request != kInitialize && FAILED(pHandler->Initialize(bstrNamespace.Get(), pulReturn)))
            return 0;
        *pulReturn = 0x5EA1;
        t_lAllocations = 0;
        t_lFailAt = lFailAt;
        t_bArmed = true;
        try {
            *phr = request == kInitialize     ? pHandler->Initialize(bstrNamespace.Get(), pulReturn)
                   : request == kGetInstances ? pHandler->GetInstances(GetParam(), instances.Ptr(), pulReturn)
                                              : pHandler->DeleteObsoleteInstances(GetParam(), pulReturn);
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
        const long lAllocations = RunRequest(request, 0, &hr, &ulReturn);
        for (long k = 1; k <= lAllocations && !HasFailure(); ++k) {
            SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(lAllocations));
            const LONG lObjects = CimStoreLiveObjects();
            hr = S_OK;
            RunRequest(request, k, &hr, &ulReturn);
            EXPECT_EQ(CimStoreLiveObjects(), lObjects) << "store objects outlive the request";
            EXPECT_TRUE(SUCCEEDED(hr) || request == kInitialize || ulReturn == GetParam() || ulReturn == 0xFFFFFFFF)
                << "hr 0x" << std::hex << hr << " return value " << std::dec << ulReturn;
        }
        return lAllocations;
    }
};

TEST_P(AllocationFailure, EveryAllocationOfARequestMayFail)
{
    long lTried = Sweep(kGetInstances);
    lTried += Sweep(kDeleteObsoleteInstances);
    // Initialize does not depend on the id.
    if (GetParam() == CNotificationHandler::KindTable().front().ulNotfyId)
        lTried += Sweep(kInitialize);
    std::printf("allocation failures: id %lu: %ld allocations failed in turn\n", GetParam(), lTried);
}

INSTANTIATE_TEST_SUITE_P(KindTable, AllocationFailure, testing::ValuesIn(TableIds()), IdTestName);

}  // namespace
