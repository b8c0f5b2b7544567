// Helper process of the tests and the demo.
//   trace_probe write <registry key> <lines> <tag>   configure from HKLM\<key>, write numbered lines
//   trace_probe load <dll>                           load and free a DLL
//   trace_probe crash                                crash on purpose
#include <windows.h>

#include "framework/CCQuillTrace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int Write(const char* szKey, int iLines, const char* szTag)
{
    CCQuillTrace trace;
    trace.Enable_By_RegKey(HKEY_LOCAL_MACHINE, szKey, TRACE_FLAG_NO_KEY);
    if (!trace.IsEnabled()) {
        fprintf(stderr, "tracing is not enabled by HKLM\\%s\n", szKey);
        return 2;
    }
    for (int i = 0; i < iLines; ++i)
        trace.TraceMsg(TRACE_INFO, "TraceProbe::Write", "Internal", szTag, "line %d of %s", i, szTag);
    return 0;
}

int Load(const char* szDll)
{
    HMODULE hModule = LoadLibraryA(szDll);
    if (!hModule) {
        fprintf(stderr, "cannot load %s: error %lu\n", szDll, GetLastError());
        return 2;
    }
    printf("loaded %s\n", szDll);
    FreeLibrary(hModule);
    return 0;
}

int Crash()
{
    printf("crashing now\n");
    fflush(stdout);
    volatile int* piNowhere = nullptr;
    *piNowhere = 1;
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 5 && strcmp(argv[1], "write") == 0)
        return Write(argv[2], atoi(argv[3]), argv[4]);
    if (argc == 3 && strcmp(argv[1], "load") == 0)
        return Load(argv[2]);
    if (argc == 2 && strcmp(argv[1], "crash") == 0)
        return Crash();
    fprintf(stderr, "usage: trace_probe write <key> <lines> <tag> | load <dll> | crash\n");
    return 2;
}
