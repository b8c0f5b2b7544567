// Small steps that every notification kind takes on the properties of its event instances.
#pragma once

#include "access/CCWMIAccess.h"

#include <string>

// Writes a 32-bit integer property.
HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue);

// Raises hr, traced with szMessage, when it is a failure.
void RaiseIfFailed(HRESULT hr, const char* szQualifiedName, const char* szMessage);

// Traces, at Warning, that a loop over management objects skips the item that failed with hr.
void TraceContinue(const char* szQualifiedName, HRESULT hr);

// The text of a VT_BSTR value as narrow text; empty for any other value.
std::string NarrowText(const VARIANT& value);
