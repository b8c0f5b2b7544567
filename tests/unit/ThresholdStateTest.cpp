// The order of the threshold tests, unsigned comparison and limit parsing.
#include "core/ThresholdState.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

struct ThresholdCase {
    const char* szName;
    CThresholdLimits limits;
    ULONGLONG ullCurrent;
    unsigned long ulExpected;
};

TEST(ThresholdStateTest, ClassificationTable)
{
    const CThresholdLimits four = {10, 5, 80, 90};
    CThresholdLimits onlyHighCritical;
    onlyHighCritical.llHighCritical = 90;
    CThresholdLimits lowWarningMinusOne;
    lowWarningMinusOne.llLowWarning = -1;
    CThresholdLimits highCriticalMinusOne;
    highCriticalMinusOne.llHighCritical = -1;
    CThresholdLimits highWarningMinusOne;
    highWarningMinusOne.llHighWarning = -1;
    CThresholdLimits inconsistent;  // a value can be at or below LowCritical and at or above HighWarning
    inconsistent.llLowCritical = 50;
    inconsistent.llHighWarning = 40;

    const ThresholdCase cases[] = {
        {"four limits", four, 0, 3},
        {"four limits", four, 3, 3},
        {"four limits", four, 5, 3},
        {"four limits", four, 6, 2},
        {"four limits", four, 7, 2},
        {"four limits", four, 10, 2},
        {"four limits", four, 11, 1},
        {"four limits", four, 50, 1},
        {"four limits", four, 79, 1},
        {"four limits", four, 80, 2},
        {"four limits", four, 85, 2},
        {"four limits", four, 89, 2},
        {"four limits", four, 90, 3},
        {"four limits", four, 95, 3},
        {"four limits", four, ULLONG_MAX, 3},
        {"only HighCritical", onlyHighCritical, 0, 1},
        {"only HighCritical", onlyHighCritical, 89, 1},
        {"only HighCritical", onlyHighCritical, 90, 3},
        {"only HighCritical", onlyHighCritical, 1000, 3},
        {"LowWarning -1", lowWarningMinusOne, 0, 2},
        {"LowWarning -1", lowWarningMinusOne, ULLONG_MAX, 2},
        {"HighCritical -1", highCriticalMinusOne, 0, 1},
        {"HighCritical -1", highCriticalMinusOne, ULLONG_MAX - 1, 1},
        {"HighCritical -1", highCriticalMinusOne, ULLONG_MAX, 3},
        {"HighWarning -1", highWarningMinusOne, ULLONG_MAX, 2},
        {"later test decides", inconsistent, 45, 2},
        {"later test decides", inconsistent, 50, 2},
        {"later test decides", inconsistent, 51, 2},
        {"later test decides", inconsistent, 39, 3},
        {"no limits", CThresholdLimits{}, 0, 1},
        {"no limits", CThresholdLimits{}, ULLONG_MAX, 1},
    };
    for (const ThresholdCase& c : cases)
        EXPECT_EQ(ClassifyThreshold(c.ullCurrent, c.limits), c.ulExpected) << c.szName << ", current " << c.ullCurrent;
}

TEST(ThresholdStateTest, LimitTexts)
{
    const struct {
        const wchar_t* wszText;
        LONGLONG llExpected;
    } cases[] = {
        {L"10", 10},
        {L"-1", -1},
        {L"+7", 7},
        {L" 42", 42},
        {L"12abc", 12},
        {L"abc", 0},
        {L"", 0},
        {nullptr, 0},
        {L"9223372036854775807", LLONG_MAX},
        {L"-9223372036854775808", LLONG_MIN},
        {L"4294967296", 4294967296LL},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ParseThresholdLimit(c.wszText), c.llExpected) << (c.wszText ? c.wszText : L"(null)");
}

}  // namespace
