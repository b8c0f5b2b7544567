// Fixture for tests against CimStore registered as the WMI locator of the prefix: COM is
// initialised, the repository starts empty, and no COM object of CimStore may outlive the test.
#pragma once

#include "TempDir.h"
#include "cimstore/com/CimStoreControl.h"

#include <gtest/gtest.h>

#include <string>

class CimStoreTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Compiles MOF text into the repository; fails the test with the compiler's message.
    void LoadMof(const std::wstring& wsText, const wchar_t* wszNamespace = L"root\\default");
    void LoadFixture(const std::wstring& wsRelativePath);  // a file of tests/fixtures
    static std::wstring FixturePath(const std::wstring& wsPath) { return Widen(MORADEL_FIXTURES) + L"\\" + wsPath; }

    LONG m_lBaselineObjects = 0;
    bool m_bComInitialized = false;
};
