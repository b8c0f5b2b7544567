// Registry configuration of the trace: switches, value types, file names, sharing.
#include "TraceTestFixture.h"

#include "framework/TraceNames.h"

#include <cstdio>

namespace {

using TraceConfigTest = TraceTest;

void WriteOneLine(CCQuillTrace& trace)
{
    trace.TraceMsg(TRACE_ERROR, "C::M", "Internal", "m", "");
}

TEST_F(TraceConfigTest, MissingKeyLeavesTracingOff)
{
    m_pKey.reset();
    CCQuillTrace trace;
    trace.Enable_By_RegKey(HKEY_LOCAL_MACHINE, "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\Absent",
                           TRACE_FLAG_NO_KEY);
    EXPECT_FALSE(trace.IsEnabled());
}

TEST_F(TraceConfigTest, TraceZeroOrMissingWritesNothing)
{
    EnableDefaults(TRACE_VERBOSE_CC);
    m_pKey->SetDword("Trace", 0);
    WriteOneLine(Configure());
    EXPECT_FALSE(m_pTrace->IsEnabled());
    EXPECT_FALSE(FileExists(File()));

    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), "Trace");
    WriteOneLine(Configure());
    EXPECT_FALSE(m_pTrace->IsEnabled());
    EXPECT_FALSE(FileExists(File()));
}

TEST_F(TraceConfigTest, LevelTooLowWritesNothing)
{
    EnableDefaults(0);
    WriteOneLine(Configure());
    EXPECT_TRUE(m_pTrace->IsEnabled());
    EXPECT_FALSE(FileExists(File()));
}

TEST_F(TraceConfigTest, DateKeyIsNeededWithoutFlag32)
{
    EnableDefaults(TRACE_INFO);
    EXPECT_FALSE(Configure(0).IsEnabled());

    SYSTEMTIME stToday;
    GetLocalTime(&stToday);
    m_pKey->SetDword("Key", TraceNames::DateKey(stToday) + 1);
    EXPECT_FALSE(Configure(0).IsEnabled());

    m_pKey->SetString("Key", std::to_string(TraceNames::DateKey(stToday)));
    EXPECT_FALSE(Configure(0).IsEnabled());

    m_pKey->SetDword("Key", TraceNames::DateKey(stToday));
    EXPECT_TRUE(Configure(0).IsEnabled());
}

TEST_F(TraceConfigTest, WronglyTypedValuesCountAsMissing)
{
    EnableDefaults(TRACE_INFO);
    const unsigned char abEight[8] = {1, 0, 0, 0, 0, 0, 0, 0};
    m_pKey->SetBinary("Trace", abEight, sizeof(abEight));
    EXPECT_FALSE(Configure().IsEnabled());

    m_pKey->SetString("Trace", "1");
    EXPECT_FALSE(Configure().IsEnabled());

    m_pKey->SetDword("Trace", 1);
    m_pKey->SetString("TraceLevel", "6");
    m_pKey->SetBinary("TraceLimitSize", abEight, sizeof(abEight));
    m_pKey->SetBinary("TraceLimitTime", abEight, 2);
    CCQuillTrace& trace = Configure();
    EXPECT_TRUE(trace.IsEnabled());
    EXPECT_EQ(trace.GetLevel(), 0u);
    EXPECT_EQ(trace.GetSizeLimit(), 0u);
    EXPECT_EQ(trace.GetTimeLimit(), 0u);
}

TEST_F(TraceConfigTest, NumericSettings)
{
    EnableDefaults(4);
    m_pKey->SetDword("TraceLimitSize", 12345);
    m_pKey->SetDword("TraceLimitTime", 7);
    m_pKey->SetDword("TraceDelaySecs", 9);
    m_pKey->SetDword("TraceKeepHistory", 1);
    m_pKey->SetDword("TraceClear", 1);
    CCQuillTrace& trace = Configure();
    EXPECT_EQ(trace.GetLevel(), 4u);
    EXPECT_EQ(trace.GetSizeLimit(), 12345u);
    EXPECT_EQ(trace.GetTimeLimit(), 7u);
    EXPECT_EQ(trace.GetDelaySecs(), 9u);
    EXPECT_TRUE(trace.IsKeepHistory());
    EXPECT_TRUE(trace.IsClearOnStart());
    EXPECT_FALSE(trace.IsGlobal());
}

