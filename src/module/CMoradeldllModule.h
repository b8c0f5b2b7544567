// The module object: configures tracing at load, counts the module's locks and knows the
// module's instance handle and application id.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

// {0304681A-1D45-4A5E-930F-F14977BCE602}: the application id of the module.
inline constexpr GUID kMoradelAppId = {0x0304681a, 0x1d45, 0x4a5e, {0x93, 0x0f, 0xf1, 0x49, 0x77, 0xbc, 0xe6, 0x02}};

class CMoradeldllModule {
public:
    CMoradeldllModule();
    ~CMoradeldllModule();
    CMoradeldllModule(const CMoradeldllModule&) = delete;
    CMoradeldllModule& operator=(const CMoradeldllModule&) = delete;

    LONG Lock() { return ++m_lLockCount; }
    LONG Unlock() { return --m_lLockCount; }
    LONG GetLockCount() const { return m_lLockCount; }

    void SetInstance(HINSTANCE hInstance) { m_hInstance = hInstance; }
    // The module's own handle, also when DllMain has not run yet (static initialisation).
    HINSTANCE GetInstance() const;
    // Full path of this DLL; empty when it cannot be read.
    std::wstring GetModulePath() const;

private:
    std::atomic<LONG> m_lLockCount{0};
    HINSTANCE m_hInstance = nullptr;
};

extern CMoradeldllModule _Module;
