#include "access/CCStringConversion.h"

#include "GlobalTraceLog.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

namespace {

constexpr char kFallback[] =
    "Could not convert unicode to ansi string because of unrecognized character, using different api";

TEST(StringConversion, RoundTripsKeepOneBuffer)
{
    CCStringConversion text("root\\cimv2");
    EXPECT_FALSE(text.IsWide());
    const wchar_t* pwsz = text.Convert2W();
    EXPECT_STREQ(pwsz, L"root\\cimv2");
    EXPECT_TRUE(text.IsWide());
    EXPECT_EQ(text.Convert2W(), pwsz);  // already wide: the same buffer
    EXPECT_STREQ(static_cast<const char*>(text), "root\\cimv2");
    EXPECT_FALSE(text.IsWide());
    CCStringConversion wide(L"Win32_Service");
    EXPECT_TRUE(wide.IsWide());
    EXPECT_STREQ(static_cast<const char*>(wide), "Win32_Service");
    EXPECT_STREQ(static_cast<const wchar_t*>(wide), L"Win32_Service");
}

TEST(StringConversion, EmptyNullAndLongTexts)
{
    CCStringConversion empty("");
    EXPECT_STREQ(empty.Convert2W(), L"");
    EXPECT_STREQ(empty.Convert2A(), "");
    CCStringConversion nullNarrow(static_cast<const char*>(nullptr)), nullWide(static_cast<const wchar_t*>(nullptr));
    EXPECT_EQ(nullNarrow.Convert2W(), nullptr);
    EXPECT_EQ(nullNarrow.Convert2A(), nullptr);
    EXPECT_EQ(nullWide.Convert2A(), nullptr);
    EXPECT_EQ(nullWide.Convert2W(), nullptr);
    const std::string sLong(100000, 'k');
    CCStringConversion text(sLong.c_str());
    EXPECT_EQ(wcslen(text.Convert2W()), sLong.size());
    EXPECT_EQ(std::string(text.Convert2A()), sLong);
}

TEST(StringConversion, UnrepresentableCharacterUsesTheCodePageCall)
{
    GlobalTraceLog& log = GlobalTraceLog::Get();
    size_t uMark = log.Mark();
    CCStringConversion plain(L"plain text");
    EXPECT_STREQ(plain.Convert2A(), "plain text");
    EXPECT_FALSE(log.Contains(uMark, kFallback));
    // The "C" locale has no narrow form for U+20AC; the ANSI code page call converts it.
    uMark = log.Mark();
    CCStringConversion euro(L"price \x20AC 5");
    const char* psz = euro.Convert2A();
    ASSERT_NE(psz, nullptr);
    EXPECT_EQ(strncmp(psz, "price ", 6), 0);
    EXPECT_EQ(strlen(psz), 9u);
    EXPECT_TRUE(log.Contains(uMark, kFallback));
}

TEST(StringConversion, NarrowFormLongerThanTheWideCountFails)
{
    if (!setlocale(LC_ALL, ".932"))
        GTEST_SKIP() << "no code page 932 locale";
    const size_t uMark = GlobalTraceLog::Get().Mark();
    CCStringConversion text(L"\x3042\x3044");  // two characters of two bytes each
    EXPECT_EQ(text.Convert2A(), nullptr);
    EXPECT_TRUE(text.IsWide());  // the former form is kept
    EXPECT_STREQ(text.Convert2W(), L"\x3042\x3044");
    setlocale(LC_ALL, "C");
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Error converting WCHARs to CHARs "));
}

}  // namespace
