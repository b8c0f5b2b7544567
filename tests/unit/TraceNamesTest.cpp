#include "framework/TraceNames.h"

#include <gtest/gtest.h>

namespace {

struct SplitCase {
    const wchar_t* wszName;
    const wchar_t* wszStem;
    const wchar_t* wszExtension;
};

TEST(TraceNames, SplitFileName)
{
    const SplitCase cases[] = {
        {L"Trace.trc", L"Trace", L".trc"},
        {L"C:\\logs\\moradel.log.trace.txt", L"C:\\logs\\moradel.log", L".trace.txt"},
        {L"C:\\logs\\Moradel.TRACE.TXT", L"C:\\logs\\Moradel", L".TRACE.TXT"},
        {L"C:\\logs\\a.b.c", L"C:\\logs\\a.b", L".c"},
        {L"tracefile", L"", L""},
        {L".trc", L"", L""},
        {L"x.", L"x", L"."},
        {L"C:\\dir.d\\trace", L"C:\\dir", L".d\\trace"},
    };
    for (const SplitCase& c : cases) {
        std::wstring wsStem = L"junk";
        std::wstring wsExtension = L"junk";
        TraceNames::SplitFileName(c.wszName, wsStem, wsExtension);
        EXPECT_EQ(wsStem, c.wszStem) << c.wszName;
        EXPECT_EQ(wsExtension, c.wszExtension) << c.wszName;
    }
}

TEST(TraceNames, HistoryNames)
{
    EXPECT_EQ(TraceNames::HistoryName(L"Trace", L".trc", 0), L"Trace_000.trc");
    EXPECT_EQ(TraceNames::HistoryName(L"Trace", L".trc", 7), L"Trace_007.trc");
    EXPECT_EQ(TraceNames::HistoryName(L"Trace", L".trc", 999), L"Trace_999.trc");
    EXPECT_EQ(TraceNames::HistoryName(L"Trace", L".trc", 1000), L"Trace_aaa.trace.txt");
    EXPECT_EQ(TraceNames::HistoryName(L"", L"", 0), L"_000");
    EXPECT_EQ(TraceNames::HistoryName(L"log", L".trace.txt", 12), L"log_012.trace.txt");
}

TEST(TraceNames, KeyTokens)
{
    EXPECT_EQ(TraceNames::ExpandKeyTokens("A\\%ModuleName%\\%ModuleVersion%", "Moradel.dll", "1.06"),
              "A\\Moradel.dll\\1.06");
    EXPECT_EQ(TraceNames::ExpandKeyTokens("%modulename%-%MODULEVERSION%", "m.dll", "2.01"), "m.dll-2.01");
    EXPECT_EQ(TraceNames::ExpandKeyTokens("100%% sure", "m", "v"), "100% sure");
    EXPECT_EQ(TraceNames::ExpandKeyTokens("a%Other%b", "m", "v"), "ab");
    EXPECT_EQ(TraceNames::ExpandKeyTokens("plain\\path", "m", "v"), "plain\\path");
    EXPECT_EQ(TraceNames::ExpandKeyTokens("open%ModuleName", "m", "v"), "open%ModuleName");
}

TEST(TraceNames, DateKeyIsTheDigitSum)
{
    SYSTEMTIME st = {};
    st.wDay = 21;
    st.wMonth = 11;
    st.wYear = 2026;
    EXPECT_EQ(TraceNames::DateKey(st), 2u + 1 + 1 + 1 + 2 + 0 + 2 + 6);
    st.wDay = 1;
    st.wMonth = 2;
    st.wYear = 2030;
    EXPECT_EQ(TraceNames::DateKey(st), 0u + 1 + 0 + 2 + 2 + 0 + 3 + 0);
    st.wDay = 31;
    st.wMonth = 12;
    st.wYear = 1999;
    EXPECT_EQ(TraceNames::DateKey(st), 3u + 1 + 1 + 2 + 1 + 9 + 9 + 9);
}

TEST(TraceNames, FirstPidAndTidTokens)
{
    std::wstring ws = L"C:\\t\\%PID%_%TID%_%PID%.trc";
    TraceNames::ReplaceFirstNumber(ws, L"%PID%", 42);
    TraceNames::ReplaceFirstNumber(ws, L"%TID%", 123456);
    EXPECT_EQ(ws, L"C:\\t\\0042_123456_%PID%.trc");
}

TEST(TraceNames, LockNameLeavesOutPathCharacters)
{
    EXPECT_EQ(TraceNames::LockName("CCQuillTrace_PID_", 0x1a2b, L"C:\\logs/\"a<b>|c\".trc"),
              "CCQuillTrace_PID_00001a2b_Clogsabc.trc");
    const std::string sLong = TraceNames::LockName("CCQuillTrace_PID_", 1, std::wstring(400, L'x'));
    EXPECT_EQ(sLong.size(), 259u);
}

}  // namespace
