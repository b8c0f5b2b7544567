// Raising a failure inside a method and turning it back into its HRESULT at the method's end.
#pragma once

#include <windows.h>

#include <new>

// Carries an HRESULT from the failing step to the end of the method; also used for
// private success codes such as "skip this item".
struct HResultError {
    HRESULT hr;
};

// Traces szMessage (with the formatted details) at Error level under "Exception" and throws.
[[noreturn]] void RaiseHr(HRESULT hr, const char* szQualifiedName, const char* szMessage, const char* szFormat, ...);

// Runs body and returns its HRESULT; a raised HResultError gives its code,
// std::bad_alloc E_OUTOFMEMORY and anything else E_UNEXPECTED.
template <class Body>
HRESULT CatchHr(Body&& body) noexcept
{
    try {
        return body();
    } catch (const HResultError& error) {
        return error.hr;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}
