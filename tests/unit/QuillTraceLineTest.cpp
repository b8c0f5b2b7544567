// Lines as they appear in the trace file: fields, levels, growth, threads.
#include "TraceTestFixture.h"

#include <cstdio>
#include <regex>
#include <set>
#include <thread>

namespace {

std::string Number4(unsigned long ul)
{
    char sz[16];
    snprintf(sz, sizeof(sz), "%04lu", ul);
    return sz;
}

using TraceLineTest = TraceTest;

TEST_F(TraceLineTest, FieldsOfOneLine)
{
    EnableDefaults(TRACE_INFO);
    SYSTEMTIME stBefore;
    GetLocalTime(&stBefore);
    Configure().TraceMsg(TRACE_INFO, "CNotfyBase::GetInstances", "Enter", "Method GetInstances has been entered.", "");

    const TraceFileContent content = Read();
    EXPECT_TRUE(content.bHasBom);
    EXPECT_TRUE(content.bEndsWithLineEnd);
    ASSERT_EQ(content.lines.size(), 1u);
    const std::vector<std::string> fields = SplitFields(content.lines[0]);
    ASSERT_EQ(fields.size(), 9u) << Narrow(content.lines[0]);
    EXPECT_TRUE(std::regex_match(fields[0], std::regex(R"(\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3})"))) << fields[0];
    char szDate[16];
    snprintf(szDate, sizeof(szDate), "%02u.%02u.%04u", stBefore.wDay, stBefore.wMonth, stBefore.wYear);
    EXPECT_EQ(fields[0].substr(0, 10), szDate);
    EXPECT_EQ(fields[1], Number4(GetCurrentProcessId()));
    EXPECT_EQ(fields[2], Number4(GetCurrentThreadId()));
    EXPECT_EQ(fields[3], "Info");
    EXPECT_EQ(fields[4], "CNotfyBase");
    EXPECT_EQ(fields[5], "GetInstances");
    EXPECT_EQ(fields[6], "Enter");
    EXPECT_EQ(fields[7], "Method GetInstances has been entered.");
    EXPECT_EQ(fields[8], "");
}

TEST_F(TraceLineTest, FormattedTextAndGlobalClass)
{
    EnableDefaults(TRACE_VERBOSE);
    CCQuillTrace& trace = Configure();
    trace.TraceMsg(TRACE_ERROR, "CNotfyBase::GetInstances", "Internal", "Error executing query", "Query: %s, hr: 0x%x",
                   "SELECT * FROM KM_Filter", 0x80041010u);
    trace.TraceMsg(TRACE_VERBOSE, "FreeFunction", "Internal", "no class", "%d-%s", 7, "x");
    trace.TraceMsg(TRACE_WARNING, "A::B::C", "Internal", "m", "");

    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 3u);
    std::vector<std::string> fields = SplitFields(content.lines[0]);
    ASSERT_EQ(fields.size(), 9u);
    EXPECT_EQ(fields[3], "Error");
    EXPECT_EQ(fields[8], "Query: SELECT * FROM KM_Filter, hr: 0x80041010");
    fields = SplitFields(content.lines[1]);
    ASSERT_EQ(fields.size(), 9u);
    EXPECT_EQ(fields[3], "Verbose");
    EXPECT_EQ(fields[4], "<global>");
    EXPECT_EQ(fields[5], "FreeFunction");
    EXPECT_EQ(fields[8], "7-x");
    fields = SplitFields(content.lines[2]);
    ASSERT_EQ(fields.size(), 9u);
    EXPECT_EQ(fields[3], "Warning");
    EXPECT_EQ(fields[4], "A");
    EXPECT_EQ(fields[5], "B::C");
}

TEST_F(TraceLineTest, LevelFilterAndLevelWords)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& trace = Configure();
    for (unsigned long ulLevel = 1; ulLevel <= 6; ++ulLevel)
        trace.TraceMsg(ulLevel, "C::M", "Internal", "m", "%lu", ulLevel);
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 3u);
    const char* aszWords[] = {"Error", "Warning", "Info"};
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(SplitFields(content.lines[i])[3], aszWords[i]);
}

TEST_F(TraceLineTest, EveryLevelWordAndNoneOutsideTheRange)
{
    EnableDefaults(100);
    CCQuillTrace& trace = Configure();
    for (unsigned long ulLevel = 0; ulLevel <= 7; ++ulLevel)
        trace.TraceMsg(ulLevel, "C::M", "Internal", "m", "");
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 8u);
    const char* aszWords[] = {"Error", "Warning", "Info", "Verbose", "InfoCC", "VerboseCC"};
    EXPECT_EQ(SplitFields(content.lines[0]).size(), 8u);
    EXPECT_EQ(SplitFields(content.lines[0])[3], "C");
    for (size_t i = 1; i <= 6; ++i)
        EXPECT_EQ(SplitFields(content.lines[i])[3], aszWords[i - 1]);
    EXPECT_EQ(SplitFields(content.lines[7]).size(), 8u);
}

