// Fixture for tests of CCQuillTrace objects configured from a test registry key.
#pragma once

#include "framework/CCQuillTrace.h"
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

class TraceTest : public testing::Test {
protected:
    void SetUp() override
    {
        // Objects of the test must not join a trace object that an earlier test left exported.
        m_pSavedExport = gg_ptrc;
        gg_ptrc = nullptr;
        const testing::TestInfo* pInfo = testing::UnitTest::GetInstance()->current_test_info();
        const std::string sTest = std::string(pInfo->test_suite_name()) + "." + pInfo->name() + "." +
                                  std::to_string(GetCurrentProcessId());
        m_pKey = std::make_unique<TestRegistryKey>("Software\\Tessaline Systems\\Common\\Tracing\\Tests\\" + sTest);
    }
    void TearDown() override
    {
        m_pTrace.reset();
        m_pKey.reset();
        gg_ptrc = m_pSavedExport;
    }
    // Enables tracing to File() at level ulLevel, without the date key.
    void EnableDefaults(unsigned long ulLevel = TRACE_VERBOSE_CC)
    {
        m_pKey->SetDword("Trace", 1);
        m_pKey->SetDword("TraceLevel", ulLevel);
        m_pKey->SetString("TraceFile", Narrow(File()));
    }
    // Configures a fresh trace object from the key.
    CCQuillTrace& Configure(unsigned long ulFlags = TRACE_FLAG_NO_KEY)
    {
        m_pTrace = std::make_unique<CCQuillTrace>();
        m_pTrace->Enable_By_RegKey(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), ulFlags);
        return *m_pTrace;
    }
    std::wstring File() const { return m_dir.File(L"test.trc"); }
    TraceFileContent Read() const { return ReadTraceFile(File()); }

    TempDir m_dir;
    std::unique_ptr<TestRegistryKey> m_pKey;
    std::unique_ptr<CCQuillTrace> m_pTrace;
    CCQuillTrace* m_pSavedExport = nullptr;
};
