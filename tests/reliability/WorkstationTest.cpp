#include "WorkstationTest.h"

#include "WbemTestClient.h"

#include "core/CNotificationHandler.h"

using Microsoft::WRL::ComPtr;

namespace {

void CopyMofFiles(const std::wstring& wsFrom, const TempDir& to, const std::wstring& wsPrefix, const wchar_t* wszSkip)
{
    WIN32_FIND_DATAW fd;
    const HANDLE hFind = FindFirstFileW((wsFrom + L"\\*.mof").c_str(), &fd);
    ASSERT_NE(hFind, INVALID_HANDLE_VALUE) << Narrow(wsFrom);
    do {
        if (wszSkip && _wcsicmp(fd.cFileName, wszSkip) == 0)
            continue;
        EXPECT_TRUE(CopyFileW((wsFrom + L"\\" + fd.cFileName).c_str(), to.File(wsPrefix + fd.cFileName).c_str(), FALSE))
            << Narrow(fd.cFileName);
    } while (FindNextFileW(hFind, &fd));
    FindClose(hFind);
}

}  // namespace

std::vector<ComPtr<IWbemClassObject>> ReturnedObjects(const CCVariant& value)
{
    std::vector<ComPtr<IWbemClassObject>> objects;
    if (value.Type() != (VT_ARRAY | VT_VARIANT))
        return objects;
    SAFEARRAY* psa = V_ARRAY(&value.Get());
    LONG lLower = 0;
    LONG lUpper = -1;
    SafeArrayGetLBound(psa, 1, &lLower);
    SafeArrayGetUBound(psa, 1, &lUpper);
    for (LONG i = lLower; i <= lUpper; ++i) {
        CCVariant element;
        ComPtr<IWbemClassObject> pObject;
        if (SUCCEEDED(SafeArrayGetElement(psa, &i, element.Ptr())) && element.Type() == VT_UNKNOWN &&
            V_UNKNOWN(&element.Get()))
            V_UNKNOWN(&element.Get())
                ->QueryInterface(IID_IWbemClassObject, reinterpret_cast<void**>(pObject.GetAddressOf()));
        EXPECT_TRUE(pObject) << "array element " << i << " is no object";
        if (pObject)
            objects.push_back(pObject);
    }
    return objects;
}

bool CarriesNoPut(IWbemClassObject* pObject)
{
    ComPtr<IWbemQualifierSet> pQualifiers;
    CCVariant value;
    return SUCCEEDED(pObject->GetQualifierSet(pQualifiers.GetAddressOf())) &&
           SUCCEEDED(pQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr)) && value.Type() == VT_BOOL &&
           V_BOOL(&value.Get()) != VARIANT_FALSE;
}

std::vector<ULONG> TableIds()
{
    std::vector<ULONG> ids;
    for (const CNotificationHandler::KindEntry& entry : CNotificationHandler::KindTable())
        ids.push_back(entry.ulNotfyId);
    return ids;
}

std::string IdTestName(const testing::TestParamInfo<ULONG>& info)
{
    return "Id" + std::to_string(info.param);
}

void WorkstationTest::SetUp()
{
    CimStoreTest::SetUp();
    m_pModule = std::make_unique<MoradelModule>();
    ASSERT_TRUE(m_pModule->Loaded()) << GetLastError();
    wchar_t wszRoot[MAX_PATH] = {};
    const DWORD cch = GetFullPathNameW(FixturePath(L"..\\..").c_str(), MAX_PATH, wszRoot, nullptr);
    ASSERT_TRUE(cch > 0 && cch < MAX_PATH);
    const std::wstring wsRoot = wszRoot;
    ASSERT_NO_FATAL_FAILURE(CopyMofFiles(wsRoot + L"\\schema", m_folder, L"00_", nullptr));
    ASSERT_NO_FATAL_FAILURE(CopyMofFiles(wsRoot + L"\\examples\\workstation", m_folder, L"", L"change.mof"));
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
    // CimStore saves every write into the folder it loaded.
    DeleteFileW(m_folder.File(L"state.mof").c_str());
    wchar_t wszError[1024] = {};
    const HRESULT hr = CimStoreLoadRepository(m_folder.Path().c_str(), wszError, 1024);
    ASSERT_EQ(hr, S_OK) << std::hex << hr << " " << Narrow(wszError);
}

ComPtr<INotifications> WorkstationTest::InitializedHandler()
{
    ComPtr<INotifications> pHandler;
    EXPECT_EQ(m_pModule->CreateHandler(pHandler), S_OK);
    if (!pHandler)
        return pHandler;
    CCBstr bstrNamespace(kWorkstationEvents);
    ULONG ulReturn = 0;
    EXPECT_EQ(pHandler->Initialize(bstrNamespace.Get(), &ulReturn), S_OK);
    return pHandler;
}

void WorkstationTest::RunAgentCycle(ULONG ulId, INotifications* pHandler)
{
    ComPtr<INotifications> pOwn;
    if (!pHandler) {
        pOwn = InitializedHandler();
        ASSERT_TRUE(pOwn);
        pHandler = pOwn.Get();
    }
    ComPtr<IWbemServices> pEvents;
    ASSERT_EQ(ConnectWmi(kWorkstationEvents, pEvents), S_OK);
    CCVariant instances;
    ULONG ulReturn = 0;
    if (SUCCEEDED(pHandler->GetInstances(ulId, instances.Ptr(), &ulReturn))) {
        for (const auto& pEvent : ReturnedObjects(instances)) {
            if (!CarriesNoPut(pEvent.Get())) {
                EXPECT_EQ(pEvents->PutInstance(pEvent.Get(), WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr), S_OK);
            }
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