TEST_F(TraceConfigTest, FlagsAndTheirOverrides)
{
    EnableDefaults(TRACE_INFO);
    // TraceGlobalEnable and TraceKeepHistory decide over flags 1 and 16; flag 2 holds without TraceClear.
    CCQuillTrace& trace = Configure(TRACE_FLAG_NO_KEY | TRACE_FLAG_GLOBAL | TRACE_FLAG_CLEAR | TRACE_FLAG_KEEP_HISTORY);
    EXPECT_FALSE(trace.IsGlobal());
    EXPECT_FALSE(trace.IsKeepHistory());
    EXPECT_TRUE(trace.IsClearOnStart());

    m_pKey->SetDword("TraceClear", 0);
    EXPECT_FALSE(Configure(TRACE_FLAG_NO_KEY | TRACE_FLAG_CLEAR).IsClearOnStart());
}

TEST_F(TraceConfigTest, SecondConfigurationOfAnEnabledObjectDoesNothing)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& trace = Configure();
    m_pKey->SetDword("TraceLevel", 1);
    trace.Enable_By_RegKey(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), TRACE_FLAG_NO_KEY);
    EXPECT_EQ(trace.GetLevel(), static_cast<unsigned long>(TRACE_INFO));
}

TEST_F(TraceConfigTest, TraceFileWithEnvironmentAndIds)
{
    EnableDefaults(TRACE_INFO);
    SetEnvironmentVariableW(L"MORADEL_TEST_TRACE_DIR", m_dir.Path().c_str());
    m_pKey->SetString("TraceFile", "%MORADEL_TEST_TRACE_DIR%\\t_%PID%_%TID%_%PID%.trc");
    CCQuillTrace& trace = Configure();
    wchar_t wszExpected[MAX_PATH];
    swprintf(wszExpected, MAX_PATH, L"%ls\\t_%04lu_%04lu_%%PID%%.trc", m_dir.Path().c_str(), GetCurrentProcessId(),
             GetCurrentThreadId());
    EXPECT_EQ(std::wstring(trace.GetFileName()), wszExpected);
    WriteOneLine(trace);
    EXPECT_EQ(ReadTraceFile(wszExpected).lines.size(), 1u);
}

TEST_F(TraceConfigTest, UnusableTraceFileValuesKeepTheDefault)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetString("TraceFile", std::string(300, 'f'));
    EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc");
    m_pKey->SetString("TraceFile", std::string(1024 * 1024, 'f'));
    EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc");
    m_pKey->SetString("TraceFile", "");
    EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc");
    m_pKey->SetDword("TraceFile", 5);
    EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc");
    // An expansion that no longer fits keeps the default too.
    SetEnvironmentVariableW(L"MORADEL_TEST_LONG", std::wstring(250, L'x').c_str());
    m_pKey->SetString("TraceFile", "C:\\%MORADEL_TEST_LONG%\\%MORADEL_TEST_LONG%.trc");
    EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc");
}

// A trace that cannot be written loses its lines and nothing else.
TEST_F(TraceConfigTest, UnwritableTraceFileLosesItsLinesQuietly)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetString("TraceFile", Narrow(m_dir.File(L"missing\\folder\\test.trc")));
    WriteOneLine(Configure());
    EXPECT_FALSE(FileExists(m_dir.File(L"missing\\folder\\test.trc")));

    // A folder where the file should be (Wine lets root write read-only files, so that case
    // cannot be made here).
    ASSERT_TRUE(CreateDirectoryW(File().c_str(), nullptr));
    m_pKey->SetString("TraceFile", Narrow(File()));
    WriteOneLine(Configure());
    EXPECT_EQ(GetFileAttributesW(File().c_str()) & FILE_ATTRIBUTE_DIRECTORY, DWORD(FILE_ATTRIBUTE_DIRECTORY));
    RemoveDirectoryW(File().c_str());
}

