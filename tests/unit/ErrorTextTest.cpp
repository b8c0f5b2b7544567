#include "access/ErrorText.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string SystemText(DWORD dwCode)
{
    char* psz = nullptr;
    const DWORD cch = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                         FORMAT_MESSAGE_IGNORE_INSERTS,
                                     nullptr, dwCode, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                     reinterpret_cast<char*>(&psz), 0, nullptr);
    std::string s = cch && psz ? psz : "";
    if (psz)
        LocalFree(psz);
    return s;
}

struct TableCase {
    unsigned long ulCode;
    const char* szText;
};

TEST(ErrorText, WmiCodesComeFromTheTable)
{
    const TableCase cases[] = {
        {0x80041001, "The call failed."},
        {0x80041002, "The object could not be found."},
        {0x80041006, "There was not enough memory for the operation"},
        {0x80041009, "The resource, typically a remote server, is not currently available"},
        {0x80041017, "The requested operation is not valid. This error usually applies to invalid attempts to "
                     "delete classes or properties."},
        {0x80041030, "There was an attempt to get qualifiers on a system property."},
        {0x8004103B, "Windows XP/2000/NT:  Disk is out of space."},
        {0x8004107A, "Windows Server 2003 and Windows XP:  WMI cannot do the delete operation because the "
                     "provider does not allow it."},
        {0x8004108A, "Windows Server 2003 and Windows XP:  User attempted to register a provider instance but the "
                     "COM server for the provider instance was unloaded."},
    };
    for (const TableCase& c : cases)
        EXPECT_STREQ(GetErrorText(c.ulCode), c.szText) << std::hex << c.ulCode;
}

TEST(ErrorText, CodesWithoutRowAreUnknown)
{
    for (unsigned long ulCode : {0x8004104AUL, 0x8004104FUL, 0x8004105EUL, 0x80041079UL, 0x8004107BUL, 0x80041090UL,
                                 0x80043003UL, 0x800E0001UL})
        EXPECT_STREQ(GetErrorText(ulCode), "unknown") << std::hex << ulCode;
}

TEST(ErrorText, Win32CodeUsesTheSystemTextWithoutLineBreak)
{
    std::string sExpected = SystemText(ERROR_ACCESS_DENIED);
    ASSERT_FALSE(sExpected.empty());
    while (!sExpected.empty() && (sExpected.back() == '\n' || sExpected.back() == '\r'))
        sExpected.pop_back();
    EXPECT_EQ(GetErrorText(0x80070005), sExpected);
    EXPECT_EQ(GetErrorText(ERROR_ACCESS_DENIED), sExpected);
    EXPECT_EQ(strchr(GetErrorText(0x80070005), '\n'), nullptr);
}

TEST(ErrorText, TableIsOrderedWithTheDocumentedRows)
{
    int iRows = 0;
    int iServer2003 = 0;
    int iNt = 0;
    unsigned long ulPrevious = 0;
    for (const ErrorTextRow* pRow = g_ErrorTextTable; pRow->ulCode != 0; ++pRow, ++iRows) {
        EXPECT_GE(pRow->ulCode, ulPrevious) << std::hex << pRow->ulCode;
        ulPrevious = pRow->ulCode;
        ASSERT_NE(pRow->szText, nullptr);
        iServer2003 += strncmp(pRow->szText, "Windows Server 2003 and Windows XP:  ", 37) == 0;
        iNt += strncmp(pRow->szText, "Windows XP/2000/NT:  ", 21) == 0;
    }
    EXPECT_EQ(iRows, 130);
    EXPECT_EQ(iServer2003, 35);
    EXPECT_EQ(iNt, 1);
    // The second 0x8004107A row exists but is never returned.
    const ErrorTextRow* pRow = g_ErrorTextTable;
    while (pRow->ulCode != 0x8004107A)
        ++pRow;
    EXPECT_NE(strstr(pRow[1].szText, "put operation"), nullptr);
    EXPECT_EQ(pRow[1].ulCode, 0x8004107AUL);
    EXPECT_EQ(strstr(GetErrorText(0x8004107A), "put operation"), nullptr);
}

TEST(ErrorText, SharedTextsOfTheTable)
{
    EXPECT_EQ(std::string(GetErrorText(0x80041016)), std::string(GetErrorText(0x80041017)));
    const std::string sMultiLine = GetErrorText(0x80041013);
    EXPECT_NE(sMultiLine.find('\n'), std::string::npos) << sMultiLine;
}

TEST(ErrorText, ResultBufferIsReusedAndBounded)
{
    const char* pFirst = GetErrorText(0x80041002);
    const char* pSecond = GetErrorText(0x8004104A);
    EXPECT_EQ(pFirst, pSecond);
    EXPECT_STREQ(pSecond, "unknown");
    EXPECT_LT(strlen(GetErrorText(0x80041013)), 4096u);
}

}  // namespace
