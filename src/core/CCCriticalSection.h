// A Win32 critical section owned by one object, with a scope lock.
#pragma once

#include <windows.h>

class CCCriticalSection {
public:
    CCCriticalSection() { InitializeCriticalSection(&m_section); }
    ~CCCriticalSection() { DeleteCriticalSection(&m_section); }
    CCCriticalSection(const CCCriticalSection&) = delete;
    CCCriticalSection& operator=(const CCCriticalSection&) = delete;

    void Enter() { EnterCriticalSection(&m_section); }
    void Leave() { LeaveCriticalSection(&m_section); }

    class Lock {
    public:
        explicit Lock(CCCriticalSection& section) : m_section(section) { m_section.Enter(); }
        ~Lock() { m_section.Leave(); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        CCCriticalSection& m_section;
    };

private:
    CRITICAL_SECTION m_section;
};
