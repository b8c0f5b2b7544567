// Unconditional and conditional event-log reporting: what reaches the platform, the
// activation key, and the result codes.
#include "CommonKeyValues.h"
#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "framework/CCAssembly.h"
#include "framework/CCEventLogCond.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

int g_iSourceToken = 0;
const HANDLE kFakeSource = &g_iSourceToken;

struct Report {
    WORD wType;
    WORD wCategory;
    DWORD dwEventId;
    bool bHasSid;
    bool bStringsNull;
    std::vector<std::string> strings;
    DWORD dwDataSize;
};

// What the fake platform was asked; one test at a time uses it.
struct Recorder {
    std::vector<std::string> sources;
    std::vector<Report> reports;
    int iDeregistered = 0;
    bool bFailOpen = false;
    bool bFailReport = false;
};
Recorder g_recorder;

HANDLE WINAPI FakeRegister(LPCSTR szServer, LPCSTR szSource)
{
    if (szServer)
        ADD_FAILURE() << "a server name was given: " << szServer;
    g_recorder.sources.push_back(szSource ? szSource : "(null)");
    if (g_recorder.bFailOpen) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return kFakeSource;
}

BOOL WINAPI FakeReport(HANDLE hLog, WORD wType, WORD wCategory, DWORD dwEventId, PSID pSid, WORD wNumStrings,
                       DWORD dwDataSize, LPCSTR* pszStrings, LPVOID)
{
    EXPECT_EQ(hLog, kFakeSource);
    Report report{wType, wCategory, dwEventId, pSid != nullptr, pszStrings == nullptr, {}, dwDataSize};
    for (WORD i = 0; pszStrings && i < wNumStrings; ++i)
        report.strings.push_back(pszStrings[i]);
    g_recorder.reports.push_back(report);
    if (g_recorder.bFailReport) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI FakeDeregister(HANDLE hLog)
{
    EXPECT_EQ(hLog, kFakeSource);
    ++g_recorder.iDeregistered;
    return TRUE;
}

std::string ActivationKey(const std::string& sLog, const std::string& sSource, const std::string& sFeature)
{
    return "SYSTEM\\CurrentControlSet\\Services\\Eventlog\\" + sLog + "\\" + sSource + "\\Activation\\" + sFeature;
}

// A feature name no other test process uses at the same time.
std::string UniqueFeature()
{
    return std::string("ElTest_") + testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
           std::to_string(GetCurrentProcessId());
}

class EventLogTest : public testing::Test {
protected:
    void SetUp() override
    {
        g_recorder = Recorder();
        m_previous = CCEventLog::SetApi({&FakeRegister, &FakeReport, &FakeDeregister});
        m_uMark = GlobalTraceLog::Get().Mark();
    }
    void TearDown() override { CCEventLog::SetApi(m_previous); }

    bool Traced(const std::string& sMessage, const char* szFormatted = nullptr) const
    {
        return GlobalTraceLog::Get().Contains(m_uMark, sMessage, szFormatted);
    }

    CCEventLogApi m_previous{};
    size_t m_uMark = 0;
};

TEST_F(EventLogTest, SeverityChoosesTypeAndTopBitsOfTheEventId)
{
    struct Row {
        unsigned long ulSeverity;
        WORD wType;
        DWORD dwLoggedId;
    };
    const Row rows[] = {
        {1, EVENTLOG_ERROR_TYPE, 0xC0000007},       {2, EVENTLOG_WARNING_TYPE, 0x80000007},
        {3, EVENTLOG_INFORMATION_TYPE, 0x40000007}, {0, EVENTLOG_SUCCESS, 7},
        {4, EVENTLOG_SUCCESS, 7},                   {0xFFFFFFFF, EVENTLOG_SUCCESS, 7},
    };
    for (const Row& row : rows) {
        g_recorder = Recorder();
        EXPECT_EQ(CCEventLog::ReportEventA(row.ulSeverity, "Larkspan", 1, 7, 1, "text"), 0u) << row.ulSeverity;
        ASSERT_EQ(g_recorder.reports.size(), 1u) << row.ulSeverity;
        EXPECT_EQ(g_recorder.reports[0].wType, row.wType) << row.ulSeverity;
        EXPECT_EQ(g_recorder.reports[0].dwEventId, row.dwLoggedId) << std::hex << row.ulSeverity;
    }
}

TEST_F(EventLogTest, ReportsOnTheLocalSourceWithCategoryAndTexts)
{
    EXPECT_EQ(CCEventLog::ReportEventA(2, "Larkspan", 0x10003, 42, 3, "one", "two", "three"), 0u);
    ASSERT_EQ(g_recorder.sources, std::vector<std::string>{"Larkspan"});
    ASSERT_EQ(g_recorder.reports.size(), 1u);
    const Report& report = g_recorder.reports[0];
    EXPECT_EQ(report.wCategory, 3) << "only the low 16 bits of the category are used";
    EXPECT_EQ(report.dwEventId, 0x8000002Au);
    EXPECT_FALSE(report.bHasSid);
    EXPECT_EQ(report.dwDataSize, 0u);
    EXPECT_EQ(report.strings, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(g_recorder.iDeregistered, 1);
    EXPECT_TRUE(Traced("Method ReportEventA has been called",
                       "ulSeverity: 2, szEventSource: Larkspan, ulCatId: 65539, ulEventId: 42, ulArgCount: 3"));
    EXPECT_TRUE(Traced("Event was successfully transmitted to eventlog"));
    EXPECT_TRUE(Traced("Method CCEventLogReportEvent has been left.", "0"));
}

TEST_F(EventLogTest, ZeroArgumentsPassNoTextArray)
{
    EXPECT_EQ(CCEventLog::ReportEventA(3, "Larkspan", 1, 7, 0), 0u);
    ASSERT_EQ(g_recorder.reports.size(), 1u);
    EXPECT_TRUE(g_recorder.reports[0].bStringsNull);
    EXPECT_TRUE(g_recorder.reports[0].strings.empty());
}

TEST_F(EventLogTest, SourceThatCannotBeOpenedGivesOne)
{
    g_recorder.bFailOpen = true;
    EXPECT_EQ(CCEventLog::ReportEventA(1, "Larkspan", 1, 7, 1, "text"), 1u);
    EXPECT_TRUE(g_recorder.reports.empty());
    EXPECT_EQ(g_recorder.iDeregistered, 0);
    EXPECT_TRUE(Traced("Could not open eventlog", "GetLastError: 5"));
    EXPECT_TRUE(Traced("Method CCEventLogReportEvent has been left.", "1"));
}

TEST_F(EventLogTest, FailedWriteGivesTwoAndStillClosesTheSource)
{
    g_recorder.bFailReport = true;
    EXPECT_EQ(CCEventLog::ReportEventA(1, "Larkspan", 1, 7, 1, "text"), 2u);
    EXPECT_EQ(g_recorder.reports.size(), 1u);
    EXPECT_EQ(g_recorder.iDeregistered, 1);
    EXPECT_TRUE(Traced("ReportEvent failed. ", "GetLastError: 87"));
    EXPECT_FALSE(Traced("Event was successfully transmitted to eventlog"));
}

TEST_F(EventLogTest, ActivationFollowsTheActiveValue)
{
    const std::string sFeature = UniqueFeature();
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), 0u) << "no key";
    TestRegistryKey key(ActivationKey("Larkspan", "Larkspan", sFeature));
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), 0u) << "no value";
    struct Row {
        DWORD dwValue;
        unsigned long ulActive;
    };
    for (const Row row : {Row{0, 0}, Row{1, 1}, Row{0xFFFFFFFF, 1}, Row{7, 1}}) {
        key.SetDword("Active", row.dwValue);
        EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), row.ulActive)
            << row.dwValue;
    }
    // The type is not checked, but more than four bytes is too long.
    const BYTE abShort[2] = {1, 0};
    key.SetBinary("Active", abShort, sizeof(abShort));
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), 1u);
    const BYTE abLong[8] = {1, 0, 0, 0, 0, 0, 0, 0};
    key.SetBinary("Active", abLong, sizeof(abLong));
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), 0u);
    // Another feature or source is not switched on by this key.
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Other", sFeature.c_str()), 0u);
}

