// Small steps that every notification kind takes on the properties of its event instances.
#pragma once

#include "access/CCWMIAccess.h"

#include <string>
#include <vector>

// Writes a 32-bit integer property.
HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue);

// Writes a text property (VT_BSTR).
HRESULT PutText(CCWMIAccess& access, const char* szProperty, const std::wstring& wsValue);

// Writes EventStatus and EventTextId, each raised with its own text when it fails.
void WriteEventState(CCWMIAccess& event, LONG lStatus, LONG lTextId, const char* szQualifiedName);

// Writes an array of texts (VT_ARRAY | VT_BSTR).
HRESULT PutTextArray(CCWMIAccess& access, const char* szProperty, const std::vector<std::wstring>& texts);

// Reads an integer that arrives as VT_I4 or VT_UI4, as signed 32-bit; another type is WBEM_E_TYPE_MISMATCH.
HRESULT ReadI4(CCWMIAccess& access, const char* szProperty, LONG* plValue);

// Reads a VT_BSTR property; another type is WBEM_E_TYPE_MISMATCH. A null BSTR reads as empty.
HRESULT ReadText(CCWMIAccess& access, const char* szProperty, std::wstring* pwsValue);

// Reads a VT_BOOL property; another type is WBEM_E_TYPE_MISMATCH.
HRESULT ReadBool(CCWMIAccess& access, const char* szProperty, bool* pbValue);

// Reads a VT_ARRAY | VT_BSTR property element by element; another type is WBEM_E_TYPE_MISMATCH.
HRESULT ReadTextArray(CCWMIAccess& access, const char* szProperty, std::vector<std::wstring>* pTexts);

// GetObject with a wide path; a path without a narrow form is WBEM_E_INVALID_OBJECT_PATH.
HRESULT GetObjectAt(CCWMIAccess& access, const wchar_t* wszPath);

// wsText in double quotes, with quotes and backslashes escaped, so that it cannot end the string
// literal of a query or the key of an object path it is put into.
std::wstring QuotedText(const std::wstring& wsText);

// Raises hr, traced with szMessage, when it is a failure.
void RaiseIfFailed(HRESULT hr, const char* szQualifiedName, const char* szMessage);

// Raises a success code that skips the current item, traced at Info because it is no error.
[[noreturn]] void RaiseSkip(HRESULT hr, const char* szQualifiedName, const char* szMessage);

// Traces, at Warning, that a loop over management objects skips the item that failed with hr.
void TraceContinue(const char* szQualifiedName, HRESULT hr);

// The text of a VT_BSTR value as narrow text; empty for any other value.
std::string NarrowText(const VARIANT& value);
