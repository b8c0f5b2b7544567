// Shared plumbing of CimStore's COM objects: the live object count and reference counting.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include "framework/HResultError.h"

#include <atomic>

namespace cimstore::com {

// Objects (and server locks) alive in this DLL; tests read it to prove a request leaks nothing.
std::atomic<long>& LiveObjects();
std::atomic<long>& ServerLocks();

// Counts the object as alive for as long as it exists.
class CountedObject {
protected:
    CountedObject() { ++LiveObjects(); }
    ~CountedObject() { --LiveObjects(); }
    CountedObject(const CountedObject&) { ++LiveObjects(); }
    CountedObject& operator=(const CountedObject&) = default;
};

// AddRef/Release over an atomic count; the object deletes itself at zero.
#define CIMSTORE_IMPLEMENT_REFCOUNT()                                                                                 \
public:                                                                                                               \
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_cRef; }                                                    \
    ULONG STDMETHODCALLTYPE Release() override                                                                        \
    {                                                                                                                 \
        const ULONG cRef = --m_cRef;                                                                                  \
        if (cRef == 0)                                                                                                \
            delete this;                                                                                              \
        return cRef;                                                                                                  \
    }                                                                                                                 \
                                                                                                                      \
private:                                                                                                              \
    std::atomic<ULONG> m_cRef{1};

}  // namespace cimstore::com
