// Cost of one trace line: filtered out by level (tracing on, level too low), written to the
// UTF-16 file, and with tracing switched off. Run by hand under Wine; see RESULTS.md.
#include "framework/CCQuillTrace.h"

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

double Seconds(const LARGE_INTEGER& start, const LARGE_INTEGER& end)
{
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(end.QuadPart - start.QuadPart) / static_cast<double>(frequency.QuadPart);
}

template <class Body>
double PerLine(int iLines, Body&& body)
{
    LARGE_INTEGER start;
    LARGE_INTEGER end;
    QueryPerformanceCounter(&start);
    for (int i = 0; i < iLines; ++i)
        body(i);
    QueryPerformanceCounter(&end);
    return Seconds(start, end) / iLines;
}

}  // namespace

int main()
{
    const char szKey[] = "Software\\Tessaline Systems\\Common\\Tracing\\Bench";
    wchar_t wszTemp[MAX_PATH];
    GetTempPathW(MAX_PATH, wszTemp);
    const std::wstring wsFile = std::wstring(wszTemp) + L"moradel_bench.trc";
    DeleteFileW(wsFile.c_str());
    char szFile[MAX_PATH];
    WideCharToMultiByte(CP_ACP, 0, wsFile.c_str(), -1, szFile, MAX_PATH, nullptr, nullptr);

    HKEY hKey = nullptr;
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, szKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr);
    const DWORD dwOne = 1;
    const DWORD dwLevel = TRACE_INFO;
    RegSetValueExA(hKey, "Trace", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwOne), sizeof(dwOne));
    RegSetValueExA(hKey, "TraceLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwLevel), sizeof(dwLevel));
    RegSetValueExA(hKey, "TraceFile", 0, REG_SZ, reinterpret_cast<const BYTE*>(szFile),
                   static_cast<DWORD>(strlen(szFile) + 1));
    RegCloseKey(hKey);

    CCQuillTrace on;
    on.Enable_By_RegKey(HKEY_LOCAL_MACHINE, szKey, TRACE_FLAG_NO_KEY);
    CCQuillTrace off;
    const double dOff = PerLine(10000000, [&](int i) {
        off.TraceMsg(TRACE_INFO, "CNotfyBase::GetInstances", "Enter", "Method GetInstances has been entered.", "%d", i);
    });
    const double dFiltered = PerLine(10000000, [&](int i) {
        on.TraceMsg(TRACE_INFO_CC, "CCWMIAccess::GetProperty", "Enter", "Method GetProperty has been entered.",
                    "szPropertyName: %s, lMapOffset: %d", "Name", i);
    });
    const double dWritten = PerLine(20000, [&](int i) {
        on.TraceMsg(TRACE_INFO, "CNotfyBase::GetInstances", "Enter", "Method GetInstances has been entered.",
                    "ulNotfyId: %d", i);
    });
    printf("tracing off:          %8.1f ns per call\n", dOff * 1e9);
    printf("level filtered out:   %8.1f ns per call\n", dFiltered * 1e9);
    printf("line written to file: %8.1f us per line\n", dWritten * 1e6);
    DeleteFileW(wsFile.c_str());
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, szKey);
    return 0;
}
