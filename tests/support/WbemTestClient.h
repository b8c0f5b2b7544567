// Small helpers for tests that talk to a WMI service as a client.
#pragma once

#include "access/ComHolders.h"
#include "access/WbemGuids.h"

#include <wrl/client.h>

#include <string>
#include <vector>

using WbemObjects = std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>>;

// Connects through CoCreateInstance(CLSID_WbemLocator), as an unchanged client does.
HRESULT ConnectWmi(const wchar_t* wszNamespace, Microsoft::WRL::ComPtr<IWbemServices>& pServices,
                   IWbemContext* pContext = nullptr);
// Every object of a WQL query; the query's or the enumeration's failure code.
HRESULT QueryAll(IWbemServices* pServices, const std::wstring& wsQuery, WbemObjects& out);
HRESULT GetObjectByPath(IWbemServices* pServices, const std::wstring& wsPath,
                        Microsoft::WRL::ComPtr<IWbemClassObject>& pObject);
// The instances of a request's VT_ARRAY | VT_VARIANT answer (one dimension, from 0), none when it
// is no array at all; a test failure for an array of another type or shape, or an element no instance.
WbemObjects ReturnedObjects(const CCVariant& value);
// A property as text ("" for NULL; VT_BSTR as is, numbers in decimal).
std::wstring PropertyText(IWbemClassObject* pObject, const wchar_t* wszName);
