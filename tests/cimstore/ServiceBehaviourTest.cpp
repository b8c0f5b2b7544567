// CimStore's service: published error codes, fault injection, concurrency and persistence
// across processes.
#include "ObjectsFixture.h"

#include <thread>

using Microsoft::WRL::ComPtr;

namespace {

using ServiceBehaviourTest = ObjectsFixture;

TEST_F(ServiceBehaviourTest, PublishedCodesAndCounts)
{
    const struct { const wchar_t* wszQuery; HRESULT hr; size_t uCount; } queries[] = {
        {L"SELECT * FROM", Wbem(WBEM_E_INVALID_QUERY), 0}, {L"SELECT * FROM Test_Device WHERE Size > 100", S_OK, 0},
        {L"ASSOCIATORS OF {Test_Device.Name=\"a\"} WHERE ResultClass = Test_Element", S_OK, 1},
        {L"REFERENCES OF {Test_Disk.Name=\"b\"} WHERE ResultClass = Test_Connection", S_OK, 1},
        {L"ASSOCIATORS OF {Test_Disk.Name=\"b\"} WHERE ResultClass = Test_Disk", S_OK, 0},
    };
    for (const auto& row : queries)
        EXPECT_EQ(Count(row.wszQuery, row.hr), row.uCount) << Narrow(row.wszQuery);
    const std::pair<const wchar_t*, HRESULT> paths[] = {{L"Test_Device.Name=\"zz\"", WBEM_E_NOT_FOUND},
        {L"Test_Device.Name=\"a", WBEM_E_INVALID_OBJECT_PATH}, {L"Test_Element.Name=\"b\"", S_OK}};
    for (const auto& [wszPath, hr] : paths)
        Object(wszPath, hr);
    CCBstr bstrMissing(L"Test_Device.Name=\"zz\"");
    EXPECT_EQ(m_pServices->DeleteInstance(bstrMissing.Get(), 0, nullptr, nullptr), Wbem(WBEM_E_NOT_FOUND));
    ComPtr<IWbemServices> pOther;
    // Clients set a proxy blanket on every service they get.
    EXPECT_EQ(CoSetProxyBlanket(m_pServices.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                                RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
              S_OK);
    EXPECT_EQ(ConnectWmi(L"ROOT\\CIMSTORETEST", pOther), S_OK);
    pOther.Reset();
    EXPECT_EQ(ConnectWmi(L"root\\no\\such\\namespace", pOther), Wbem(WBEM_E_INVALID_NAMESPACE));
    EXPECT_EQ(pOther.Get(), nullptr);
}

TEST_F(ServiceBehaviourTest, FaultsHitTheChosenCalls)
{
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", L"Test_Disk", 0, WBEM_E_PROVIDER_FAILURE), S_OK);
    Count(L"SELECT * FROM Test_Disk", Wbem(WBEM_E_PROVIDER_FAILURE));
    Count(L"SELECT * FROM Test_Disk", Wbem(WBEM_E_PROVIDER_FAILURE));
    Count(L"SELECT * FROM Test_Device");
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    Count(L"SELECT * FROM Test_Disk");
    // Only the second GetObject of any path fails.
    ASSERT_EQ(CimStoreInjectFault(L"GetObject", nullptr, 2, E_ACCESSDENIED), S_OK);
    for (HRESULT hr : {S_OK, E_ACCESSDENIED, S_OK})
        Object(kDiskPath, hr);
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    // Enumeration steps and object reads are store calls too.
    ASSERT_EQ(CimStoreInjectFault(L"Next", L"Test_Device", 0, WBEM_E_CALL_CANCELLED), S_OK);
    Count(L"SELECT * FROM Test_Device", Wbem(WBEM_E_CALL_CANCELLED));
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    const LONG lBefore = CimStoreCallCount();
    Object(kDiskPath);
    EXPECT_EQ(CimStoreCallCount(), lBefore + 1);
    EXPECT_EQ(CimStoreInjectFault(L"GetObject", nullptr, 0, S_OK), E_INVALIDARG);
}

// One client on its own thread, creating an instance and querying in each round; the failed rounds.
int ClientRounds(int iClient, int nRounds)
{
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)))
        return nRounds;
    int nFailed = nRounds;
    {
        ComPtr<IWbemServices> pServices;
        ComPtr<IWbemClassObject> pClass;
        if (SUCCEEDED(ConnectWmi(L"root\\cimstoretest", pServices)) &&
            SUCCEEDED(GetObjectByPath(pServices.Get(), L"Test_Device", pClass)))
            nFailed = 0;
        for (int i = 0; pClass && i < nRounds; ++i) {
            ComPtr<IWbemClassObject> pNew;
            WbemObjects objects;
            const std::wstring wsName = L"t" + std::to_wstring(iClient) + L"_" + std::to_wstring(i);
            if (FAILED(pClass->SpawnInstance(0, pNew.GetAddressOf())) ||
                FAILED(PutText(pNew.Get(), L"Name", wsName.c_str())) ||
                FAILED(pServices->PutInstance(pNew.Get(), WBEM_FLAG_CREATE_ONLY, nullptr, nullptr)) ||
                FAILED(QueryAll(pServices.Get(), L"SELECT * FROM Test_Element", objects)) || objects.size() < 2)
                ++nFailed;
        }
    }
    CoUninitialize();
    return nFailed;
}

