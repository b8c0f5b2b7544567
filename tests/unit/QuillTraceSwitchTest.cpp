// File creation, clearing and switching under size and time limits.
#include "TraceTestFixture.h"

#include <fstream>

namespace {

constexpr char kWarningStart[] = "31.12.2030 23:59:59.999\t9999\t9999\twarning\tCCQuillTrace\tFileSwitch\tInternal\t"
                                 "MoveFileExW returned last error 0x00000001, ";
constexpr char kErrorStart[] = "31.12.2030 23:59:59.999\t9999\t9999\terror\tCCQuillTrace\tFileSwitch\tException\t"
                               "MoveFileExW could not create file '";

void WriteUtf16File(const std::wstring& wsPath, const std::wstring& wsText)
{
    std::ofstream file(wsPath.c_str(), std::ios::binary | std::ios::trunc);
    const std::wstring wsAll = L"\xFEFF" + wsText;
    for (wchar_t wc : wsAll) {
        file.put(static_cast<char>(wc & 0xFF));
        file.put(static_cast<char>(wc >> 8));
    }
}

class TraceSwitchTest : public TraceTest {
protected:
    // A line long enough that the fixed switch lines fit into its length.
    void WriteLine(int iNumber)
    {
        m_pTrace->TraceMsg(TRACE_INFO, "Switch::Test", "Internal", "line", "%04d %s", iNumber,
                           std::string(300, 'p').c_str());
    }
    static bool OnlyNuls(const std::wstring& ws) { return ws.find_first_not_of(L'\0') == std::wstring::npos; }
};

TEST_F(TraceSwitchTest, ClearOnStartTruncatesAnExistingFile)
{
    WriteUtf16File(File(), L"old line\r\n");
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceClear", 1);
    Configure();
    WriteLine(1);
    const TraceFileContent content = Read();
    EXPECT_TRUE(content.bHasBom);
    ASSERT_EQ(content.lines.size(), 1u);
    EXPECT_EQ(SplitFields(content.lines[0])[8].substr(0, 4), "0001");
}

TEST_F(TraceSwitchTest, WithoutClearLinesAreAppended)
{
    WriteUtf16File(File(), L"old line\r\n");
    EnableDefaults(TRACE_INFO);
    Configure();
    WriteLine(1);
    const TraceFileContent content = Read();
    ASSERT_EQ(content.lines.size(), 2u);
    EXPECT_EQ(content.lines[0], L"old line");
}

TEST_F(TraceSwitchTest, SizeLimitMovesTheFileToItsHistoryName)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitSize", 1000);
    Configure();
    WriteLine(1);
    WriteLine(2);
    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    WriteLine(3);  // the tally now exceeds the limit

    const TraceFileContent history = ReadTraceFile(m_dir.File(L"test_000.trc"));
    EXPECT_TRUE(history.bHasBom);
    ASSERT_EQ(history.lines.size(), 2u);
    EXPECT_EQ(SplitFields(history.lines[1])[8].substr(0, 4), "0002");

    // The fresh file holds the switch notice, kept to the length of the pending line.
    const TraceFileContent current = Read();
    EXPECT_TRUE(current.bHasBom);
    ASSERT_GE(current.lines.size(), 1u);
    EXPECT_EQ(Narrow(current.lines[0]).rfind(kWarningStart, 0), 0u) << Narrow(current.lines[0]);
    for (size_t i = 1; i < current.lines.size(); ++i)
        EXPECT_TRUE(OnlyNuls(current.lines[i]));

    // Without history numbering the same name is reused.
    for (int i = 4; i < 10; ++i)
        WriteLine(i);
    EXPECT_TRUE(FileExists(m_dir.File(L"test_000.trc")));
    EXPECT_FALSE(FileExists(m_dir.File(L"test_001.trc")));
}

TEST_F(TraceSwitchTest, SizeTallyStartsAtZeroForAnExistingFile)
{
    WriteUtf16File(File(), std::wstring(5000, L'x') + L"\r\n");
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitSize", 1000);
    Configure();
    WriteLine(1);
    WriteLine(2);
    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    WriteLine(3);
    EXPECT_TRUE(FileExists(m_dir.File(L"test_000.trc")));
}

