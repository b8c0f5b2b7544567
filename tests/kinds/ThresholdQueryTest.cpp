// GetThresholdState reading the limits of its notification from KM_Filter in the store.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"

#include <climits>

namespace {

constexpr LONGLONG U = 0x5A5A5A5A5A5ALL;  // not written

class ThresholdQueryTest : public KindTest {
protected:
    // The state, and the four limits as written to LowWarning, LowCritical, HighWarning, HighCritical.
    std::pair<unsigned long, std::vector<LONGLONG>> Classify(unsigned long ulNotfyId, ULONGLONG ullCurrent)
    {
        CNotfyTestKind kind(ulNotfyId);
        EXPECT_EQ(InitKind(kind), S_OK);
        std::vector<LONGLONG> limits(4, U);
        const unsigned long ulState =
            kind.GetThresholdState(ullCurrent, &limits[0], &limits[1], &limits[2], &limits[3]);
        return {ulState, limits};
    }
};

TEST_F(ThresholdQueryTest, ClassifiesWithTheStoredLimitsOfItsId)
{
    LoadMof(LR"(
instance of KM_Filter { Id = 90; LowWarning = "10"; LowCritical = "5"; HighWarning = "80"; HighCritical = "90"; };
instance of KM_Filter { Id = 91; LowWarning = "100"; LowCritical = "50"; HighWarning = "800"; HighCritical = "900"; };
instance of KM_Filter { Id = 92; HighCritical = "90"; };
instance of KM_Filter { Id = 93; LowWarning = "-1"; HighCritical = "-1"; };
instance of KM_Filter { Id = 94; };
)",
            L"root\\oxl1v2\\KM_Notification");
    const struct {
        unsigned long ulId;
        ULONGLONG ullCurrent;
        unsigned long ulState;
        std::vector<LONGLONG> limits;
    } cases[] = {
        {90, 3, 3, {10, 5, 80, 90}}, {90, 7, 2, {10, 5, 80, 90}}, {90, 50, 1, {10, 5, 80, 90}},
        {90, 80, 2, {10, 5, 80, 90}}, {90, 95, 3, {10, 5, 80, 90}},
        {91, 50, 3, {100, 50, 800, 900}},  // another notification's limits
        {92, 89, 1, {U, U, U, 90}}, {92, 90, 3, {U, U, U, 90}}, {92, 0, 1, {U, U, U, 90}},
        // A negative limit compares as the largest value.
        {93, 123456, 2, {-1, U, U, -1}}, {93, ULLONG_MAX, 3, {-1, U, U, -1}},
        {94, 0, 1, {U, U, U, U}},
        {95, 5, 0, {U, U, U, U}},  // no filter: the empty query result counts as a failed query
    };
    for (const auto& c : cases) {
        const auto [ulState, limits] = Classify(c.ulId, c.ullCurrent);
        EXPECT_EQ(ulState, c.ulState) << "id " << c.ulId << " current " << c.ullCurrent;
        EXPECT_EQ(limits, c.limits) << "id " << c.ulId << " current " << c.ullCurrent;
    }
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    EXPECT_EQ(kind.GetThresholdState(80, nullptr, nullptr, nullptr, nullptr), 2u);

    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", nullptr, 0, WBEM_E_ACCESS_DENIED), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    const auto [ulState, limits] = Classify(90, 5);
    EXPECT_EQ(ulState, 0u);
    EXPECT_EQ(limits, std::vector<LONGLONG>(4, U));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Could not get thresholds."));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Method GetThresholdState has been left.", "State: 0"));
}

}  // namespace