TEST_F(TraceLineTest, LongLinesAreWrittenWhole)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& trace = Configure();
    std::string sLong;
    for (int i = 0; sLong.size() < 20000; ++i)
        sLong += std::to_string(i) + ",";
    const std::string sLongMessage(5000, 'm');
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", "m", "%s", sLong.c_str());
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", sLongMessage.c_str(), "%s", "tail");
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", "m", "short");

    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 3u);
    EXPECT_EQ(SplitFields(content.lines[0])[8], sLong);
    EXPECT_EQ(SplitFields(content.lines[1])[7], sLongMessage);
    EXPECT_EQ(SplitFields(content.lines[1])[8], "tail");
    EXPECT_EQ(SplitFields(content.lines[2])[8], "short");
}

TEST_F(TraceLineTest, GlobalModeAddsTheModuleName)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceGlobalEnable", 1);
    Configure().TraceMsg(TRACE_INFO, "C::M", "Enter", "m", "f");
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 1u);
    const std::vector<std::string> fields = SplitFields(content.lines[0]);
    ASSERT_EQ(fields.size(), 10u);
    EXPECT_EQ(fields[4], "unit_tests.exe");
    EXPECT_EQ(fields[5], "C");
    EXPECT_EQ(fields[9], "f");
}

TEST_F(TraceLineTest, TraceMsgClassFieldsAndCutAtCapacity)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& trace = Configure();
    trace.TraceMsgClass(TRACE_INFO, nullptr, "CMoradeldllModule", "CMoradeldllModule", "Enter",
                        "An instance of CMoradeldllModule was constructed");
    const std::string sLong(CCQuillTrace::kInitialLineCapacity * 2, 'x');
    trace.TraceMsgClass(TRACE_INFO, "first", "C", "M", "Leave", "%s", sLong.c_str());
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", "after", "");

    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 2u);
    const std::vector<std::string> fields = SplitFields(content.lines[0]);
    ASSERT_EQ(fields.size(), 9u);
    EXPECT_EQ(fields[4], "(null)");
    EXPECT_EQ(fields[5], "CMoradeldllModule");
    EXPECT_EQ(fields[6], "CMoradeldllModule");
    EXPECT_EQ(fields[7], "Enter");
    EXPECT_EQ(fields[8], "An instance of CMoradeldllModule was constructed");
    // The cut line has no room for its end: the fixed text replaces it, without a line end.
    EXPECT_EQ(Narrow(content.lines[1]).rfind("No space for end marker left in buffer", 0), 0u);
    EXPECT_NE(Narrow(content.lines[1]).find("\tafter\t"), std::string::npos);
}

TEST_F(TraceLineTest, NonAsciiBytesAndEmbeddedLineFeeds)
{
    EnableDefaults(TRACE_INFO);
    Configure().TraceMsg(TRACE_INFO, "C::M", "Internal", "m", "a\nb");
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 2u);
    EXPECT_EQ(SplitFields(content.lines[0])[8], "a");
    EXPECT_EQ(content.lines[1], L"b");
}

TEST_F(TraceLineTest, TwoThreadsWriteWholeLines)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& trace = Configure();
    constexpr int kLines = 400;
    auto writer = [&trace](const char* szTag) {
        for (int i = 0; i < kLines; ++i)
            trace.TraceMsg(TRACE_INFO, "Writer::Run", "Internal", szTag, "%s-%04d-%s", szTag, i,
                           std::string(static_cast<size_t>(i % 97) * 13, szTag[0]).c_str());
    };
    std::thread first(writer, "alpha");
    std::thread second(writer, "omega");
    first.join();
    second.join();

    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 2u * kLines);
    std::set<std::string> seen;
    const std::regex line(R"((alpha|omega)-(\d{4})-([ao]*))");
    for (const std::wstring& wsLine : content.lines) {
        const std::vector<std::string> fields = SplitFields(wsLine);
        ASSERT_EQ(fields.size(), 9u) << Narrow(wsLine);
        std::smatch match;
        ASSERT_TRUE(std::regex_match(fields[8], match, line)) << fields[8].substr(0, 80);
        EXPECT_EQ(fields[7], match[1].str());
        EXPECT_EQ(match[3].str().size(), static_cast<size_t>(std::stoi(match[2].str()) % 97) * 13);
        seen.insert(fields[8].substr(0, 10));
    }
    EXPECT_EQ(seen.size(), 2u * kLines);
}

}  // namespace
