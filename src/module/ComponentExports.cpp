// The host's way to initialise the component: DllInitialize / DllUninitialize.
#include "framework/CCAssembly.h"

#include <new>

extern "C" bool DllInitialize(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
{
    try {
        return GetAssembly().DllInitialize(szFeatureName, szFeatureVersion, szContextName) != 0;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (...) {
        return false;
    }
}

extern "C" bool DllUninitialize()
{
    try {
        GetAssembly().DllUninitialize();
    } catch (const std::bad_alloc&) {
    } catch (...) {
    }
    return true;
}
