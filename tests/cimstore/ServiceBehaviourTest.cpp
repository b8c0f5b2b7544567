// CimStore's service: published error codes, fault injection, context records,
// concurrency and persistence across processes.
#include "ObjectsFixture.h"

#include <fstream>
#include <memory>
#include <thread>

using Microsoft::WRL::ComPtr;

namespace {

class ServiceBehaviourTest : public ObjectsFixture {
protected:
    HRESULT Query(const std::wstring& wsQuery, size_t* puCount = nullptr)
    {
        WbemObjects objects;
        const HRESULT hr = QueryAll(m_pServices.Get(), wsQuery, objects);
        if (puCount)
            *puCount = objects.size();
        return hr;
    }
    HRESULT GetPath(const std::wstring& wsPath)
    {
        ComPtr<IWbemClassObject> pObject;
        return GetObjectByPath(m_pServices.Get(), wsPath, pObject);
    }
};

struct ErrorCase {
    const wchar_t* wszWhat;
    HRESULT hrExpected;
};

TEST_F(ServiceBehaviourTest, PublishedErrorCodes)
{
    const std::pair<std::wstring, HRESULT> queries[] = {
        {L"SELECT * FROM Test_Nothing", WBEM_E_INVALID_CLASS},
        {L"SELECT * FROM", WBEM_E_INVALID_QUERY},
        {L"SELECT Name Test_Device", WBEM_E_INVALID_QUERY},
        {L"SELECT * FROM Test_Device WHERE Size = 'x' AND", WBEM_E_INVALID_QUERY},
        {L"SELECT * FROM Test_Device WHERE Size > 100", S_OK},
    };
    for (const auto& [wsQuery, hrExpected] : queries)
        EXPECT_EQ(Query(wsQuery), hrExpected) << Narrow(wsQuery);

    const std::pair<std::wstring, HRESULT> paths[] = {
        {L"Test_Device.Name=\"zz\"", WBEM_E_NOT_FOUND},
        {L"Test_Nothing.Name=\"a\"", WBEM_E_NOT_FOUND},
        {L"Test_Nothing", WBEM_E_NOT_FOUND},
        {L"Test_Device.Name=\"a", WBEM_E_INVALID_OBJECT_PATH},
        {L"Test_Element.Name=\"b\"", S_OK},
    };
    for (const auto& [wsPath, hrExpected] : paths)
        EXPECT_EQ(GetPath(wsPath), hrExpected) << Narrow(wsPath);

    ComPtr<IEnumWbemClassObject> pEnum;
    CCBstr bstrSql(L"SQL");
    CCBstr bstrQuery(L"SELECT * FROM Test_Device");
    EXPECT_EQ(m_pServices->ExecQuery(bstrSql.Get(), bstrQuery.Get(), 0, nullptr, pEnum.GetAddressOf()),
              static_cast<HRESULT>(WBEM_E_INVALID_QUERY_TYPE));
    CCBstr bstrWql(L"WQL");
    EXPECT_EQ(m_pServices->ExecQuery(bstrWql.Get(), bstrQuery.Get(), 0, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    CCBstr bstrClass(L"Test_Nothing");
    EXPECT_EQ(m_pServices->CreateInstanceEnum(bstrClass.Get(), 0, nullptr, pEnum.GetAddressOf()),
              static_cast<HRESULT>(WBEM_E_INVALID_CLASS));
    CCBstr bstrMissing(L"Test_Device.Name=\"zz\"");
    EXPECT_EQ(m_pServices->DeleteInstance(bstrMissing.Get(), 0, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(m_pServices->PutInstance(nullptr, 0, nullptr, nullptr), static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER));
    ComPtr<IWbemServices> pOther;
    CCBstr bstrNamespace(L"root");
    EXPECT_EQ(m_pServices->OpenNamespace(bstrNamespace.Get(), 0, nullptr, pOther.GetAddressOf(), nullptr),
              static_cast<HRESULT>(WBEM_E_NOT_SUPPORTED));
    EXPECT_EQ(m_pServices->ExecMethod(bstrMissing.Get(), bstrClass.Get(), 0, nullptr, nullptr, nullptr, nullptr),
              static_cast<HRESULT>(WBEM_E_NOT_SUPPORTED));

    ComPtr<IWbemServices> pNowhere;
    EXPECT_EQ(ConnectWmi(L"root\\no\\such\\namespace", pNowhere), static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE));
    EXPECT_EQ(pNowhere.Get(), nullptr);
}

TEST_F(ServiceBehaviourTest, DeleteAndPutChangeWhatLaterCallsSee)
{
    CCBstr bstrPath(L"Test_Disk.Name=\"b\"");
    ASSERT_EQ(m_pServices->DeleteInstance(bstrPath.Get(), 0, nullptr, nullptr), S_OK);
    EXPECT_EQ(GetPath(L"Test_Disk.Name=\"b\""), static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    size_t uCount = 0;
    EXPECT_EQ(Query(L"SELECT * FROM Test_Element", &uCount), S_OK);
    EXPECT_EQ(uCount, 1u);
}

TEST_F(ServiceBehaviourTest, FaultsHitTheChosenCalls)
{
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", L"Test_Disk", 0, WBEM_E_PROVIDER_FAILURE), S_OK);
    EXPECT_EQ(Query(L"SELECT * FROM Test_Disk"), static_cast<HRESULT>(WBEM_E_PROVIDER_FAILURE));
    EXPECT_EQ(Query(L"SELECT * FROM Test_Disk"), static_cast<HRESULT>(WBEM_E_PROVIDER_FAILURE));
    EXPECT_EQ(Query(L"SELECT * FROM Test_Device"), S_OK);
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    EXPECT_EQ(Query(L"SELECT * FROM Test_Disk"), S_OK);

    // Only the second GetObject of any path fails.
    ASSERT_EQ(CimStoreInjectFault(L"GetObject", nullptr, 2, E_ACCESSDENIED), S_OK);
    EXPECT_EQ(GetPath(L"Test_Disk.Name=\"b\""), S_OK);
    EXPECT_EQ(GetPath(L"Test_Disk.Name=\"b\""), E_ACCESSDENIED);
    EXPECT_EQ(GetPath(L"Test_Disk.Name=\"b\""), S_OK);
    ASSERT_EQ(CimStoreClearFaults(), S_OK);

    // Enumeration steps and object reads are store calls too.
    ASSERT_EQ(CimStoreInjectFault(L"Next", L"Test_Device", 0, WBEM_E_CALL_CANCELLED), S_OK);
    EXPECT_EQ(Query(L"SELECT * FROM Test_Device"), static_cast<HRESULT>(WBEM_E_CALL_CANCELLED));
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    const LONG lBefore = CimStoreCallCount();
    EXPECT_EQ(GetPath(L"Test_Disk.Name=\"b\""), S_OK);
    EXPECT_EQ(CimStoreCallCount(), lBefore + 1);
    EXPECT_EQ(CimStoreInjectFault(L"GetObject", nullptr, 0, S_OK), E_INVALIDARG);
}

TEST_F(ServiceBehaviourTest, ContextValuesAreRecordedWithEachCall)
{
    ComPtr<IWbemContext> pContext;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemContext,
                               reinterpret_cast<void**>(pContext.GetAddressOf())),
              S_OK);
    CCVariant value;
    value.SetText(L"Inventory");
    ASSERT_EQ(pContext->SetValue(L"FeatureName", 0, value.Ptr()), S_OK);
    value.SetText(L"2.5");
    ASSERT_EQ(pContext->SetValue(L"FeatureVersion", 0, value.Ptr()), S_OK);
    ASSERT_EQ(CimStoreClearContextRecords(), S_OK);

    CCBstr bstrPath(L"Test_Disk.Name=\"b\"");
    ComPtr<IWbemClassObject> pObject;
    ASSERT_EQ(m_pServices->GetObject(bstrPath.Get(), 0, pContext.Get(), pObject.GetAddressOf(), nullptr), S_OK);
    ASSERT_EQ(m_pServices->GetObject(bstrPath.Get(), 0, nullptr, pObject.ReleaseAndGetAddressOf(), nullptr), S_OK);
    ASSERT_EQ(CimStoreContextRecordCount(), 2);
    wchar_t wszMethod[64] = {};
    wchar_t wszValue[64] = {};
    ASSERT_EQ(CimStoreGetContextRecord(0, L"FeatureName", wszMethod, 64, wszValue, 64), S_OK);
    EXPECT_STREQ(wszMethod, L"GetObject");
    EXPECT_STREQ(wszValue, L"Inventory");
    ASSERT_EQ(CimStoreGetContextRecord(0, L"FeatureVersion", wszMethod, 64, wszValue, 64), S_OK);
    EXPECT_STREQ(wszValue, L"2.5");
    EXPECT_EQ(CimStoreGetContextRecord(0, L"ContextName", wszMethod, 64, wszValue, 64),
              static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(CimStoreGetContextRecord(1, L"FeatureName", wszMethod, 64, wszValue, 64),
              static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    EXPECT_EQ(CimStoreGetContextRecord(2, L"FeatureName", wszMethod, 64, wszValue, 64), E_INVALIDARG);
}

TEST_F(ServiceBehaviourTest, ThreadsQueryAndWriteAtOnce)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 40;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
                ++failures[t];
                return;
            }
            {
                ComPtr<IWbemServices> pServices;
                if (FAILED(ConnectWmi(L"root\\cimstoretest", pServices))) {
                    ++failures[t];
                } else {
                    ComPtr<IWbemClassObject> pClass;
                    GetObjectByPath(pServices.Get(), L"Test_Device", pClass);
                    for (int i = 0; pClass && i < kRounds; ++i) {
                        ComPtr<IWbemClassObject> pNew;
                        CCVariant value;
                        value.SetText((L"t" + std::to_wstring(t) + L"_" + std::to_wstring(i)).c_str());
                        WbemObjects objects;
                        if (FAILED(pClass->SpawnInstance(0, pNew.GetAddressOf())) ||
                            FAILED(pNew->Put(L"Name", 0, value.Ptr(), 0)) ||
                            FAILED(pServices->PutInstance(pNew.Get(), WBEM_FLAG_CREATE_ONLY, nullptr, nullptr)) ||
                            FAILED(QueryAll(pServices.Get(), L"SELECT * FROM Test_Element", objects)) ||
                            objects.size() < 2)
                            ++failures[t];
                    }
                }
            }
            CoUninitialize();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(failures[t], 0) << "thread " << t;
    size_t uCount = 0;
    EXPECT_EQ(Query(L"SELECT * FROM Test_Device", &uCount), S_OK);
    EXPECT_EQ(uCount, 2u + kThreads * kRounds);
}

// HKLM\SOFTWARE\CimStore value Repository for the life of the object; other values of
// the key (such as the servers saved by the WMI takeover) stay untouched.
class RepositoryValue {
public:
    explicit RepositoryValue(const std::wstring& wsFolder)
    {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CimStore", L"Repository", REG_SZ, wsFolder.c_str(),
                        static_cast<DWORD>((wsFolder.size() + 1) * sizeof(wchar_t)));
    }
    ~RepositoryValue() { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CimStore", L"Repository"); }
    RepositoryValue(const RepositoryValue&) = delete;
    RepositoryValue& operator=(const RepositoryValue&) = delete;
};

// Persistence: a second process sees what the first one stored, and a save interrupted
// between writing and publishing leaves the former state readable.
class PersistenceTest : public CimStoreTest {
protected:
    // Runs this test program again, limited to the child test, on the same repository folder,
    // named by CIMSTORE_REPOSITORY or (bRegistry) by the registry value.
    static DWORD RunChild(const std::wstring& wsFolder, const std::wstring& wsExpectation, bool bRegistry = false)
    {
        wchar_t wszExe[MAX_PATH];
        GetModuleFileNameW(nullptr, wszExe, MAX_PATH);
        std::wstring wsCommand = L"\"" + std::wstring(wszExe) + L"\" --gtest_filter=ChildProcess.PersistenceSeesTheStoredState";
        std::unique_ptr<RepositoryValue> pValue;
        if (bRegistry) {
            pValue = std::make_unique<RepositoryValue>(wsFolder);
        } else {
            SetEnvironmentVariableW(L"CIMSTORE_REPOSITORY", wsFolder.c_str());
        }
        SetEnvironmentVariableW(L"CIMSTORE_TEST_EXPECT", wsExpectation.c_str());
        STARTUPINFOW si = {};
        si.cb = sizeof(si);
        PROCESS_INFORMATION pi = {};
        const BOOL bStarted =
            CreateProcessW(wszExe, wsCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
        SetEnvironmentVariableW(L"CIMSTORE_REPOSITORY", nullptr);
        SetEnvironmentVariableW(L"CIMSTORE_TEST_EXPECT", nullptr);
        if (!bStarted)
            return 1000;
        WaitForSingleObject(pi.hProcess, 60000);
        DWORD dwExit = 1001;
        GetExitCodeProcess(pi.hProcess, &dwExit);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
        return dwExit;
    }
    void StoreSize(IWbemServices* pServices, LONG lSize, HRESULT hrExpected)
    {
        ComPtr<IWbemClassObject> pDevice;
        ASSERT_EQ(GetObjectByPath(pServices, L"Test_Device.Name=\"a\"", pDevice), S_OK);
        CCVariant value;
        V_VT(value.GetAddress()) = VT_I4;
        V_I4(value.Ptr()) = lSize;
        ASSERT_EQ(pDevice->Put(L"Size", 0, value.Ptr(), 0), S_OK);
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
    CCBstr bstrDisk(L"Test_Disk.Name=\"b\"");
    ASSERT_EQ(pServices->DeleteInstance(bstrDisk.Get(), 0, nullptr, nullptr), S_OK);
    EXPECT_TRUE(FileExists(folder.File(L"state.mof")));
    EXPECT_EQ(RunChild(folder.Path(), L"77,deleted"), 0u);

    // A fault between writing the temporary file and moving it into place keeps the former state.
    ASSERT_EQ(CimStoreInjectFault(L"Save", nullptr, 0, WBEM_E_FAILED), S_OK);
    StoreSize(pServices.Get(), 88, static_cast<HRESULT>(WBEM_E_FAILED));
    ASSERT_EQ(CimStoreClearFaults(), S_OK);
    EXPECT_EQ(RunChild(folder.Path(), L"77,deleted"), 0u);

    StoreSize(pServices.Get(), 99, S_OK);
    EXPECT_EQ(RunChild(folder.Path(), L"99,deleted"), 0u);
    EXPECT_EQ(RunChild(folder.Path(), L"99,deleted", true), 0u);
    pServices.Reset();
    CimStoreReset();
}

// Runs only as the child of PersistenceTest, with the repository folder in CIMSTORE_REPOSITORY.
TEST(ChildProcess, PersistenceSeesTheStoredState)
{
    wchar_t wszExpect[64] = {};
    if (!GetEnvironmentVariableW(L"CIMSTORE_TEST_EXPECT", wszExpect, 64))
        GTEST_SKIP() << "runs as a child process only";
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    {
        ComPtr<IWbemServices> pServices;
        ASSERT_EQ(ConnectWmi(L"root\\cimstoretest", pServices), S_OK);
        ComPtr<IWbemClassObject> pDevice;
        ASSERT_EQ(GetObjectByPath(pServices.Get(), L"Test_Device.Name=\"a\"", pDevice), S_OK);
        const std::wstring wsExpect = wszExpect;
        EXPECT_EQ(PropertyText(pDevice.Get(), L"Size"), wsExpect.substr(0, wsExpect.find(L',')));
        ComPtr<IWbemClassObject> pDisk;
        EXPECT_EQ(GetObjectByPath(pServices.Get(), L"Test_Disk.Name=\"b\"", pDisk),
                  static_cast<HRESULT>(WBEM_E_NOT_FOUND));
    }
    CoUninitialize();
}

}  // namespace