TEST_F(TraceSwitchTest, TimeLimitSwitchesAnExistingFileAtOnce)
{
    WriteUtf16File(File(), L"old line\r\n");
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitTime", 60);
    Configure();
    WriteLine(1);
    const TraceFileContent history = ReadTraceFile(m_dir.File(L"test_000.trc"));
    ASSERT_EQ(history.lines.size(), 1u);
    EXPECT_EQ(history.lines[0], L"old line");
    ASSERT_GE(Read().lines.size(), 1u);
    EXPECT_EQ(Narrow(Read().lines[0]).rfind(kWarningStart, 0), 0u);

    // The deadline is now an hour away: further lines stay in the file.
    WriteLine(2);
    WriteLine(3);
    EXPECT_EQ(ReadTraceFile(m_dir.File(L"test_000.trc")).lines.size(), 1u);
    EXPECT_EQ(SplitFields(Read().lines.back())[8].substr(0, 4), "0003");
}

TEST_F(TraceSwitchTest, TimeLimitDoesNotSwitchAFileItCreated)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitTime", 60);
    Configure();
    WriteLine(1);
    WriteLine(2);
    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    EXPECT_EQ(Read().lines.size(), 2u);
}

TEST_F(TraceSwitchTest, KeepHistoryCountsUpToTheFirstFreeNumber)
{
    WriteUtf16File(m_dir.File(L"test_000.trc"), L"zero\r\n");
    WriteUtf16File(m_dir.File(L"test_001.trc"), L"one\r\n");
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitSize", 500);
    m_pKey->SetDword("TraceKeepHistory", 1);
    Configure();
    WriteLine(1);
    WriteLine(2);
    EXPECT_EQ(ReadTraceFile(m_dir.File(L"test_000.trc")).lines[0], L"zero");
    EXPECT_EQ(ReadTraceFile(m_dir.File(L"test_001.trc")).lines[0], L"one");
    const TraceFileContent history = ReadTraceFile(m_dir.File(L"test_002.trc"));
    ASSERT_EQ(history.lines.size(), 1u);
    EXPECT_EQ(SplitFields(history.lines[0])[8].substr(0, 4), "0001");
}

TEST_F(TraceSwitchTest, AfterAThousandHistoryFilesTheNameIsAaa)
{
    for (int i = 0; i < 1000; ++i) {
        wchar_t wszName[32];
        swprintf(wszName, 32, L"test_%03d.trc", i);
        HANDLE h = CreateFileW(m_dir.File(wszName).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        CloseHandle(h);
    }
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitSize", 500);
    m_pKey->SetDword("TraceKeepHistory", 1);
    Configure();
    WriteLine(1);
    WriteLine(2);
    const std::wstring wsAaa = m_dir.File(L"test_aaa.trace.txt");
    ASSERT_TRUE(FileExists(wsAaa));
    EXPECT_EQ(SplitFields(ReadTraceFile(wsAaa).lines[0])[8].substr(0, 4), "0001");
    // Every further switch overwrites the same file.
    for (int i = 3; i < 8; ++i)
        WriteLine(i);
    EXPECT_EQ(Narrow(ReadTraceFile(wsAaa).lines[0]).rfind(kWarningStart, 0), 0u);
}

TEST_F(TraceSwitchTest, NameWithoutDotGivesUnderscoreAndNumberInTheCurrentFolder)
{
    wchar_t wszSaved[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, wszSaved);
    ASSERT_TRUE(SetCurrentDirectoryW(m_dir.Path().c_str()));
    EnableDefaults(TRACE_INFO);
    m_pKey->SetString("TraceFile", "tracefile");
    m_pKey->SetDword("TraceLimitSize", 500);
    Configure();
    WriteLine(1);
    WriteLine(2);
    SetCurrentDirectoryW(wszSaved);
    EXPECT_TRUE(FileExists(m_dir.File(L"tracefile")));
    const TraceFileContent history = ReadTraceFile(m_dir.File(L"_000"));
    ASSERT_EQ(history.lines.size(), 1u);
    EXPECT_EQ(SplitFields(history.lines[0])[8].substr(0, 4), "0001");
}

TEST_F(TraceSwitchTest, FailedMoveWritesTheErrorLine)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceLimitSize", 500);
    Configure();
    WriteLine(1);
    // An open handle that does not share deletion makes the rename fail.
    HANDLE hHold = CreateFileW(File().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(hHold, INVALID_HANDLE_VALUE);
    WriteLine(2);
    CloseHandle(hHold);

    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    const TraceFileContent content = Read();
    ASSERT_GE(content.lines.size(), 3u);
    EXPECT_EQ(SplitFields(content.lines[1])[8].substr(0, 4), "0002");
    const std::string sError = Narrow(content.lines[2]);
    EXPECT_EQ(sError.rfind(kErrorStart, 0), 0u) << sError;
    EXPECT_NE(sError.find("test_000.trc'"), std::string::npos) << sError;
}

}  // namespace
