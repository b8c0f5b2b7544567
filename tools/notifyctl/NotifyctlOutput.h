// What one notifyctl request produced, and its three printed forms.
#pragma once

#include "access/WbemGuids.h"

#include <windows.h>
#include <wrl/client.h>

#include <string>
#include <vector>

enum class OutputFormat { Table, Mof, Json };

struct RequestResult {
    ULONG ulId = 0;
    HRESULT hr = S_OK;
    ULONG ulReturnValue = 0;
    bool bHasInstances = false;  // get and cycle
    std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>> instances;
    bool bCycle = false;
    std::vector<std::wstring> stored;  // relative paths of the instances put
    HRESULT hrStore = S_OK;            // first failed PutInstance, if any
    HRESULT hrDelete = S_OK;
    ULONG ulDeleteReturnValue = 0;
    bool bDeleteRan = false;

    bool Succeeded() const { return SUCCEEDED(hr) && SUCCEEDED(hrStore) && SUCCEEDED(hrDelete); }
};

std::string Utf8(const std::wstring& ws);
std::string HexHr(HRESULT hr);
// The value as JSON: numbers, strings, booleans, arrays, null.
std::string JsonValue(const VARIANT& value);
std::string JsonString(const std::wstring& ws);
bool HasNoPut(IWbemClassObject* pObject);

std::string FormatResults(const std::vector<RequestResult>& results, OutputFormat format);