TEST_F(EventLogTest, MissingLogNameMeansApplication)
{
    const std::string sFeature = UniqueFeature();
    TestRegistryKey key(ActivationKey("Application", "Larkspan", sFeature));
    key.SetDword("Active", 1);
    EXPECT_EQ(CCEventLogCond::IsSourceActive(nullptr, "Larkspan", sFeature.c_str()), 1u);
    EXPECT_EQ(CCEventLogCond::IsSourceActive("", "Larkspan", sFeature.c_str()), 1u);
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), 0u);
}

TEST_F(EventLogTest, OverlongKeyPathIsInactive)
{
    const std::string sFeature(600, 'F');
    EXPECT_EQ(CCEventLogCond::IsSourceActive("Larkspan", "Larkspan", sFeature.c_str()), 0u);
}

TEST_F(EventLogTest, ConditionalReportWithoutComponentGivesHundred)
{
    EXPECT_EQ(CCEventLogCond::ReportEventCond(static_cast<CCAssembly*>(nullptr), 1, "Larkspan", "Larkspan", 1, 7, 1,
                                              "text"),
              100u);
    EXPECT_EQ(CCEventLogCond::ReportEventCond(static_cast<CCEventLogComponent*>(nullptr), 1, "Larkspan", "Larkspan",
                                              1, 7, 1, "text"),
              100u);
    EXPECT_TRUE(g_recorder.sources.empty());
    EXPECT_TRUE(Traced("Assemlby pointer is null, I cannot continue!"));
    EXPECT_TRUE(Traced("Method CCEventLogReportEvent has been left.", "100"));
}