TEST_F(ServiceBehaviourTest, ThreadsQueryAndWriteAtOnce)
{
    constexpr int kThreads = 4, kRounds = 40;
    std::vector<int> failed(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &failed] { failed[t] = ClientRounds(t, kRounds); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, std::vector<int>(kThreads, 0));
    EXPECT_EQ(Count(L"SELECT * FROM Test_Device"), 2u + kThreads * kRounds);
}

// Persistence: a second process sees what the first one stored, and a save interrupted
// between writing and publishing leaves the former state readable.
class PersistenceTest : public CimStoreTest {
protected:
    // Runs this test program again, limited to the child test, on the same repository folder, named by
    // CIMSTORE_REPOSITORY or (bRegistry) by HKLM\SOFTWARE\CimStore value Repository; the key's other values stay.
    static DWORD RunChild(const std::wstring& wsFolder, const wchar_t* wszExpectedSize, bool bRegistry = false)
    {
        wchar_t wszExe[MAX_PATH];
        GetModuleFileNameW(nullptr, wszExe, MAX_PATH);
        std::wstring wsCommand =
            L"\"" + std::wstring(wszExe) + L"\" --gtest_filter=ChildProcess.PersistenceSeesTheStoredState";
        if (bRegistry) {
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CimStore", L"Repository", REG_SZ, wsFolder.c_str(),
                            static_cast<DWORD>((wsFolder.size() + 1) * sizeof(wchar_t)));
        } else {
            SetEnvironmentVariableW(L"CIMSTORE_REPOSITORY", wsFolder.c_str());
        }
        SetEnvironmentVariableW(L"CIMSTORE_TEST_EXPECT", wszExpectedSize);
        STARTUPINFOW si = {};
        si.cb = sizeof(si);
        PROCESS_INFORMATION pi = {};
        DWORD dwExit = 1000;
        if (CreateProcessW(wszExe, wsCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
            WaitForSingleObject(pi.hProcess, 60000);
            GetExitCodeProcess(pi.hProcess, &dwExit);
            CloseHandle(pi.hThread);
            CloseHandle(pi.hProcess);
        }
        SetEnvironmentVariableW(L"CIMSTORE_REPOSITORY", nullptr);
        SetEnvironmentVariableW(L"CIMSTORE_TEST_EXPECT", nullptr);
        if (bRegistry)
            RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CimStore", L"Repository");
        return dwExit;
    }
    static void StoreSize(IWbemServices* pServices, LONG lSize, HRESULT hrExpected)
    {
        ComPtr<IWbemClassObject> pDevice;
        ASSERT_EQ(GetObjectByPath(pServices, kDevicePath, pDevice), S_OK);
        ASSERT_EQ(PutInt(pDevice.Get(), L"Size", lSize), S_OK);
        EXPECT_EQ(pServices->PutInstance(pDevice.Get(), 0, nullptr, nullptr), hrExpected);
    }
};

TEST_F(PersistenceTest, ChangesSurviveTheProcess)
{
    TempDir folder;
    CopyFileW(FixturePath(L"cimstore\\objects.mof").c_str(), folder.File(L"10-objects.mof").c_str(), FALSE);
    wchar_t wszError[512] = {};
    ASSERT_EQ(CimStoreLoadRepository(folder.Path().c_str(), wszError, 512), S_OK) << Narrow(wszError);
    ComPtr<IWbemServices> pServices;
    ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", pServices), S_OK);
    StoreSize(pServices.Get(), 77, S_OK);
    CCBstr bstrDisk(kDiskPath);
    ASSERT_EQ(pServices->DeleteInstance(bstrDisk.Get(), 0, nullptr, nullptr), S_OK);
    EXPECT_TRUE(FileExists(folder.File(L"state.mof")));
    // A fault between writing the temporary file and moving it into place keeps the former state.
    ASSERT_EQ(CimStoreInjectFault(L"Save", nullptr, 0, WBEM_E_FAILED), S_OK);
    StoreSize(pServices.Get(), 88, Wbem(WBEM_E_FAILED));
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    EXPECT_EQ(RunChild(folder.Path(), L"77"), 0u);
    StoreSize(pServices.Get(), 99, S_OK);
    EXPECT_EQ(RunChild(folder.Path(), L"99"), 0u);
    EXPECT_EQ(RunChild(folder.Path(), L"99", true), 0u);
    pServices.Reset();
    CimStoreReset();
}

// Runs only as the child of PersistenceTest; expects the stored size and the disk deleted.
TEST(ChildProcess, PersistenceSeesTheStoredState)
{
    wchar_t wszExpect[64] = {};
    if (!GetEnvironmentVariableW(L"CIMSTORE_TEST_EXPECT", wszExpect, 64))
        GTEST_SKIP() << "runs as a child process only";
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    {
        ComPtr<IWbemServices> pServices;
        ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", pServices), S_OK);
        ComPtr<IWbemClassObject> pObject;
        ASSERT_EQ(GetObjectByPath(pServices.Get(), kDevicePath, pObject), S_OK);
        EXPECT_EQ(PropertyText(pObject.Get(), L"Size"), wszExpect);
        EXPECT_EQ(GetObjectByPath(pServices.Get(), kDiskPath, pObject), Wbem(WBEM_E_NOT_FOUND));
    }
    CoUninitialize();
}

}  // namespace
