// The zone offset of EventTime and its CIM datetime form.
#include "core/CNotificationModify.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

TEST(EventTimeTest, OffsetFromTheZoneAnswer)
{
    const struct {
        DWORD dwAnswer;
        LONG lBias;
        LONG lStandardBias;
        LONG lDaylightBias;
        long lExpected;
    } cases[] = {
        {TIME_ZONE_ID_STANDARD, 300, 0, -60, -300},
        {TIME_ZONE_ID_DAYLIGHT, 300, 0, -60, -240},
        {TIME_ZONE_ID_STANDARD, -60, 0, -60, 60},
        {TIME_ZONE_ID_DAYLIGHT, -60, 0, -60, 120},
        {TIME_ZONE_ID_STANDARD, 300, 15, -60, -315},
        {TIME_ZONE_ID_UNKNOWN, 0, 0, -60, 60},
        {TIME_ZONE_ID_UNKNOWN, 0, 30, 0, 0},
        {TIME_ZONE_ID_UNKNOWN, 180, 0, -60, -120},
        {TIME_ZONE_ID_INVALID, 300, 0, -60, 0},
    };
    for (const auto& c : cases) {
        TIME_ZONE_INFORMATION tzi = {};
        tzi.Bias = c.lBias;
        tzi.StandardBias = c.lStandardBias;
        tzi.DaylightBias = c.lDaylightBias;
        EXPECT_EQ(EventTimeOffset(c.dwAnswer, tzi), c.lExpected)
            << "answer " << c.dwAnswer << ", bias " << c.lBias << "/" << c.lStandardBias << "/" << c.lDaylightBias;
    }
}

TEST(EventTimeTest, CimDatetimeForm)
{
    SYSTEMTIME st = {};
    st.wYear = 2008;
    st.wMonth = 10;
    st.wDay = 13;
    st.wHour = 15;
    st.wMinute = 6;
    st.wSecond = 3;
    st.wMilliseconds = 999;  // never shown: the fraction is always zero
    const struct {
        long lOffset;
        const char* szExpected;
    } cases[] = {
        {120, "20081013150603.000000+120"},
        {-300, "20081013150603.000000-300"},
        {0, "20081013150603.000000+000"},
        {5, "20081013150603.000000+005"},
        {-45, "20081013150603.000000-045"},
        {1000, "20081013150603.000000+1000"},
    };
    for (const auto& c : cases) {
        char szTime[30] = {};
        EXPECT_EQ(FormatEventTime(st, c.lOffset, szTime), S_OK) << c.lOffset;
        EXPECT_STREQ(szTime, c.szExpected);
    }
}

TEST(EventTimeTest, MidnightAndSingleDigitFields)
{
    SYSTEMTIME st = {};
    st.wYear = 2024;
    st.wMonth = 2;
    st.wDay = 29;
    char szTime[30] = {};
    ASSERT_EQ(FormatEventTime(st, -60, szTime), S_OK);
    EXPECT_STREQ(szTime, "20240229000000.000000-060");
}

TEST(EventTimeTest, TextThatDoesNotFitIsAnError)
{
    SYSTEMTIME st = {};
    st.wYear = 2008;
    st.wMonth = 1;
    st.wDay = 1;
    char szTime[30] = "unchanged";
    EXPECT_EQ(FormatEventTime(st, LONG_MIN, szTime), static_cast<HRESULT>(WBEM_E_UNEXPECTED));
    EXPECT_STREQ(szTime, "");
}

}  // namespace
