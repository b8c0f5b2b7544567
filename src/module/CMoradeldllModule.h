// The module object: configures tracing at load and counts the module's locks.
#pragma once

#include <windows.h>

#include <atomic>

class CMoradeldllModule {
public:
    CMoradeldllModule();
    ~CMoradeldllModule();
    CMoradeldllModule(const CMoradeldllModule&) = delete;
    CMoradeldllModule& operator=(const CMoradeldllModule&) = delete;

    LONG Lock() { return ++m_lLockCount; }
    LONG Unlock() { return --m_lLockCount; }
    LONG GetLockCount() const { return m_lLockCount; }

private:
    std::atomic<LONG> m_lLockCount{0};
};

extern CMoradeldllModule _Module;