TEST_F(EventLogTest, ConditionalReportFollowsTheActivationKey)
{
    const std::string sFeature = UniqueFeature();
    CCNamedComponent component(sFeature.c_str(), "1.0", "Ctx");

    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, "no key"), 101u);
    TestRegistryKey key(ActivationKey("Larkspan", "Larkspan", sFeature));
    key.SetDword("Active", 0);
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, "zero"), 101u);
    EXPECT_TRUE(g_recorder.sources.empty()) << "nothing is opened while inactive";
    EXPECT_TRUE(Traced("Eventlogging is not active", "Log Larkspan, Source Larkspan"));

    key.SetDword("Active", 1);
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, "drive added"), 0u);
    ASSERT_EQ(g_recorder.reports.size(), 1u);
    EXPECT_EQ(g_recorder.reports[0].dwEventId, 0xC0000007u);
    EXPECT_EQ(g_recorder.reports[0].wType, EVENTLOG_ERROR_TYPE);
    EXPECT_EQ(g_recorder.reports[0].strings, std::vector<std::string>{"drive added"});

    // The result of the unconditional report is passed on.
    g_recorder.bFailReport = true;
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, "x"), 2u);
    EXPECT_TRUE(Traced("Method CCEventLogReportEvent has been left.", "2"));
}

TEST_F(EventLogTest, LogNameSelectsOnlyTheKeyNotTheSource)
{
    const std::string sFeature = UniqueFeature();
    CCNamedComponent component(sFeature.c_str(), "1.0", "Ctx");
    TestRegistryKey key(ActivationKey("SomeLog", "SomeSource", sFeature));
    key.SetDword("Active", 1);
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 3, "SomeLog", "SomeSource", 2, 9, 0), 0u);
    EXPECT_EQ(g_recorder.sources, std::vector<std::string>{"SomeSource"});
    ASSERT_EQ(g_recorder.reports.size(), 1u);
    EXPECT_EQ(g_recorder.reports[0].dwEventId, 0x40000009u);
    EXPECT_EQ(g_recorder.reports[0].wCategory, 2);
}

// The module's component: its feature name, as given to Initialize, chooses the key.
TEST_F(EventLogTest, ConditionalReportUsesTheAssemblysFeatureName)
{
    ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    {
        const std::string sFeature = UniqueFeature();
        TempDir dir;
        CommonKeyValues common;
        common.Set("DependencyTables", Narrow(dir.Path()));
        {
            std::ofstream table(dir.File(Widen(sFeature + "_1.0.xml")).c_str(), std::ios::binary);
            table << "<?xml version=\"1.0\"?>\n<features><feature name=\"" << sFeature
                  << "\" version=\"1.0\"><context name=\"Ctx\"><assemblyIdentity name=\"unit_tests.exe\" "
                     "version=\"*\"/></context></feature></features>\n";
        }
        CCAssembly assembly;
        ASSERT_TRUE(assembly.Initialize(sFeature.c_str(), "1.0", "Ctx"));
        TestRegistryKey key(ActivationKey("Larkspan", "Larkspan", sFeature));
        key.SetDword("Active", 1);
        EXPECT_EQ(CCEventLogCond::ReportEventCond(&assembly, 1, "Larkspan", "Larkspan", 1, 7, 1, "via assembly"), 0u);
        ASSERT_EQ(g_recorder.reports.size(), 1u);
        EXPECT_EQ(g_recorder.reports[0].strings, std::vector<std::string>{"via assembly"});
    }
    CoUninitialize();
}

// Run by CTest with Wine's event-log channel on: the real platform calls, whose effect
// shows only on Wine's debug output.
TEST(ChildProcess, EventLogReportsThroughThePlatform)
{
    EXPECT_EQ(CCEventLog::ReportEventA(1, "Larkspan", 1, 7, 1, "Moradel error probe"), 0u);
    EXPECT_EQ(CCEventLog::ReportEventA(3, "Larkspan", 1, 7, 1, "Moradel information probe"), 0u);

    const std::string sFeature = "ElChild_" + std::to_string(GetCurrentProcessId());
    CCNamedComponent component(sFeature.c_str(), "1.0", "Ctx");
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, "Moradel inactive probe"),
              101u);
    TestRegistryKey key(ActivationKey("Larkspan", "Larkspan", sFeature));
    key.SetDword("Active", 1);
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&component, 1, "Larkspan", "Larkspan", 1, 7, 1, "Moradel active probe"),
              0u);
}

}  // namespace
