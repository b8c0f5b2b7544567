// What the process holds, measured in a way that also works under Wine (whose process counters
// report no private bytes and no handle count): the bytes of every busy block of every heap,
// and the handles that answer GetHandleInformation.
#pragma once

#include <windows.h>

#include <vector>

inline SIZE_T LiveHeapBytes()
{
    std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr) + 16);
    heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
    SIZE_T cbBusy = 0;
    for (HANDLE hHeap : heaps) {
        PROCESS_HEAP_ENTRY entry{};
        if (!HeapLock(hHeap))
            continue;
        while (HeapWalk(hHeap, &entry))
            cbBusy += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) ? entry.cbData : 0;
        HeapUnlock(hHeap);
    }
    return cbBusy;
}

inline DWORD OpenHandles()
{
    DWORD dwCount = 0, dwFlags = 0;
    for (ULONG_PTR u = 4; u < 0x10000; u += 4)
        dwCount += GetHandleInformation(reinterpret_cast<HANDLE>(u), &dwFlags) ? 1 : 0;
    return dwCount;
}
