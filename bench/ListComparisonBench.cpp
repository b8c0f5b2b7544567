// Cost of the list comparison of the autostart and service kinds for 10,000 entries against 10,000,
// some added, removed or changed in case only; the result is first checked against the pairwise
// rule on a sample. Run by hand under Wine; see RESULTS.md.
#include "notifications/inventory/ListComparison.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr size_t kEntries = 10000;
constexpr size_t kSample = 2000;
constexpr int kRuns = 20;

double Milliseconds(const LARGE_INTEGER& start, const LARGE_INTEGER& end)
{
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return 1000.0 * static_cast<double>(end.QuadPart - start.QuadPart) / static_cast<double>(frequency.QuadPart);
}

template <class Body>
double BestOf(int iRuns, Body&& body)
{
    double dBest = 1e300;
    for (int i = 0; i < iRuns; ++i) {
        LARGE_INTEGER start;
        LARGE_INTEGER end;
        QueryPerformanceCounter(&start);
        body();
        QueryPerformanceCounter(&end);
        dBest = std::min(dBest, Milliseconds(start, end));
    }
    return dBest;
}

std::wstring Command(size_t u)
{
    return L"\"C:\\Program Files\\Vendor " + std::to_wstring(u % 977) + L"\\Tool" + std::to_wstring(u) +
           L".exe\" /background /profile=Default";
}

std::wstring UpperAToZ(std::wstring ws)
{
    for (wchar_t& c : ws)
        if (c >= L'a' && c <= L'z')
            c = static_cast<wchar_t>(c - L'a' + L'A');
    return ws;
}

CListChanges Pairwise(const std::vector<std::wstring>& current, const std::vector<std::wstring>& old)
{
    const auto unmatched = [](const std::vector<std::wstring>& entries, const std::vector<std::wstring>& others) {
        std::vector<size_t> result;
        for (size_t u = 0; u < entries.size(); ++u)
            if (std::none_of(others.begin(), others.end(),
                             [&](const std::wstring& other) { return IsSameEntry(entries[u], other); }))
                result.push_back(u);
        return result;
    };
    return {unmatched(current, old), unmatched(old, current)};
}

}  // namespace

int main()
{
    // Old: 10,000 commands. Current: every 50th gone, every 10th in upper case, 200 new ones spread in.
    std::vector<std::wstring> old;
    std::vector<std::wstring> current;
    size_t uNew = kEntries;
    for (size_t u = 0; u < kEntries; ++u) {
        old.push_back(Command(u));
        if (u % 50 == 7)
            current.push_back(Command(uNew++));
        else
            current.push_back(u % 10 == 3 ? UpperAToZ(Command(u)) : Command(u));
    }
    const size_t uExpected = uNew - kEntries;

    const std::vector<std::wstring> currentSample(current.begin(), current.begin() + kSample);
    const std::vector<std::wstring> oldSample(old.begin(), old.begin() + kSample);
    CListChanges reference;
    const double dPairwise = BestOf(1, [&] { reference = Pairwise(currentSample, oldSample); });
    const CListChanges sample = CompareLists(currentSample, oldSample);
    if (sample.added != reference.added || sample.removed != reference.removed) {
        printf("MISMATCH with the pairwise rule on the sample\n");
        return 1;
    }

    CListChanges changes;
    const double dPlain = BestOf(kRuns, [&] { changes = CompareLists(current, old); });
    if (changes.added.size() != uExpected || changes.removed.size() != uExpected) {
        printf("MISMATCH: %zu added, %zu removed, %zu expected each\n", changes.added.size(), changes.removed.size(),
               uExpected);
        return 1;
    }
    const CEntryFilter noneFiltered = [](size_t) { return false; };
    const double dFiltered = BestOf(kRuns, [&] { changes = CompareLists(current, old, noneFiltered, noneFiltered); });

    printf("pairwise rule, %zu vs %zu (sample, same result): %8.2f ms\n", kSample, kSample, dPairwise);
    printf("%zu vs %zu entries, %zu added, %zu removed:  %8.2f ms (best of %d)\n", kEntries, kEntries, uExpected,
           uExpected, dPlain, kRuns);
    printf("the same with an entry filter on both sides:  %8.2f ms (best of %d)\n", dFiltered, kRuns);
    return 0;
}
