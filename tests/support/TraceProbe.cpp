// Helper process of the tests.
//   trace_probe write <registry key> <lines> <tag>   configure from HKLM\<key>, write numbered lines
//   trace_probe crash                                crash on purpose
#include <windows.h>

#include "framework/CCQuillTrace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc == 2 && strcmp(argv[1], "crash") == 0) {
        printf("crashing now\n");
        fflush(stdout);
        volatile int* piNowhere = nullptr;
        *piNowhere = 1;
        return 0;
    }
    if (argc != 5 || strcmp(argv[1], "write") != 0) {
        fprintf(stderr, "usage: trace_probe write <key> <lines> <tag> | crash\n");
        return 2;
    }
    CCQuillTrace trace;
    trace.Enable_By_RegKey(HKEY_LOCAL_MACHINE, argv[2], TRACE_FLAG_NO_KEY);
    if (!trace.IsEnabled())
        return 3;
    for (int i = 0; i < atoi(argv[3]); ++i)
        trace.TraceMsg(TRACE_INFO, "TraceProbe::Write", "Internal", argv[4], "line %d of %s", i, argv[4]);
    return 0;
}
