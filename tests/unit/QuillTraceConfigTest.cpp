// Registry configuration of the trace: switches, value types, file names, sharing.
#include "TraceTestFixture.h"

#include "framework/TraceNames.h"

#include <cstdio>

namespace {

constexpr char kTestsKey[] = "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\";
constexpr char kAbsentKey[] = "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\Absent";

using TraceConfigTest = TraceTest;

std::string g_sInfoBox;

TEST_F(TraceConfigTest, WhatSwitchesTracingOnAndTheInformationBox)
{
    const CCQuillTrace::InfoBoxFn pfnOld = CCQuillTrace::SetInfoBoxHandler(
        [](const char* szText, const char* szCaption) { g_sInfoBox = std::string(szCaption) + "|" + szText; });
    const std::string sShown = "CCQuillTrace|Enable_By_RegKey: TRACE ENABLED:\r\nFile='" + Narrow(File()) + "'";
    SYSTEMTIME stToday;
    GetLocalTime(&stToday);
    const long long llKey = TraceNames::DateKey(stToday);
    constexpr unsigned long kNoKey = TRACE_FLAG_NO_KEY;
    // llValue -1: the value is deleted.
    const struct { const char* szValue; long long llValue; unsigned long ulFlags; bool bEnabled, bWrites; } rows[] = {
        {"Trace", 0, kNoKey, false, false}, {"Trace", -1, kNoKey, false, false}, {"TraceLevel", 0, kNoKey, true, false},
        // Without flag 32 the date key is needed.
        {"Key", -1, 0, false, false}, {"Key", llKey + 1, 0, false, false}, {"Key", llKey, 0, true, true}};
    m_pKey->SetDword("TraceInfo", 1);
    for (const auto& row : rows) {
        EnableDefaults(TRACE_INFO);
        row.llValue < 0 ? (void)RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), row.szValue)
                        : m_pKey->SetDword(row.szValue, static_cast<DWORD>(row.llValue));
        DeleteFileW(File().c_str());
        g_sInfoBox.clear();
        Configure(row.ulFlags).TraceMsg(TRACE_ERROR, "C::M", "Internal", "m", "");
        EXPECT_EQ(m_pTrace->IsEnabled(), row.bEnabled) << row.szValue << " " << row.llValue;
        EXPECT_EQ(FileExists(File()), row.bWrites) << row.szValue << " " << row.llValue;
        EXPECT_TRUE(m_pTrace->IsInfoShown());
        EXPECT_EQ(g_sInfoBox, row.bEnabled ? sShown : "CCQuillTrace|Enable_By_RegKey: trace disabled");
    }
    // A second configuration of an enabled object changes nothing.
    m_pKey->SetDword("TraceLevel", 1);
    m_pTrace->Enable_By_RegKey(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), 0);
    EXPECT_EQ(m_pTrace->GetLevel(), static_cast<unsigned long>(TRACE_INFO));
    m_pKey->SetDword("TraceInfo", 0);
    g_sInfoBox.clear();
    EXPECT_TRUE(!Configure().IsInfoShown() && g_sInfoBox.empty()) << g_sInfoBox;
    CCQuillTrace::SetInfoBoxHandler(pfnOld);
}

TEST_F(TraceConfigTest, SettingsAreDwordsAndOverrideTheFlags)
{
    using Get = unsigned long (*)(const CCQuillTrace&);
    // Without a usable value the flags 1 and 16 count for nothing, but flag 2 holds.
    const struct { const char* szValue; DWORD dwValue; Get pfnGet; unsigned long ulWithout; } settings[] = {
        {"TraceLevel", 4, [](const CCQuillTrace& t) { return t.GetLevel(); }, 0},
        {"TraceLimitSize", 12345, [](const CCQuillTrace& t) { return t.GetSizeLimit(); }, 0},
        {"TraceLimitTime", 7, [](const CCQuillTrace& t) { return t.GetTimeLimit(); }, 0},
        {"TraceDelaySecs", 9, [](const CCQuillTrace& t) { return t.GetDelaySecs(); }, 0},
        {"TraceGlobalEnable", 1, [](const CCQuillTrace& t) -> unsigned long { return t.IsGlobal(); }, 0},
        {"TraceKeepHistory", 1, [](const CCQuillTrace& t) -> unsigned long { return t.IsKeepHistory(); }, 0},
        {"TraceClear", 0, [](const CCQuillTrace& t) -> unsigned long { return t.IsClearOnStart(); }, 1}};
    // Another type, or a size other than four bytes, counts as a missing value.
    const unsigned char abSeven[8] = {7};
    const struct { const char* szType; DWORD dwType; const void* pData; DWORD cbData; } types[] = {
        {"dword", REG_DWORD, nullptr, 0}, {"text", REG_SZ, "7", 2}, {"8 bytes", REG_BINARY, abSeven, 8},
        {"4 bytes", REG_BINARY, abSeven, 4}};
    for (const auto& type : types) {
        EnableDefaults(TRACE_INFO);
        for (const auto& setting : settings)
            RegSetKeyValueA(HKEY_LOCAL_MACHINE, m_pKey->Path().c_str(), setting.szValue, type.dwType,
                            type.pData ? type.pData : &setting.dwValue, type.pData ? type.cbData : 4);
        const CCQuillTrace& trace =
            Configure(TRACE_FLAG_NO_KEY | TRACE_FLAG_GLOBAL | TRACE_FLAG_CLEAR | TRACE_FLAG_KEEP_HISTORY);
        EXPECT_TRUE(trace.IsEnabled()) << type.szType;
        for (const auto& setting : settings)
            EXPECT_EQ(setting.pfnGet(trace), type.dwType == REG_DWORD ? setting.dwValue : setting.ulWithout)
                << type.szType << " " << setting.szValue;
    }
}

