// The list comparison of the autostart and service kinds: which entries count as equal, with
// duplicates and filtered entries on either side.
#include "notifications/inventory/ListComparison.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::wstring>;
using Indices = std::vector<size_t>;

CEntryFilter FilterOf(const std::set<size_t>& filtered)
{
    return [&filtered](size_t u) { return filtered.count(u) != 0; };
}

TEST(ListComparison, EntriesAreEqualIgnoringTheCaseOfAToZOnly)
{
    const struct {
        const char* szCase;
        Texts current, old;
        std::set<size_t> currentFiltered, oldFiltered;
        Indices added, removed;
    } cases[] = {
        {"case-only change", {L"C:\\Apps\\Tool.exe /Start"}, {L"c:\\apps\\TOOL.EXE /start"}, {}, {}, {}, {}},
        {"A and Z are folded too", {L"Azure.exe /A"}, {L"aZURE.EXE /a"}, {}, {}, {}, {}},
        {"other letters keep their case", {L"\u00C4rger.exe"}, {L"\u00E4rger.exe"}, {}, {}, {0}, {0}},
        {"folding is no bit trick", {L"a[1]@"}, {L"A{1}`"}, {}, {}, {0}, {0}},
        {"changed text", {L"a.exe", L"b.exe /x"}, {L"a.exe", L"b.exe"}, {}, {}, {1}, {1}},
        {"duplicates against one", {L"x", L"X"}, {L"x"}, {}, {}, {}, {}},
        {"duplicates each unmatched", {L"n", L"y", L"n"}, {L"y", L"o", L"O"}, {}, {}, {0, 2}, {1, 2}},
        {"filtered on both sides", {L"keep", L"skip-new"}, {L"gone", L"skip-old"}, {1}, {1}, {0}, {0}},
        {"filtered entries still match", {L"a", L"b"}, {L"A", L"B"}, {0}, {1}, {}, {}},
        {"both empty", {}, {}, {}, {}, {}, {}},
        {"nothing before", {L"a", L""}, {}, {}, {}, {0, 1}, {}},
        {"nothing now", {}, {L"a"}, {}, {}, {}, {0}},
        {"empty text equals empty text", {L""}, {L""}, {}, {}, {}, {}},
    };
    for (const auto& c : cases) {
        const CListChanges changes =
            CompareLists(c.current, c.old, FilterOf(c.currentFiltered), FilterOf(c.oldFiltered));
        EXPECT_EQ(changes.added, c.added) << c.szCase;
        EXPECT_EQ(changes.removed, c.removed) << c.szCase;
        EXPECT_EQ(changes.Empty(), c.added.empty() && c.removed.empty()) << c.szCase;
    }
    EXPECT_EQ(FormatEntries({}, {L"a"}), L"--");
    const std::vector<long> types = {1, 2, 3};
    EXPECT_EQ(FormatEntries({0, 2}, {L"a", L"b", L"c"}, &types), L"a [1], c [3]");
}

}  // namespace
