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
    void SetUp() override;
    void TearDown() override;

    // Enables tracing to File() at level ulLevel, without the date key.
    void EnableDefaults(unsigned long ulLevel = TRACE_VERBOSE_CC);
    // Configures a fresh trace object from the key.
    CCQuillTrace& Configure(unsigned long ulFlags = TRACE_FLAG_NO_KEY);

    std::wstring File() const { return m_dir.File(L"test.trc"); }
    TraceFileContent Read() const { return ReadTraceFile(File()); }

    TempDir m_dir;
    std::unique_ptr<TestRegistryKey> m_pKey;
    std::unique_ptr<CCQuillTrace> m_pTrace;
    CCQuillTrace* m_pSavedExport = nullptr;
};
