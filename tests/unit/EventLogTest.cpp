// Unconditional and conditional event-log reporting: what reaches the platform, the
// activation key, and the result codes.
#include "GlobalTraceLog.h"
#include "TestRegistryKey.h"
#include "framework/CCEventLogCond.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
const HANDLE kFakeSource = reinterpret_cast<HANDLE>(0x5eed);

// The calls the fake platform received, in order; one test at a time uses it.
struct Recorder {
    Texts calls;
    bool bFailOpen = false, bFailReport = false;
};
Recorder g_recorder;

HANDLE WINAPI FakeRegister(LPCSTR szServer, LPCSTR szSource)
{
    g_recorder.calls.push_back(std::string(szServer ? "open remote " : "open ") + (szSource ? szSource : "(null)"));
    SetLastError(ERROR_ACCESS_DENIED);
    return g_recorder.bFailOpen ? nullptr : kFakeSource;
}

// Event types: 1 error, 2 warning, 4 information, 0 success.
BOOL WINAPI FakeReport(HANDLE hLog, WORD wType, WORD wCategory, DWORD dwEventId, PSID pSid, WORD wNumStrings,
                       DWORD dwDataSize, LPCSTR* pszStrings, LPVOID pData)
{
    EXPECT_EQ(hLog, kFakeSource);
    char szHead[80];
    snprintf(szHead, sizeof(szHead), "type %u cat %u id %08lx%s%s%s", static_cast<unsigned>(wType),
             static_cast<unsigned>(wCategory), dwEventId, pSid ? " sid" : "", dwDataSize || pData ? " data" : "",
             pszStrings ? " texts" : " no texts");
    std::string sReport = szHead;
    for (WORD i = 0; pszStrings && i < wNumStrings; ++i)
        sReport += std::string(" ") + pszStrings[i];
    g_recorder.calls.push_back(sReport);
    SetLastError(ERROR_INVALID_PARAMETER);
    return !g_recorder.bFailReport;
}

BOOL WINAPI FakeDeregister(HANDLE hLog)
{
    g_recorder.calls.push_back(hLog == kFakeSource ? "close" : "close another handle");
    return TRUE;
}

std::string ActivationKey(const std::string& sLog, const std::string& sSource, const std::string& sFeature)
{
    return "SYSTEM\\CurrentControlSet\\Services\\Eventlog\\" + sLog + "\\" + sSource + "\\Activation\\" + sFeature;
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
    unsigned long IsActive(const char* szLog, const char* szSource = "Larkspan") const
    {
        return CCEventLogCond::IsSourceActive(szLog, szSource, m_sFeature.c_str());
    }

    CCEventLogApi m_previous{};
    size_t m_uMark = 0;
    // A feature name no other test process uses at the same time.
    const std::string m_sFeature = std::string("ElTest_") +
                                   testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
                                   std::to_string(GetCurrentProcessId());
    CCNamedComponent m_component{m_sFeature.c_str(), "1.0", "Ctx"};
};

// The severity sets the type and the top bits of the id. A source that cannot be opened gives 1, a failed
// write 2 and still closes the source.
TEST_F(EventLogTest, SeverityCategoryTextsAndPlatformFailures)
{
    constexpr char kSent[] = "Event was successfully transmitted to eventlog";
    const struct { unsigned long ulSeverity; bool bFailOpen, bFailReport; unsigned long ulResult;
                   const char *szReport, *szTraced, *szText; } rows[] = {
        {1, false, false, 0, "type 1 cat 1 id c0000007", kSent, nullptr},
        {2, false, false, 0, "type 2 cat 1 id 80000007", kSent, nullptr},
        {3, false, false, 0, "type 4 cat 1 id 40000007", kSent, nullptr},
        {0, false, false, 0, "type 0 cat 1 id 00000007", kSent, nullptr},
        {1, true, false, 1, nullptr, "Could not open eventlog", "GetLastError: 5"},
        {1, false, true, 2, "type 1 cat 1 id c0000007", "ReportEvent failed. ", "GetLastError: 87"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szTraced + std::string(", severity ") + std::to_string(row.ulSeverity));
        g_recorder = {{}, row.bFailOpen, row.bFailReport};
        m_uMark = GlobalTraceLog::Get().Mark();
        EXPECT_EQ(CCEventLog::ReportEventA(row.ulSeverity, "Larkspan", 1, 7, 1, "text"), row.ulResult);
        EXPECT_EQ(g_recorder.calls, (row.szReport ? Texts{"open Larkspan", row.szReport + std::string(" texts text"),
                                                          "close"} : Texts{"open Larkspan"}));
        EXPECT_TRUE(Traced(row.szTraced, row.szText));
        EXPECT_TRUE(Traced("Method CCEventLogReportEvent has been left.", std::to_string(row.ulResult).c_str()));
        EXPECT_EQ(Traced(kSent), row.ulResult == 0);
    }
    g_recorder = Recorder();
    EXPECT_EQ(CCEventLog::ReportEventA(2, "Larkspan", 0x10003, 42, 3, "one", "two", "three"), 0u);
    EXPECT_EQ(CCEventLog::ReportEventA(3, "Larkspan", 1, 7, 0), 0u);
    // Only the low 16 bits of the category are used; without texts no array is passed either.
    EXPECT_EQ(g_recorder.calls, (Texts{"open Larkspan", "type 2 cat 3 id 8000002a texts one two three", "close",
                                       "open Larkspan", "type 4 cat 1 id 40000007 no texts", "close"}));
    EXPECT_TRUE(Traced("Method ReportEventA has been called",
                       "ulSeverity: 2, szEventSource: Larkspan, ulCatId: 65539, ulEventId: 42, ulArgCount: 3"));
}

