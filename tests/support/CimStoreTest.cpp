#include "CimStoreTest.h"

#include <objbase.h>

void CimStoreTest::SetUp()
{
    m_bComInitialized = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    ASSERT_TRUE(m_bComInitialized);
    ASSERT_EQ(CimStoreReset(), S_OK);
    m_lBaselineObjects = CimStoreLiveObjects();
}

void CimStoreTest::TearDown()
{
    EXPECT_EQ(CimStoreLiveObjects(), m_lBaselineObjects) << "CimStore objects leaked by the test";
    CimStoreClearFaults();
    if (m_bComInitialized)
        CoUninitialize();
}

void CimStoreTest::LoadMof(const std::wstring& wsText, const wchar_t* wszNamespace)
{
    wchar_t wszError[1024] = {};
    const HRESULT hr = CimStoreLoadMofText(wsText.c_str(), L"test.mof", wszNamespace, wszError, 1024);
    ASSERT_EQ(hr, S_OK) << std::hex << hr << " " << Narrow(wszError);
}

void CimStoreTest::LoadFixture(const std::wstring& wsRelativePath)
{
    wchar_t wszError[1024] = {};
    const HRESULT hr = CimStoreLoadMofFile(FixturePath(wsRelativePath).c_str(), L"root\\default", wszError, 1024);
    ASSERT_EQ(hr, S_OK) << std::hex << hr << " " << Narrow(wszError);
}