TEST_F(TraceConfigTest, ModuleNameTokenInTheKeyPath)
{
    TestRegistryKey key("Software\\Tessaline Systems\\Common\\Tracing\\Tests\\unit_tests.exe\\Tokens");
    key.SetDword("Trace", 1);
    key.SetDword("TraceLevel", 2);
    CCQuillTrace trace;
    trace.Enable_By_RegKey(HKEY_LOCAL_MACHINE,
                           "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\%MODULENAME%\\Tokens",
                           TRACE_FLAG_NO_KEY);
    EXPECT_TRUE(trace.IsEnabled());
    EXPECT_EQ(trace.GetLevel(), 2u);
}

TEST_F(TraceConfigTest, ConfigureJoinsBaseAndModuleKey)
{
    EnableDefaults(TRACE_WARNING);
    m_pTrace = std::make_unique<CCQuillTrace>();
    const std::string& sPath = m_pKey->Path();
    const size_t iSplit = sPath.rfind('\\') + 1;
    m_pTrace->Configure(sPath.substr(iSplit).c_str(), TRACE_FLAG_NO_KEY, sPath.substr(0, iSplit).c_str());
    EXPECT_TRUE(m_pTrace->IsEnabled());
    EXPECT_EQ(m_pTrace->GetLevel(), 2u);
}

std::string g_sInfoText;
std::string g_sInfoCaption;
void CaptureInfoBox(const char* szText, const char* szCaption)
{
    g_sInfoText = szText;
    g_sInfoCaption = szCaption;
}

TEST_F(TraceConfigTest, InformationBoxTexts)
{
    const CCQuillTrace::InfoBoxFn pfnOld = CCQuillTrace::SetInfoBoxHandler(&CaptureInfoBox);
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceInfo", 1);
    g_sInfoText.clear();
    EXPECT_TRUE(Configure().IsInfoShown());
    EXPECT_EQ(g_sInfoCaption, "CCQuillTrace");
    EXPECT_EQ(g_sInfoText, "Enable_By_RegKey: TRACE ENABLED:\r\nFile='" + Narrow(File()) + "'");

    m_pKey->SetDword("Trace", 0);
    g_sInfoText.clear();
    Configure();
    EXPECT_EQ(g_sInfoText, "Enable_By_RegKey: trace disabled");

    m_pKey->SetDword("TraceInfo", 0);
    g_sInfoText.clear();
    EXPECT_FALSE(Configure().IsInfoShown());
    EXPECT_EQ(g_sInfoText, "");
    CCQuillTrace::SetInfoBoxHandler(pfnOld);
}

TEST_F(TraceConfigTest, ObjectJoinsTheExportedGlobalTrace)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceGlobalEnable", 1);
    m_pKey->SetDword("TraceLimitSize", 1000000);
    CCQuillTrace& host = Configure();
    ASSERT_EQ(gg_ptrc, &host);
    host.TraceMsg(TRACE_INFO, "Host::Run", "Internal", "host", "");

    // The joining object reads no registry at all: its own key does not even exist.
    CCQuillTrace guest;
    guest.Enable_By_RegKey(HKEY_LOCAL_MACHINE, "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\Absent", 0);
    EXPECT_TRUE(guest.IsEnabled());
    EXPECT_TRUE(guest.IsGlobal());
    EXPECT_EQ(guest.GetLevel(), static_cast<unsigned long>(TRACE_INFO));
    EXPECT_EQ(guest.GetSizeLimit(), 1000000u);
    EXPECT_EQ(std::wstring(guest.GetFileName()), File());
    EXPECT_EQ(gg_ptrc, &host);
    guest.TraceMsg(TRACE_INFO, "Guest::Run", "Internal", "guest", "");

    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 2u);
    EXPECT_EQ(SplitFields(content.lines[0])[5], "Host");
    EXPECT_EQ(SplitFields(content.lines[1])[5], "Guest");
    EXPECT_EQ(SplitFields(content.lines[1])[4], "unit_tests.exe");
}

TEST_F(TraceConfigTest, NoJoinWhenTheExportedTraceIsNotGlobal)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& host = Configure();
    ASSERT_EQ(gg_ptrc, &host);
    CCQuillTrace other;
    other.Enable_By_RegKey(HKEY_LOCAL_MACHINE, "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\Absent", 0);
    EXPECT_FALSE(other.IsEnabled());
    EXPECT_EQ(gg_ptrc, &other);
}

}  // namespace
