// GetThresholdState reading the limits of its notification from KM_Filter in the store.
#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "core/ThresholdState.h"

#include <climits>
#include <string>

namespace {

constexpr LONGLONG kUnwritten = 0x5A5A5A5A5A5ALL;

class ThresholdQueryTest : public KindTest {
protected:
    void LoadFilter(const std::wstring& wsMof) { LoadMof(wsMof, L"root\\oxl1v2\\KM_Notification"); }

    struct Result {
        unsigned long ulState;
        LONGLONG ll[4];
    };

    Result Classify(ULONGLONG ullCurrent, unsigned long ulNotfyId = kTestKindId)
    {
        CNotfyTestKind kind(ulNotfyId);
        EXPECT_EQ(InitKind(kind), S_OK);
        Result result = {0, {kUnwritten, kUnwritten, kUnwritten, kUnwritten}};
        result.ulState =
            kind.GetThresholdState(ullCurrent, &result.ll[0], &result.ll[1], &result.ll[2], &result.ll[3]);
        return result;
    }
};

TEST_F(ThresholdQueryTest, ClassifiesAgainstTheLimitsOfItsOwnId)
{
    LoadFilter(LR"(
instance of KM_Filter { Id = 90; LowWarning = "10"; LowCritical = "5"; HighWarning = "80"; HighCritical = "90"; };
instance of KM_Filter { Id = 91; LowWarning = "100"; LowCritical = "50"; HighWarning = "800"; HighCritical = "900"; };
)");
    const struct {
        ULONGLONG ullCurrent;
        unsigned long ulState;
    } cases[] = {{3, 3}, {7, 2}, {50, 1}, {85, 2}, {95, 3}};
    for (const auto& c : cases) {
        const Result r = Classify(c.ullCurrent);
        EXPECT_EQ(r.ulState, c.ulState) << "current " << c.ullCurrent;
        EXPECT_EQ(r.ll[0], 10);
        EXPECT_EQ(r.ll[1], 5);
        EXPECT_EQ(r.ll[2], 80);
        EXPECT_EQ(r.ll[3], 90);
    }
    // The other notification's limits: 50 is critical there.
    EXPECT_EQ(Classify(50, 91).ulState, 3u);
}

TEST_F(ThresholdQueryTest, AbsentLimitsTakeNoPartAndAreNotWritten)
{
    LoadFilter(L"instance of KM_Filter { Id = 90; HighCritical = \"90\"; };");
    const Result below = Classify(89);
    EXPECT_EQ(below.ulState, 1u);
    EXPECT_EQ(below.ll[0], kUnwritten);
    EXPECT_EQ(below.ll[1], kUnwritten);
    EXPECT_EQ(below.ll[2], kUnwritten);
    EXPECT_EQ(below.ll[3], 90);
    EXPECT_EQ(Classify(90).ulState, 3u);
    EXPECT_EQ(Classify(0).ulState, 1u);
}

TEST_F(ThresholdQueryTest, NegativeStoredLimitCountsAsTheLargestValue)
{
    LoadFilter(L"instance of KM_Filter { Id = 90; LowWarning = \"-1\"; HighCritical = \"-1\"; };");
    const Result r = Classify(123456);
    EXPECT_EQ(r.ulState, 2u);
    EXPECT_EQ(r.ll[0], -1);
    EXPECT_EQ(r.ll[3], -1);
    EXPECT_EQ(Classify(ULLONG_MAX).ulState, 3u);
}

TEST_F(ThresholdQueryTest, FilterWithoutLimitsIsNormal)
{
    LoadFilter(L"instance of KM_Filter { Id = 90; };");
    const Result r = Classify(0);
    EXPECT_EQ(r.ulState, 1u);
    for (LONGLONG ll : r.ll)
        EXPECT_EQ(ll, kUnwritten);
}

TEST_F(ThresholdQueryTest, NoFilterClassMeansNoLimits)
{
    // A namespace whose schema lacks KM_Filter.
    LoadMof(LR"(#pragma namespace("\\\\.\\root\\oxl1v2\\KM_NoFilter")
class KM_Other { [Key] uint32 Id; };)");
    CCWMIAccess other;
    ASSERT_EQ(other.ConnectToNamespace("root\\oxl1v2\\KM_NoFilter", -1, nullptr), S_OK);
    CNotfyTestKind kind;
    const CNotfyNames names = {"F", "V", "C"};
    ASSERT_EQ(kind.Init(other, &names), S_OK);
    const size_t uMark = GlobalTraceLog::Get().Mark();
    LONGLONG ll[4] = {kUnwritten, kUnwritten, kUnwritten, kUnwritten};
    EXPECT_EQ(kind.GetThresholdState(5, &ll[0], &ll[1], &ll[2], &ll[3]), 0u);
    for (LONGLONG l : ll)
        EXPECT_EQ(l, kUnwritten);
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Could not get thresholds."));
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(uMark, "Method GetThresholdState has been left.", "State: 0"));
}

TEST_F(ThresholdQueryTest, NoFilterForTheIdMeansNoLimits)
{
    // An empty query result counts as a failed query (the access layer reports no data).
    LoadFilter(L"instance of KM_Filter { Id = 91; HighCritical = \"1\"; };");
    EXPECT_EQ(Classify(5).ulState, 0u);
}

TEST_F(ThresholdQueryTest, NullOutPointersAreAllowed)
{
    LoadFilter(L"instance of KM_Filter { Id = 90; LowWarning = \"10\"; HighWarning = \"80\"; };");
    CNotfyTestKind kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    EXPECT_EQ(kind.GetThresholdState(80, nullptr, nullptr, nullptr, nullptr), 2u);
}

TEST_F(ThresholdQueryTest, QueryFailureMeansNoLimits)
{
    LoadFilter(L"instance of KM_Filter { Id = 90; HighCritical = \"1\"; };");
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", nullptr, 0, WBEM_E_ACCESS_DENIED), S_OK);
    EXPECT_EQ(Classify(5).ulState, 0u);
}

}  // namespace