// The report goes out only while the activation key of log, source and feature holds a non-zero "Active".
TEST_F(EventLogTest, ActivationKeyGatesTheConditionalReport)
{
    const auto Report = [](auto* pComponent, const char* szText) {
        return CCEventLogCond::ReportEventCond(pComponent, 1, "Larkspan", "Larkspan", 1, 7, 1, szText);
    };
    EXPECT_EQ(Report(static_cast<CCAssembly*>(nullptr), "text"), 100u);
    EXPECT_EQ(Report(static_cast<CCEventLogComponent*>(nullptr), "text"), 100u);
    EXPECT_TRUE(Traced("Assemlby pointer is null, I cannot continue!"));
    EXPECT_TRUE(Traced("Method CCEventLogReportEvent has been left.", "100"));
    EXPECT_EQ(IsActive("Larkspan"), 0u) << "no key";
    TestRegistryKey key(ActivationKey("Larkspan", "Larkspan", m_sFeature));
    EXPECT_EQ(IsActive("Larkspan"), 0u) << "no value";
    for (const DWORD dwValue : {0ul, 1ul, 0xFFFFFFFFul, 7ul}) {
        key.SetDword("Active", dwValue);
        EXPECT_EQ(IsActive("Larkspan"), dwValue ? 1u : 0u) << dwValue;
    }
    // The type is not checked, but more than four bytes is too long.
    const BYTE abValue[8] = {1, 0, 0, 0, 0, 0, 0, 0};
    key.SetBinary("Active", abValue, 2);
    EXPECT_EQ(IsActive("Larkspan"), 1u);
    key.SetBinary("Active", abValue, sizeof(abValue));
    EXPECT_EQ(IsActive("Larkspan"), 0u);
    EXPECT_EQ(IsActive("Larkspan", "Other"), 0u) << "another source";
    // Without a log name the key is under Application.
    TestRegistryKey application(ActivationKey("Application", "Larkspan", m_sFeature));
    application.SetDword("Active", 1);
    EXPECT_EQ(IsActive(nullptr), 1u);
    EXPECT_EQ(IsActive(""), 1u);
    key.SetDword("Active", 0);
    EXPECT_EQ(Report(&m_component, "zero"), 101u);
    EXPECT_TRUE(Traced("Eventlogging is not active", "Log Larkspan, Source Larkspan"));
    key.SetDword("Active", 1);
    EXPECT_EQ(Report(&m_component, "drive added"), 0u);
    g_recorder.bFailReport = true;  // the unconditional report's result is passed on
    EXPECT_EQ(Report(&m_component, "x"), 2u);
    // Nothing was opened while inactive.
    EXPECT_EQ(g_recorder.calls, (Texts{"open Larkspan", "type 1 cat 1 id c0000007 texts drive added", "close",
                                       "open Larkspan", "type 1 cat 1 id c0000007 texts x", "close"}));
    // The log name selects only the key, not the source.
    g_recorder = Recorder();
    TestRegistryKey other(ActivationKey("SomeLog", "SomeSource", m_sFeature));
    other.SetDword("Active", 1);
    EXPECT_EQ(CCEventLogCond::ReportEventCond(&m_component, 3, "SomeLog", "SomeSource", 2, 9, 0), 0u);
    EXPECT_EQ(g_recorder.calls, (Texts{"open SomeSource", "type 4 cat 2 id 40000009 no texts", "close"}));
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
