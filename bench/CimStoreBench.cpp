// Loads 100,000 instances from MOF text and looks each one up by path, printing times and memory.
#include "cimstore/CimRepository.h"

#include <windows.h>
#include <psapi.h>

#include <cstdio>

using namespace cimstore;

namespace {

constexpr int kInstances = 100000;

double Seconds(const LARGE_INTEGER& start, const LARGE_INTEGER& end)
{
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(end.QuadPart - start.QuadPart) / static_cast<double>(frequency.QuadPart);
}

LARGE_INTEGER Now()
{
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t;
}

double MemoryMiB(bool bPeak)
{
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters)))
        return -1;
    const SIZE_T bytes = bPeak ? counters.PeakWorkingSetSize : counters.WorkingSetSize;
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

std::wstring Key(int i) { return L"svc-" + std::to_wstring(i); }

}  // namespace

int main()
{
    const double baseMiB = MemoryMiB(false);
    std::wstring mof = L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\bench\")\n"
                       L"class Bench_Item\n{\n    [Key] string Name;\n    [Key] uint32 Slot;\n"
                       L"    string Caption;\n    uint64 Bytes;\n    boolean Enabled;\n    string Tags[];\n};\n";
    for (int i = 0; i < kInstances; ++i) {
        mof += L"instance of Bench_Item { Name = \"" + Key(i) + L"\"; Slot = " + std::to_wstring(i % 7) +
               L"; Caption = \"Item number " + std::to_wstring(i) + L"\"; Bytes = " + std::to_wstring(i * 4096ull) +
               L"; Enabled = " + (i % 2 ? L"TRUE" : L"FALSE") + L"; Tags = {\"a\", \"b\"}; };\n";
    }
    const double textMiB = MemoryMiB(false);

    CimRepository repository(L"BENCH");
    LARGE_INTEGER t0 = Now();
    const MofResult result = repository.CompileText(mof, L"bench.mof");
    LARGE_INTEGER t1 = Now();
    if (FAILED(result.hr)) {
        fwprintf(stderr, L"compile failed: %ls\n", result.message.c_str());
        return 1;
    }
    const double loadSeconds = Seconds(t0, t1);
    mof.clear();
    mof.shrink_to_fit();
    const double loadedMiB = MemoryMiB(false);

    // Paths with the keys in the other order and another case, so lookups normalise.
    std::vector<std::wstring> paths;
    paths.reserve(kInstances);
    for (int i = 0; i < kInstances; ++i)
        paths.push_back(L"bench_item.Slot=" + std::to_wstring(i % 7) + L",NAME=\"SVC-" + std::to_wstring(i) + L"\"");
    int misses = 0;
    t0 = Now();
    for (const std::wstring& path : paths) {
        CimInstance instance;
        if (repository.GetInstance(L"root\\bench", path, instance) != S_OK)
            ++misses;
    }
    t1 = Now();
    const double lookupSeconds = Seconds(t0, t1);

    std::vector<CimInstance> results;
    t0 = Now();
    const HRESULT hrQuery = repository.ExecQuery(
        L"root\\bench", L"SELECT * FROM Bench_Item WHERE Bytes > 204800000 AND Enabled = TRUE", results);
    t1 = Now();
    const double querySeconds = Seconds(t0, t1);

    std::wstring text;
    t0 = Now();
    repository.SerializeNamespace(L"root\\bench", false, text);
    t1 = Now();
    const double serializeSeconds = Seconds(t0, t1);

    wprintf(L"instances loaded from MOF text : %d in %.3f s (%.0f instances/s)\n", kInstances, loadSeconds,
            kInstances / loadSeconds);
    wprintf(L"path lookups (GetInstance)     : %d in %.3f s (%.2f us each), misses %d\n", kInstances, lookupSeconds,
            lookupSeconds * 1e6 / kInstances, misses);
    wprintf(L"WQL scan of all instances      : %.3f s, %zu results (hr 0x%08lX)\n", querySeconds, results.size(),
            static_cast<unsigned long>(hrQuery));
    wprintf(L"serialise namespace to MOF     : %.3f s, %zu characters\n", serializeSeconds, text.size());
    wprintf(L"working set: start %.1f MiB, with MOF text %.1f MiB, loaded (text freed) %.1f MiB, peak %.1f MiB\n",
            baseMiB, textMiB, loadedMiB, MemoryMiB(true));
    return misses == 0 && SUCCEEDED(hrQuery) ? 0 : 1;
}
