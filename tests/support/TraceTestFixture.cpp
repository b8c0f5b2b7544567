#include "TraceTestFixture.h"

void TraceTest::SetUp()
{
    // Objects of the test must not join a trace object that an earlier test left exported.
    m_pSavedExport = gg_ptrc;
    gg_ptrc = nullptr;
    const testing::TestInfo* pInfo = testing::UnitTest::GetInstance()->current_test_info();
    m_pKey = std::make_unique<TestRegistryKey>(std::string("Software\\Tessaline Systems\\Common\\Tracing\\Tests\\") +
                                               pInfo->test_suite_name() + "." + pInfo->name() + "." +
                                               std::to_string(GetCurrentProcessId()));
}

void TraceTest::TearDown()
{
    m_pTrace.reset();
    m_pKey.reset();
    gg_ptrc = m_pSavedExport;
}

void TraceTest::EnableDefaults(unsigned long ulLevel)
{
    m_pKey->SetDword("Trace", 1);
    m_pKey->SetDword("TraceLevel", ulLevel);
    m_pKey->SetString("TraceFile", Narrow(File()));
}

CCQuillTrace& TraceTest::Configure(unsigned long ulFlags)
{
    m_pTrace = std::make_unique<CCQuillTrace>();
    m_pTrace->Enable_By_RegKey(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), ulFlags);
    return *m_pTrace;
}
