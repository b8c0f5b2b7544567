// Object paths: \\server\namespace:Class.Key="v",Other=5 and Class=@.
#pragma once

#include "cimstore/CimTypes.h"

namespace cimstore {

struct KeyBinding {
    std::wstring name;  // empty for the short form Class="v"
    CimScalar value;    // text for quoted values, number or boolean otherwise
};

struct ObjectPath {
    std::wstring server;
    std::wstring ns;
    std::wstring className;
    std::vector<KeyBinding> keys;
    bool singleton = false;

    bool IsClassPath() const { return !singleton && keys.empty(); }
};

// WBEM_E_INVALID_OBJECT_PATH when text is not a path.
HRESULT ParseObjectPath(std::wstring_view text, ObjectPath& out);

// "text" with backslashes and double quotes escaped, as MOF strings and paths write them.
std::wstring QuoteString(std::wstring_view text);

// Key value as a path shows it: quoted text, bare numbers, TRUE/FALSE.
std::wstring FormatKeyValue(const CimScalar& value, CIMTYPE type);

// Case-insensitive form of a reference for key comparison; the server is ignored.
std::wstring CanonicalReference(std::wstring_view text);

}  // namespace cimstore
