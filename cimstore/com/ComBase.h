// Shared plumbing of CimStore's COM objects: the live object count and reference counting.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>
#include <new>

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

// The exception-free edge of every COM method: bad_alloc becomes E_OUTOFMEMORY, anything else E_UNEXPECTED.
template <class Body>
HRESULT Guard(Body&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

}  // namespace cimstore::com
