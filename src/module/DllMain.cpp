#include <windows.h>

#include "module/CMoradeldllModule.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, LPVOID /*lpReserved*/)
{
    if (dwReason == DLL_PROCESS_ATTACH) {
        _Module.SetInstance(hInstance);
        DisableThreadLibraryCalls(hInstance);
    }
    return TRUE;
}
