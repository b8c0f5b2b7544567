#include "WorkstationTest.h"

#include "core/CNotificationHandler.h"

using Microsoft::WRL::ComPtr;

// Every .mof file of a folder but the change, which tests apply themselves.
static void CopyMofFiles(const std::wstring& wsFrom, const TempDir& to, const std::wstring& wsPrefix)
{
    WIN32_FIND_DATAW fd;
    const HANDLE hFind = FindFirstFileW((wsFrom + L"\\*.mof").c_str(), &fd);
    ASSERT_NE(hFind, INVALID_HANDLE_VALUE) << Narrow(wsFrom);
    do {
        const std::wstring wsName = fd.cFileName;
        EXPECT_TRUE(wsName == L"change.mof" ||
                    CopyFileW((wsFrom + L"\\" + wsName).c_str(), to.File(wsPrefix + wsName).c_str(), FALSE))
            << Narrow(wsName);
    } while (FindNextFileW(hFind, &fd));
    FindClose(hFind);
}

std::vector<ULONG> TableIds()
{
    std::vector<ULONG> ids;
    for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable())
        ids.push_back(entry.ulNotfyId);
    return ids;
}

void WorkstationTest::SetUp()
{
    CimStoreTest::SetUp();
    m_pModule = std::make_unique<MoradelModule>();
    ASSERT_TRUE(m_pModule->Loaded()) << GetLastError();
    wchar_t wszRoot[MAX_PATH] = {};
    ASSERT_LT(GetFullPathNameW(FixturePath(L"..\\..").c_str(), MAX_PATH, wszRoot, nullptr), DWORD{MAX_PATH});
    const std::wstring wsRoot = wszRoot;
    ASSERT_NO_FATAL_FAILURE(CopyMofFiles(wsRoot + L"\\schema", m_folder, L"00_"));  // loaded first
    ASSERT_NO_FATAL_FAILURE(CopyMofFiles(wsRoot + L"\\examples\\workstation", m_folder, L""));
    m_wsChange = wsRoot + L"\\examples\\workstation\\change.mof";
    ASSERT_TRUE(FileExists(m_wsChange));
}

void WorkstationTest::TearDown()
{
    m_pModule.reset();
    CimStoreTest::TearDown();
    CimStoreReset();  // the folder goes with the fixture
}

void WorkstationTest::LoadWorkstation()
{
    DeleteFileW(m_folder.File(L"state.mof").c_str());  // CimStore saves every write into the folder it loaded
    wchar_t wszError[1024] = {};
    const HRESULT hr = CimStoreLoadRepository(m_folder.Path().c_str(), wszError, 1024);
    ASSERT_EQ(hr, S_OK) << std::hex << hr << " " << Narrow(wszError);
}

ComPtr<INotifications> WorkstationTest::InitializedHandler()
{
    ComPtr<INotifications> pHandler;
    CCBstr bstrNamespace(kWorkstationEvents);
    ULONG ulReturn = 0;
    EXPECT_EQ(m_pModule->CreateHandler(pHandler), S_OK);
    EXPECT_EQ(pHandler ? pHandler->Initialize(bstrNamespace.Get(), &ulReturn) : E_POINTER, S_OK);
    return pHandler;
}

void WorkstationTest::RunAgentCycle(ULONG ulId)
{
    const ComPtr<INotifications> pHandler = InitializedHandler();
    ComPtr<IWbemServices> pEvents;
    ASSERT_TRUE(pHandler);
    ASSERT_EQ(ConnectWmi(kWorkstationEvents, pEvents), S_OK);
    CCVariant instances;
    ULONG ulReturn = 0;
    if (SUCCEEDED(pHandler->GetInstances(ulId, instances.Ptr(), &ulReturn)))
        for (const auto& pEvent : ReturnedObjects(instances)) {
            ComPtr<IWbemQualifierSet> pQualifiers;
            CCVariant noPut;
            if (FAILED(pEvent->GetQualifierSet(pQualifiers.GetAddressOf())) ||
                FAILED(pQualifiers->Get(L"NoPut", 0, noPut.GetAddress(), nullptr)) || noPut.Type() != VT_BOOL ||
                V_BOOL(&noPut.Get()) == VARIANT_FALSE) {
                EXPECT_EQ(pEvents->PutInstance(pEvent.Get(), WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr), S_OK);
            }
        }
    pHandler->DeleteObsoleteInstances(ulId, &ulReturn);
}

void WorkstationTest::LoadSettledWorkstation()
{
    ASSERT_NO_FATAL_FAILURE(LoadWorkstation());
    for (int iCycle = 0; iCycle < 2; ++iCycle)
        for (ULONG ulId : TableIds())
            ASSERT_NO_FATAL_FAILURE(RunAgentCycle(ulId));
}
