// Every allocation a request makes, failed in turn: the handler's methods answer with a result,
// never with an escaping exception, and leave no store object behind. The handler runs in this
// process (linked from the library), so this executable's operator new is the one it uses.
#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

#include <cstdlib>
#include <new>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

// The failing-new seam: while armed on a thread, that thread's allocations are counted and the
// one numbered t_lFailAt fails (0: none fails, only counted).
thread_local bool t_bArmed = false;
thread_local long t_lAllocations = 0;
thread_local long t_lFailAt = 0;

void* Allocate(std::size_t cb, bool bThrow)
{
    if (t_bArmed && ++t_lAllocations == t_lFailAt) {
        if (bThrow)
            throw std::bad_alloc();
        return nullptr;
    }
    void* p = std::malloc(cb ? cb : 1);
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
        const ULONG ulRefs = --m_ulRefs;
        if (!ulRefs) {
            FinalRelease();
            delete this;
        }
        return ulRefs;
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

enum class ERequest { Initialize, GetInstances, DeleteObsoleteInstances };

// One request on a new handler, with allocation lFailAt of the request failing; answers the number
// of allocations it made. An exception leaving the method fails the test.
long RunRequest(ERequest request, ULONG ulId, long lFailAt, HRESULT* phr, ULONG* pulReturn)
{
    ComPtr<InProcessHandler> pHandler(new InProcessHandler());
    CCBstr bstrNamespace(kWorkstationEvents);
    ULONG ulReturn = 0;
    if (request != ERequest::Initialize && FAILED(pHandler->Initialize(bstrNamespace.Get(), &ulReturn)))
        return 0;
    CCVariant instances;
    *pulReturn = 0x5EA1;
    t_lAllocations = 0;
    t_lFailAt = lFailAt;
    t_bArmed = true;
    try {
        if (request == ERequest::Initialize)
            *phr = pHandler->Initialize(bstrNamespace.Get(), pulReturn);
        else if (request == ERequest::GetInstances)
            *phr = pHandler->GetInstances(ulId, instances.Ptr(), pulReturn);
        else
            *phr = pHandler->DeleteObsoleteInstances(ulId, pulReturn);
    } catch (...) {
        t_bArmed = false;
        ADD_FAILURE() << "an exception left the method";
    }
    t_bArmed = false;
    return t_lAllocations;
}

class AllocationFailure : public WorkstationTest, public testing::WithParamInterface<ULONG> {
protected:
    void SetUp() override
    {
        WorkstationTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
        ASSERT_NO_FATAL_FAILURE(RunAgentCycle(GetParam()));
    }

    // Every allocation of the request failed in turn; answers how many were tried.
    long Sweep(ERequest request)
    {
        HRESULT hr = E_FAIL;
        ULONG ulReturn = 0;
        const long lAllocations = RunRequest(request, GetParam(), 0, &hr, &ulReturn);
        for (long k = 1; k <= lAllocations; ++k) {
            SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(lAllocations));
            const LONG lObjects = CimStoreLiveObjects();
            RunRequest(request, GetParam(), k, &hr, &ulReturn);
            EXPECT_EQ(CimStoreLiveObjects(), lObjects) << "store objects outlive the request";
            if (FAILED(hr) && request != ERequest::Initialize) {
                EXPECT_TRUE(ulReturn == GetParam() || ulReturn == 0xFFFFFFFF)
                    << "hr 0x" << std::hex << hr << " return value " << std::dec << ulReturn;
            }
            if (HasFailure())
                break;
        }
        return lAllocations;
    }
};

TEST_P(AllocationFailure, EveryAllocationOfARequestMayFail)
{
    long lTried = 0;
    for (ERequest request : {ERequest::GetInstances, ERequest::DeleteObsoleteInstances}) {
        SCOPED_TRACE(request == ERequest::GetInstances ? "GetInstances" : "DeleteObsoleteInstances");
        lTried += Sweep(request);
    }
    if (GetParam() == CNotificationHandler::KindTable().front().ulNotfyId) {
        SCOPED_TRACE("Initialize");
        lTried += Sweep(ERequest::Initialize);
    }
    std::printf("allocation failures: id %lu: %ld allocations failed in turn\n", GetParam(), lTried);
}

INSTANTIATE_TEST_SUITE_P(KindTable, AllocationFailure, testing::ValuesIn(TableIds()), IdTestName);

}  // namespace
