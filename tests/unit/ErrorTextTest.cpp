#include "access/ErrorText.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ErrorText, WmiCodesComeFromTheTableOthersAreUnknown)
{
    const struct { unsigned long ulCode; const char* szText; } rows[] = {
        {0x80041001, "The call failed."},
        {0x80041002, "The object could not be found."},
        // The first of the two rows with this code answers.
        {0x8004107A, "Windows Server 2003 and Windows XP:  WMI cannot do the delete operation because the provider "
                     "does not allow it."},
        {0x8004108A, "Windows Server 2003 and Windows XP:  User attempted to register a provider instance but the COM "
                     "server for the provider instance was unloaded."},
        {0x8004104A, "unknown"}, {0x8004104F, "unknown"}, {0x8004105E, "unknown"}, {0x80041079, "unknown"},
        {0x8004107B, "unknown"}, {0x80041090, "unknown"}, {0x80043003, "unknown"}, {0x800E0001, "unknown"},
    };
    for (const auto& row : rows)
        EXPECT_STREQ(GetErrorText(row.ulCode), row.szText) << std::hex << row.ulCode;
}

TEST(ErrorText, Win32CodeUsesTheSystemTextWithoutLineBreak)
{
    char* psz = nullptr;
    const DWORD dwFlags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    ASSERT_NE(FormatMessageA(dwFlags, nullptr, ERROR_ACCESS_DENIED, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                             reinterpret_cast<char*>(&psz), 0, nullptr), 0u);
    std::string sExpected = psz;
    LocalFree(psz);
    while (!sExpected.empty() && (sExpected.back() == '\n' || sExpected.back() == '\r'))
        sExpected.pop_back();
    EXPECT_EQ(GetErrorText(0x80070005), sExpected);
    EXPECT_EQ(GetErrorText(ERROR_ACCESS_DENIED), sExpected);
}

// Line breaks inside a table text stay; every answer is in the calling thread's one buffer.
TEST(ErrorText, TableTextsStayWholeInOneReusedBuffer)
{
    const std::string sMultiLine = GetErrorText(0x80041013);
    EXPECT_NE(sMultiLine.find('\n'), std::string::npos) << sMultiLine;
    EXPECT_LT(sMultiLine.size(), 4096u);
    const char* pFirst = GetErrorText(0x80041002);
    EXPECT_EQ(GetErrorText(0x8004104A), pFirst);
    EXPECT_STREQ(pFirst, "unknown");
}

}  // namespace
