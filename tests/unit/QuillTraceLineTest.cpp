// Lines as they appear in the trace file: fields, levels, growth, threads.
#include "TraceTestFixture.h"

#include <cstdio>
#include <regex>
#include <set>
#include <thread>

namespace {

using TraceLineTest = TraceTest;

TEST_F(TraceLineTest, FieldsAndLevelWordsOfEachKindOfLine)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& info = Configure();
    for (unsigned long ulLevel = 1; ulLevel <= 6; ++ulLevel)
        info.TraceMsg(ulLevel, "C::M", "Internal", "m", "");
    m_pKey->SetDword("TraceLevel", 100);
    SYSTEMTIME stBefore;
    GetLocalTime(&stBefore);
    CCQuillTrace& trace = Configure();
    for (unsigned long ulLevel = 0; ulLevel <= 7; ++ulLevel)
        trace.TraceMsg(ulLevel, "C::M", "Internal", "m", "");
    trace.TraceMsg(TRACE_INFO, "CNotfyBase::GetInstances", "Enter", "Method GetInstances has been entered.", "");
    trace.TraceMsg(TRACE_ERROR, "CNotfyBase::GetInstances", "Internal", "Error executing query", "Query: %s, hr: 0x%x",
                   "SELECT * FROM KM_Filter", 0x80041010u);
    trace.TraceMsg(TRACE_VERBOSE, "FreeFunction", "Internal", "no class", "%d-%s", 7, "x");
    trace.TraceMsg(TRACE_WARNING, "A::B::C", "Internal", "m", "");
    trace.TraceMsgClass(TRACE_INFO, nullptr, "CMoradeldllModule", "CMoradeldllModule", "Enter",
                        "An instance of CMoradeldllModule was constructed");
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", "m", "a\nb");
    // Fields after process and thread id. At level 3 only levels 1 to 3 arrive; at level 100 all do, but
    // only 1 to 6 have a level word.
    const std::vector<std::vector<std::string>> expected = {
        {"Error", "C", "M", "Internal", "m", ""}, {"Warning", "C", "M", "Internal", "m", ""},
        {"Info", "C", "M", "Internal", "m", ""}, {"C", "M", "Internal", "m", ""},
        {"Error", "C", "M", "Internal", "m", ""}, {"Warning", "C", "M", "Internal", "m", ""},
        {"Info", "C", "M", "Internal", "m", ""}, {"Verbose", "C", "M", "Internal", "m", ""},
        {"InfoCC", "C", "M", "Internal", "m", ""}, {"VerboseCC", "C", "M", "Internal", "m", ""},
        {"C", "M", "Internal", "m", ""},
        {"Info", "CNotfyBase", "GetInstances", "Enter", "Method GetInstances has been entered.", ""},
        {"Error", "CNotfyBase", "GetInstances", "Internal", "Error executing query",
         "Query: SELECT * FROM KM_Filter, hr: 0x80041010"},
        {"Verbose", "<global>", "FreeFunction", "Internal", "no class", "7-x"},
        {"Warning", "A", "B::C", "Internal", "m", ""},
        {"Info", "(null)", "CMoradeldllModule", "CMoradeldllModule", "Enter",
         "An instance of CMoradeldllModule was constructed"},
        {"Info", "C", "M", "Internal", "m", "a"},
    };
    const TraceFileContent content = Read();
    EXPECT_TRUE(content.bHasBom);
    EXPECT_TRUE(content.bEndsWithLineEnd);
    ASSERT_EQ(content.lines.size(), expected.size() + 1);
    EXPECT_EQ(content.lines.back(), L"b");  // an embedded line feed gets its carriage return
    char szHead[80];
    snprintf(szHead, sizeof(szHead), R"(%02u\.%02u\.%04u \d\d:\d\d:\d\d\.\d{3}\t%04lu\t%04lu)", stBefore.wDay,
             stBefore.wMonth, stBefore.wYear, GetCurrentProcessId(), GetCurrentThreadId());
    for (size_t i = 0; i < expected.size(); ++i) {
        const std::vector<std::string> fields = SplitFields(content.lines[i]);
        ASSERT_EQ(fields.size(), 3 + expected[i].size()) << Narrow(content.lines[i]);
        EXPECT_TRUE(std::regex_match(fields[0] + "\t" + fields[1] + "\t" + fields[2], std::regex(szHead))) << i;
        for (size_t j = 0; j < expected[i].size(); ++j)
            EXPECT_EQ(fields[3 + j], expected[i][j]) << "line " << i << " field " << 3 + j;
    }
}

TEST_F(TraceLineTest, LongLinesGrowTheBufferAndCutLinesLoseTheirEnd)
{
    EnableDefaults(TRACE_INFO);
    CCQuillTrace& trace = Configure();
    // TraceMsgClass does not grow: its cut line is replaced by a fixed text without a line end.
    trace.TraceMsgClass(TRACE_INFO, "first", "C", "M", "Leave", "%s",
                        std::string(CCQuillTrace::kInitialLineCapacity * 2, 'x').c_str());
    std::string sLong;
    for (int i = 0; sLong.size() < 20000; ++i)
        sLong += std::to_string(i) + ",";
    const std::string sLongMessage(5000, 'm');
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", "m", "%s", sLong.c_str());
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", sLongMessage.c_str(), "%s", "tail");
    trace.TraceMsg(TRACE_INFO, "C::M", "Internal", "m", "short");
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 3u);
    EXPECT_EQ(Narrow(content.lines[0]).rfind("No space for end marker left in buffer", 0), 0u);
    ASSERT_EQ(SplitFields(content.lines[0]).size(), 9u);
    EXPECT_EQ(SplitFields(content.lines[0])[8], sLong);
    EXPECT_EQ(SplitFields(content.lines[1])[7], sLongMessage);
    EXPECT_EQ(SplitFields(content.lines[1])[8], "tail");
    EXPECT_EQ(SplitFields(content.lines[2])[8], "short");
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
    std::thread first(writer, "alpha"), second(writer, "omega");
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