TEST_F(TraceConfigTest, TraceFileValue)
{
    EnableDefaults(TRACE_INFO);
    SetEnvironmentVariableW(L"MORADEL_TEST_TRACE_DIR", m_dir.Path().c_str());
    m_pKey->SetString("TraceFile", "%MORADEL_TEST_TRACE_DIR%\\t_%PID%_%TID%_%PID%.trc");
    CCQuillTrace& trace = Configure();
    wchar_t wszExpected[MAX_PATH];
    swprintf(wszExpected, MAX_PATH, L"%ls\\t_%04lu_%04lu_%%PID%%.trc", m_dir.Path().c_str(), GetCurrentProcessId(),
             GetCurrentThreadId());
    EXPECT_EQ(std::wstring(trace.GetFileName()), wszExpected);
    trace.TraceMsg(TRACE_ERROR, "C::M", "Internal", "m", "");
    EXPECT_EQ(ReadTraceFile(wszExpected).lines.size(), 1u);
    // Values that cannot be used keep the default, and so does an expansion that no longer fits.
    SetEnvironmentVariableW(L"MORADEL_TEST_LONG", std::wstring(250, L'x').c_str());
    for (const std::string& sValue : {std::string(300, 'f'), std::string(1024 * 1024, 'f'), std::string(),
                                      std::string("C:\\%MORADEL_TEST_LONG%\\%MORADEL_TEST_LONG%.trc")}) {
        m_pKey->SetString("TraceFile", sValue);
        EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc") << sValue.substr(0, 40);
    }
    m_pKey->SetDword("TraceFile", 5);
    EXPECT_STREQ(Configure().GetFileName(), L"Trace.trc");
    // A file in a missing folder loses its lines; the folder is not made.
    m_pKey->SetString("TraceFile", Narrow(m_dir.File(L"missing\\folder\\test.trc")));
    Configure().TraceMsg(TRACE_ERROR, "C::M", "Internal", "m", "");
    EXPECT_FALSE(FileExists(m_dir.File(L"missing")));
}

TEST_F(TraceConfigTest, ModuleNameTokenAndBaseKey)
{
    TestRegistryKey key(std::string(kTestsKey) + "unit_tests.exe\\Tokens");
    key.SetDword("Trace", 1);
    key.SetDword("TraceLevel", 2);
    CCQuillTrace tokens;
    tokens.Enable_By_RegKey(HKEY_LOCAL_MACHINE, (std::string(kTestsKey) + "%MODULENAME%\\Tokens").c_str(),
                            TRACE_FLAG_NO_KEY);
    EXPECT_TRUE(tokens.IsEnabled() && tokens.GetLevel() == 2u) << tokens.GetLevel();
    // Configure reads the module's sub key under the base key.
    EnableDefaults(TRACE_WARNING);
    m_pTrace = std::make_unique<CCQuillTrace>();
    const std::string& sPath = m_pKey->Path();
    const size_t iSplit = sPath.rfind('\\') + 1;
    m_pTrace->Configure(sPath.substr(iSplit).c_str(), TRACE_FLAG_NO_KEY, sPath.substr(0, iSplit).c_str());
    EXPECT_TRUE(m_pTrace->IsEnabled() && m_pTrace->GetLevel() == 2u) << m_pTrace->GetLevel();
}

TEST_F(TraceConfigTest, ObjectJoinsTheExportedTraceOnlyWhenItIsGlobal)
{
    EnableDefaults(TRACE_INFO);
    ASSERT_EQ(gg_ptrc, &Configure());
    {
        CCQuillTrace other;
        other.Enable_By_RegKey(HKEY_LOCAL_MACHINE, kAbsentKey, TRACE_FLAG_NO_KEY);
        EXPECT_TRUE(!other.IsEnabled() && gg_ptrc == &other);
    }
    m_pKey->SetDword("TraceGlobalEnable", 1);
    m_pKey->SetDword("TraceLimitSize", 1000000);
    CCQuillTrace& host = Configure();
    ASSERT_EQ(gg_ptrc, &host);
    host.TraceMsg(TRACE_INFO, "Host::Run", "Internal", "host", "f");
    // The joining object reads no registry at all: its own key does not even exist.
    CCQuillTrace guest;
    guest.Enable_By_RegKey(HKEY_LOCAL_MACHINE, kAbsentKey, 0);
    EXPECT_EQ(guest.GetSizeLimit(), 1000000u);
    EXPECT_EQ(gg_ptrc, &host);
    guest.TraceMsg(TRACE_INFO, "Guest::Run", "Internal", "guest", "f");
    // Both lines in the host's file; in global mode the module name comes before the class.
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        const std::vector<std::string> f = SplitFields(content.lines[i]);
        ASSERT_EQ(f.size(), 10u) << Narrow(content.lines[i]);
        EXPECT_EQ(f[4] + "|" + f[5] + "|" + f[9], i ? "unit_tests.exe|Guest|f" : "unit_tests.exe|Host|f");
    }
}

}  // namespace
