// The list comparison of the autostart and service kinds: which entries count as equal, and the
// linear comparison giving exactly the results of comparing every pair.
#include "notifications/inventory/ListComparison.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::wstring>;
using Indices = std::vector<size_t>;

// The rule written out plainly: every pair, A to Z folded, every other character as it stands.
CListChanges ComparePairwise(const Texts& current, const Texts& old, const std::set<size_t>& currentFiltered,
                             const std::set<size_t>& oldFiltered)
{
    const auto same = [](const std::wstring& a, const std::wstring& b) {
        const auto fold = [](wchar_t c) { return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c + 32) : c; };
        if (a.size() != b.size())
            return false;
        for (size_t i = 0; i < a.size(); ++i)
            if (fold(a[i]) != fold(b[i]))
                return false;
        return true;
    };
    const auto unmatched = [&](const Texts& entries, const Texts& others, const std::set<size_t>& filtered) {
        Indices result;
        for (size_t i = 0; i < entries.size(); ++i) {
            bool bFound = false;
            for (const std::wstring& other : others)
                bFound = bFound || same(entries[i], other);
            if (!filtered.count(i) && !bFound)
                result.push_back(i);
        }
        return result;
    };
    return {unmatched(current, old, currentFiltered), unmatched(old, current, oldFiltered)};
}

CEntryFilter FilterOf(const std::set<size_t>& filtered)
{
    return [&filtered](size_t u) { return filtered.count(u) != 0; };
}

TEST(ListComparison, EntriesAreEqualIgnoringTheCaseOfAToZOnly)
{
    const struct {
        const char* szCase;
        Texts current;
        Texts old;
        std::set<size_t> currentFiltered;
        std::set<size_t> oldFiltered;
        Indices added;
        Indices removed;
    } cases[] = {
        {"case-only change", {L"C:\\Apps\\Tool.exe /Start"}, {L"c:\\apps\\TOOL.EXE /start"}, {}, {}, {}, {}},
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

TEST(ListComparison, RandomListsGiveThePairwiseResult)
{
    // Few characters, so that equal, case-equal and duplicate entries are common.
    const std::wstring alphabet = L"aAbB[{\u00C4\u00E4";
    std::mt19937 random(20240105);
    const auto text = [&]() {
        std::wstring ws(random() % 3, L' ');
        for (wchar_t& c : ws)
            c = alphabet[random() % alphabet.size()];
        return ws;
    };
    for (int iRound = 0; iRound < 300; ++iRound) {
        Texts current(random() % 25);
        Texts old(random() % 25);
        std::set<size_t> currentFiltered;
        std::set<size_t> oldFiltered;
        for (size_t i = 0; i < current.size(); ++i) {
            current[i] = text();
            if (random() % 6 == 0)
                currentFiltered.insert(i);
        }
        for (size_t i = 0; i < old.size(); ++i) {
            old[i] = text();
            if (random() % 6 == 0)
                oldFiltered.insert(i);
        }
        const CListChanges expected = ComparePairwise(current, old, currentFiltered, oldFiltered);
        const CListChanges changes = CompareLists(current, old, FilterOf(currentFiltered), FilterOf(oldFiltered));
        ASSERT_EQ(changes.added, expected.added) << "round " << iRound;
        ASSERT_EQ(changes.removed, expected.removed) << "round " << iRound;
    }
}

}  // namespace
