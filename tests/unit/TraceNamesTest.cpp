// Pure naming helpers of the trace: history names, key tokens, the date key, the lock name.
#include "framework/TraceNames.h"

#include <gtest/gtest.h>

namespace {

TEST(TraceNames, FileAndHistoryNames)
{
    const struct { const wchar_t *wszName, *wszStem, *wszExtension; } splits[] = {
        {L"Trace.trc", L"Trace", L".trc"},
        {L"C:\\logs\\moradel.log.trace.txt", L"C:\\logs\\moradel.log", L".trace.txt"},
        {L"C:\\logs\\Moradel.TRACE.TXT", L"C:\\logs\\Moradel", L".TRACE.TXT"},
        {L"C:\\logs\\a.b.c", L"C:\\logs\\a.b", L".c"}, {L"tracefile", L"", L""}, {L".trc", L"", L""},
        {L"x.", L"x", L"."}, {L"C:\\dir.d\\trace", L"C:\\dir", L".d\\trace"},
    };
    for (const auto& row : splits) {
        std::wstring wsStem = L"junk", wsExtension = L"junk";
        TraceNames::SplitFileName(row.wszName, wsStem, wsExtension);
        EXPECT_EQ(wsStem, row.wszStem) << row.wszName;
        EXPECT_EQ(wsExtension, row.wszExtension) << row.wszName;
    }
    const struct { const wchar_t *wszStem, *wszExtension; unsigned uNumber; const wchar_t* wszName; } names[] = {
        {L"Trace", L".trc", 0, L"Trace_000.trc"}, {L"Trace", L".trc", 7, L"Trace_007.trc"},
        {L"Trace", L".trc", 999, L"Trace_999.trc"}, {L"Trace", L".trc", 1000, L"Trace_aaa.trace.txt"},
        {L"", L"", 0, L"_000"}, {L"log", L".trace.txt", 12, L"log_012.trace.txt"},
    };
    for (const auto& row : names)
        EXPECT_EQ(TraceNames::HistoryName(row.wszStem, row.wszExtension, row.uNumber), row.wszName) << row.wszName;
    std::wstring ws = L"C:\\t\\%PID%_%TID%_%PID%.trc";
    TraceNames::ReplaceFirstNumber(ws, L"%PID%", 42);
    TraceNames::ReplaceFirstNumber(ws, L"%TID%", 123456);
    EXPECT_EQ(ws, L"C:\\t\\0042_123456_%PID%.trc");
}

TEST(TraceNames, KeyTokensDateKeyAndLockName)
{
    const struct { const char* szTemplate; const char* szExpanded; } tokens[] = {
        {"A\\%ModuleName%\\%ModuleVersion%", "A\\Moradel.dll\\1.06"},
        {"%modulename%-%MODULEVERSION%", "Moradel.dll-1.06"},
        {"100%% sure", "100% sure"}, {"a%Other%b", "ab"}, {"plain\\path", "plain\\path"},
        {"open%ModuleName", "open%ModuleName"},
    };
    for (const auto& row : tokens)
        EXPECT_EQ(TraceNames::ExpandKeyTokens(row.szTemplate, "Moradel.dll", "1.06"), row.szExpanded) << row.szTemplate;
    // The key is the digit sum of day, month and year, each with its leading zeros.
    const struct { SYSTEMTIME st; unsigned long ulKey; } dates[] = {
        {{2026, 11, 0, 21, 0, 0, 0, 0}, 2 + 1 + 1 + 1 + 2 + 0 + 2 + 6},
        {{2030, 2, 0, 1, 0, 0, 0, 0}, 0 + 1 + 0 + 2 + 2 + 0 + 3 + 0},
        {{1999, 12, 0, 31, 0, 0, 0, 0}, 3 + 1 + 1 + 2 + 1 + 9 + 9 + 9}};
    for (const auto& row : dates)
        EXPECT_EQ(TraceNames::DateKey(row.st), row.ulKey) << row.st.wDay << "." << row.st.wMonth << "." << row.st.wYear;
    EXPECT_EQ(TraceNames::LockName("CCQuillTrace_PID_", 0x1a2b, L"C:\\logs/\"a<b>|c\".trc"),
              "CCQuillTrace_PID_00001a2b_Clogsabc.trc");
    EXPECT_EQ(TraceNames::LockName("CCQuillTrace_PID_", 1, std::wstring(400, L'x')).size(), 259u);
}

}  // namespace
