// WMI client declarations, with what mingw-w64's headers leave out.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#if defined(__MINGW32__)
// Defined in wbemuuid, but not declared by mingw-w64's wbemcli.h.
extern "C" const CLSID CLSID_WbemAdministrativeLocator;
#endif
