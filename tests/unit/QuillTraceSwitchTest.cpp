// File creation, clearing and switching under size and time limits.
#include "TraceTestFixture.h"

namespace {

constexpr char kWarningStart[] = "31.12.2030 23:59:59.999\t9999\t9999\twarning\tCCQuillTrace\tFileSwitch\tInternal\t"
                                 "MoveFileExW returned last error 0x00000001, ";
constexpr char kErrorStart[] = "31.12.2030 23:59:59.999\t9999\t9999\terror\tCCQuillTrace\tFileSwitch\tException\t"
                               "MoveFileExW could not create file '";

// The number that WriteLine put into a line.
std::string Number(const std::wstring& wsLine) { return SplitFields(wsLine).back().substr(0, 4); }
bool StartsWith(const std::wstring& wsLine, const char* szStart) { return Narrow(wsLine).rfind(szStart, 0) == 0; }

class TraceSwitchTest : public TraceTest {
protected:
    // A fresh trace object with these DWORD values besides the defaults; it writes nothing yet.
    void Start(std::initializer_list<std::pair<const char*, DWORD>> values = {})
    {
        EnableDefaults(TRACE_INFO);
        for (const auto& [szName, dwValue] : values)
            m_pKey->SetDword(szName, dwValue);
        Configure();
    }
    // About 370 characters (740 bytes): long enough that the fixed switch lines fit into its length.
    void WriteLine(int iNumber)
    {
        m_pTrace->TraceMsg(TRACE_INFO, "Switch::Test", "Internal", "line", "%04d %s", iNumber,
                           std::string(300, 'p').c_str());
    }
    std::vector<std::wstring> Lines(const wchar_t* wszName) const { return ReadTraceFile(m_dir.File(wszName)).lines; }
};

TEST_F(TraceSwitchTest, AnExistingFileIsClearedOrAppendedToAndSwitchedBySize)
{
    Start();
    WriteLine(0);
    Start({{"TraceClear", 1}});
    WriteLine(0);
    EXPECT_TRUE(Read().bHasBom);
    EXPECT_EQ(Read().lines.size(), 1u);
    Start({{"TraceClear", 0}});
    WriteLine(0);
    EXPECT_EQ(Read().lines.size(), 2u);
    // The size tally starts from zero: what the file already holds does not count.
    Start({{"TraceLimitSize", 1000}});
    WriteLine(1);
    WriteLine(2);
    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    WriteLine(3);
    const std::vector<std::wstring> history = Lines(L"test_000.trc");
    ASSERT_EQ(history.size(), 4u);
    EXPECT_EQ(Number(history[3]), "0002");
    // The fresh file holds the switch notice, kept to the length of the pending line.
    const TraceFileContent current = Read();
    EXPECT_TRUE(current.bHasBom);
    ASSERT_GE(current.lines.size(), 1u);
    EXPECT_TRUE(StartsWith(current.lines[0], kWarningStart)) << Narrow(current.lines[0]);
    for (size_t i = 1; i < current.lines.size(); ++i)
        EXPECT_EQ(current.lines[i].find_first_not_of(L'\0'), std::wstring::npos) << i;
    // Without history numbering the same name is reused and replaced.
    for (int i = 4; i < 10; ++i)
        WriteLine(i);
    EXPECT_TRUE(StartsWith(Lines(L"test_000.trc").at(0), kWarningStart));
    EXPECT_FALSE(FileExists(m_dir.File(L"test_001.trc")));
}

TEST_F(TraceSwitchTest, TimeLimitSwitchesAtOnceOnlyAFileItDidNotCreate)
{
    Start({{"TraceLimitTime", 60}});
    WriteLine(1);
    WriteLine(2);
    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    Start({{"TraceLimitTime", 60}});
    WriteLine(3);
    ASSERT_EQ(Lines(L"test_000.trc").size(), 2u);
    EXPECT_EQ(Number(Lines(L"test_000.trc")[1]), "0002");
    EXPECT_TRUE(StartsWith(Read().lines.at(0), kWarningStart)) << Narrow(Read().lines[0]);
    // The deadline is now an hour away: further lines stay in the file.
    WriteLine(4);
    WriteLine(5);
    EXPECT_EQ(Lines(L"test_000.trc").size(), 2u);
    EXPECT_EQ(Number(Read().lines.back()), "0005");
}

TEST_F(TraceSwitchTest, KeepHistoryTakesTheFirstFreeNumberUpTo999ThenAaa)
{
    auto createHistory = [this](int iFrom, int iTo) {
        for (int i = iFrom; i < iTo; ++i) {
            wchar_t wszName[32];
            swprintf(wszName, 32, L"test_%03d.trc", i);
            HANDLE h = CreateFileW(m_dir.File(wszName).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE) << i;
            CloseHandle(h);
        }
    };
    createHistory(0, 2);
    Start({{"TraceLimitSize", 500}, {"TraceKeepHistory", 1}});
    WriteLine(1);
    WriteLine(2);
    ASSERT_EQ(Lines(L"test_002.trc").size(), 1u);
    EXPECT_EQ(Number(Lines(L"test_002.trc")[0]), "0001");
    createHistory(3, 1000);
    WriteLine(3);  // switches again, with every number taken
    ASSERT_TRUE(FileExists(m_dir.File(L"test_aaa.trace.txt")));
    EXPECT_TRUE(StartsWith(Lines(L"test_aaa.trace.txt").at(0), kWarningStart));
}

TEST_F(TraceSwitchTest, FailedMoveWritesTheErrorLine)
{
    Start({{"TraceLimitSize", 500}});
    WriteLine(1);
    // An open handle that does not share deletion makes the rename fail.
    HANDLE hHold = CreateFileW(File().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(hHold, INVALID_HANDLE_VALUE);
    WriteLine(2);
    CloseHandle(hHold);
    EXPECT_FALSE(FileExists(m_dir.File(L"test_000.trc")));
    const std::vector<std::wstring> lines = Read().lines;
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(Number(lines[1]), "0002");
    EXPECT_TRUE(StartsWith(lines[2], kErrorStart)) << Narrow(lines[2]);
    EXPECT_NE(Narrow(lines[2]).find("test_000.trc'"), std::string::npos) << Narrow(lines[2]);
}

}  // namespace
