// The order of the threshold tests, unsigned comparison and limit parsing.
#include "core/ThresholdState.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>
#include <vector>

namespace {

TEST(ThresholdStateTest, ClassificationTable)
{
    // Limits in the order LowWarning, LowCritical, HighWarning, HighCritical; -1 counts as the largest value.
    const struct {
        const char* szName;
        CThresholdLimits limits;
        std::vector<std::pair<ULONGLONG, unsigned long>> values;  // current value, expected state
    } rows[] = {
        {"four limits", {10, 5, 80, 90}, {{0, 3}, {5, 3}, {6, 2}, {10, 2}, {11, 1}, {79, 1}, {80, 2}, {89, 2}, {90, 3},
                                          {ULLONG_MAX, 3}}},
        {"only HighCritical", {{}, {}, {}, 90}, {{0, 1}, {89, 1}, {90, 3}, {1000, 3}}},
        {"LowWarning -1", {-1, {}, {}, {}}, {{0, 2}, {ULLONG_MAX, 2}}},
        {"HighCritical -1", {{}, {}, {}, -1}, {{0, 1}, {ULLONG_MAX - 1, 1}, {ULLONG_MAX, 3}}},
        {"HighWarning -1", {{}, {}, -1, {}}, {{ULLONG_MAX, 2}}},
        // A value can be at or below LowCritical and at or above HighWarning: the later test decides.
        {"inconsistent", {{}, 50, 40, {}}, {{45, 2}, {50, 2}, {51, 2}, {39, 3}}},
        {"no limits", {}, {{0, 1}, {ULLONG_MAX, 1}}},
    };
    for (const auto& row : rows)
        for (const auto& [ullCurrent, ulExpected] : row.values)
            EXPECT_EQ(ClassifyThreshold(ullCurrent, row.limits), ulExpected) << row.szName << ", at " << ullCurrent;
}

TEST(ThresholdStateTest, LimitTexts)
{
    const struct { const wchar_t* wszText; LONGLONG llExpected; } rows[] = {
        {L"10", 10}, {L"-1", -1}, {L"+7", 7}, {L" 42", 42}, {L"12abc", 12}, {L"abc", 0}, {L"", 0}, {nullptr, 0},
        {L"9223372036854775807", LLONG_MAX}, {L"-9223372036854775808", LLONG_MIN}, {L"4294967296", 4294967296LL},
    };
    for (const auto& row : rows)
        EXPECT_EQ(ParseThresholdLimit(row.wszText), row.llExpected) << (row.wszText ? row.wszText : L"(null)");
}

}  // namespace
