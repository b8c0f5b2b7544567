// Many requests on the example workstation: a long run on one handler leaves nothing behind, and requests
// on several threads (with their own handlers or one shared handler, tracing or not) answer as one thread.
#include "ProcessFootprint.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"
#include "WorkstationTest.h"

#include <atomic>
#include <map>
#include <thread>

using Microsoft::WRL::ComPtr;

namespace {

// What a caller can compare of a request: both answers and, per event, path, status and type.
std::wstring Answer(INotifications* pHandler, ULONG ulId)
{
    CCVariant instances;
    ULONG ulGet = 0, ulDelete = 0;
    const HRESULT hrGet = pHandler->GetInstances(ulId, instances.Ptr(), &ulGet);
    const HRESULT hrDelete = pHandler->DeleteObsoleteInstances(ulId, &ulDelete);
    std::wstring wsAnswer = std::to_wstring(hrGet) + L"/" + std::to_wstring(ulGet) + L" " + std::to_wstring(hrDelete) +
                            L"/" + std::to_wstring(ulDelete);
    for (const auto& pEvent : ReturnedObjects(instances))
        for (const wchar_t* wszName : {L"__RELPATH", L"EventStatus", L"EventType"})
            wsAnswer += L" " + PropertyText(pEvent.Get(), wszName);
    return wsAnswer;
}

class LoadTest : public WorkstationTest {
protected:
    void SetUp() override
    {
        WorkstationTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_NO_FATAL_FAILURE(LoadSettledWorkstation());
        const ComPtr<INotifications> pHandler = InitializedHandler();
        ASSERT_TRUE(pHandler);
        for (ULONG ulId : m_ids)
            m_expected[ulId] = Answer(pHandler.Get(), ulId);
    }
    // Each thread makes iRequests requests, cycling over the ids from its own start, on pShared or
    // else on a handler of its own; every answer must be the one of a single thread.
    void RunThreads(int iThreads, int iRequests, INotifications* pShared)
    {
        std::atomic<int> iMismatches{0};
        std::string sFirst;  // written by the thread that found the first mismatch only
        std::vector<std::thread> threads;
        for (int t = 0; t < iThreads; ++t)
            threads.emplace_back([&, t] {
                CoInitializeEx(nullptr, COINIT_MULTITHREADED);
                // No test assertion off the main thread: a handler that cannot be made is a mismatch.
                ComPtr<INotifications> pOwn;
                CCBstr bstrNamespace(kWorkstationEvents);
                ULONG ulReturn = 0;
                if (!pShared && (FAILED(m_pModule->CreateHandler(pOwn)) ||
                                 FAILED(pOwn->Initialize(bstrNamespace.Get(), &ulReturn))))
                    ++iMismatches;
                INotifications* pHandler = pShared ? pShared : pOwn.Get();
                for (int r = 0; pHandler && r < iRequests; ++r) {
                    const ULONG ulId = m_ids[static_cast<size_t>(r + t) % m_ids.size()];
                    const std::wstring wsAnswer = Answer(pHandler, ulId);
                    if (wsAnswer != m_expected.at(ulId) && iMismatches++ == 0)
                        sFirst = "id " + std::to_string(ulId) + ": " + Narrow(wsAnswer) + " instead of " +
                                 Narrow(m_expected.at(ulId));
                }
                pOwn.Reset();  // while COM is still initialised on this thread
                CoUninitialize();
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(iMismatches.load(), 0) << iThreads << " threads, " << (pShared ? "shared" : "own") << " handlers: "
                                         << sFirst;
    }

    const std::vector<ULONG> m_ids = TableIds();
    std::map<ULONG, std::wstring> m_expected;
};

TEST_F(LoadTest, ThousandRequestsOnOneHandlerLeaveNothingBehind)
{
    const ComPtr<INotifications> pHandler = InitializedHandler();
    ASSERT_TRUE(pHandler);
    SIZE_T cbAfterWarmUp = 0;
    DWORD dwHandlesAfterWarmUp = 0;
    for (int r = 0; r < 1000; ++r) {
        if (r == 100) {
            CimStoreClearContextRecords();  // CimStore's own log of every call's context
            cbAfterWarmUp = LiveHeapBytes();
            dwHandlesAfterWarmUp = OpenHandles();
        }
        const ULONG ulId = m_ids[static_cast<size_t>(r) % m_ids.size()];
        ASSERT_EQ(Answer(pHandler.Get(), ulId), m_expected.at(ulId)) << "request " << r;
    }
    CimStoreClearContextRecords();
    EXPECT_LT(LiveHeapBytes(), cbAfterWarmUp + 1024 * 1024) << "heap grew by more than 1 MiB";
    EXPECT_LE(OpenHandles(), dwHandlesAfterWarmUp + 4) << "handles grew";
    // The fixture's teardown checks that no store object outlives the handler.
}

TEST_F(LoadTest, ThreadsWithOwnOrSharedHandlersAnswerAsOneThread)
{
    RunThreads(8, 1000, nullptr);
    const ComPtr<INotifications> pShared = InitializedHandler();
    ASSERT_TRUE(pShared);
    RunThreads(4, 1000, pShared.Get());
}

// Level 6 writes some hundred lines per request, each opening the file: fewer requests here.
TEST_F(LoadTest, TracingFromEightThreadsWritesWholeLines)
{
    const std::wstring wsFile = m_folder.File(L"threads.trc");
    {
        TestRegistryKey key("Software\\Tessaline Systems\\Common\\Tracing\\Moradel.dll\\1.06");
        key.SetDword("Trace", 1);
        key.SetDword("TraceLevel", 6);
        key.SetString("TraceFile", Narrow(wsFile));
        m_pModule.reset();  // the module reads its trace settings when it is loaded
        m_pModule = std::make_unique<MoradelModule>();
        ASSERT_TRUE(m_pModule->Loaded());
        RunThreads(8, 5, nullptr);
        m_pModule.reset();
    }
    const TraceFileContent content = ReadTraceFile(wsFile);
    EXPECT_TRUE(content.bHasBom && content.bEndsWithLineEnd);
    ASSERT_GT(content.lines.size(), 1000u);
    for (const std::wstring& wsLine : content.lines)
        ASSERT_TRUE(SplitFields(wsLine).size() == 9u && wsLine.find_first_of(L"\r\n") == std::wstring::npos)
            << Narrow(wsLine);
}

}  // namespace
