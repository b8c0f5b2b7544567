// The zone offset of EventTime and its CIM datetime form.
#include "core/CNotificationModify.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

TEST(EventTimeTest, OffsetFromTheZoneAnswer)
{
    const struct { DWORD dwAnswer; LONG lBias, lStandardBias, lDaylightBias; long lExpected; } rows[] = {
        {TIME_ZONE_ID_STANDARD, 300, 0, -60, -300}, {TIME_ZONE_ID_DAYLIGHT, 300, 0, -60, -240},
        {TIME_ZONE_ID_STANDARD, -60, 0, -60, 60},   {TIME_ZONE_ID_DAYLIGHT, -60, 0, -60, 120},
        {TIME_ZONE_ID_STANDARD, 300, 15, -60, -315},
        // An unknown answer takes the daylight bias too.
        {TIME_ZONE_ID_UNKNOWN, 0, 0, -60, 60},      {TIME_ZONE_ID_UNKNOWN, 0, 30, 0, 0},
        {TIME_ZONE_ID_UNKNOWN, 180, 0, -60, -120},  {TIME_ZONE_ID_INVALID, 300, 0, -60, 0},
    };
    for (const auto& row : rows) {
        TIME_ZONE_INFORMATION tzi = {};
        tzi.Bias = row.lBias;
        tzi.StandardBias = row.lStandardBias;
        tzi.DaylightBias = row.lDaylightBias;
        EXPECT_EQ(EventTimeOffset(row.dwAnswer, tzi), row.lExpected)
            << "answer " << row.dwAnswer << ", biases " << row.lBias << "/" << row.lStandardBias << "/"
            << row.lDaylightBias;
    }
}

// The fraction is always zero, the offset has at least three digits; a text that does not fit is an error.
TEST(EventTimeTest, CimDatetimeForm)
{
    const struct {
        WORD wYear, wMonth, wDay, wHour, wMinute, wSecond;
        long lOffset;
        HRESULT hr;
        const char* szTime;
    } rows[] = {
        {2008, 10, 13, 15, 6, 3, 120, S_OK, "20081013150603.000000+120"},
        {2008, 10, 13, 15, 6, 3, -300, S_OK, "20081013150603.000000-300"},
        {2008, 10, 13, 15, 6, 3, 0, S_OK, "20081013150603.000000+000"},
        {2008, 10, 13, 15, 6, 3, 5, S_OK, "20081013150603.000000+005"},
        {2008, 10, 13, 15, 6, 3, -45, S_OK, "20081013150603.000000-045"},
        {2008, 10, 13, 15, 6, 3, 1000, S_OK, "20081013150603.000000+1000"},
        {2024, 2, 29, 0, 0, 0, -60, S_OK, "20240229000000.000000-060"},
        {2008, 1, 1, 0, 0, 0, LONG_MIN, static_cast<HRESULT>(WBEM_E_UNEXPECTED), ""},
    };
    for (const auto& row : rows) {
        const SYSTEMTIME st = {row.wYear, row.wMonth, 0, row.wDay, row.wHour, row.wMinute, row.wSecond, 999};
        char szTime[30] = "unchanged";
        EXPECT_EQ(FormatEventTime(st, row.lOffset, szTime), row.hr) << row.lOffset;
        EXPECT_STREQ(szTime, row.szTime);
    }
}

}  // namespace
