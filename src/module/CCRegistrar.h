// Runs a registry script in the registrar's notation: root keys (HKCR, HKCU, HKLM, HKU), nested
// keys with an optional default value, named values ("val"), and the flags NoRemove, ForceRemove
// and Delete. %NAME% is replaced before parsing, %% stands for one %.
//
// Registering creates every key and writes every value (ForceRemove first deletes the key's
// tree, Delete only deletes it). Unregistering deletes a key with its whole tree unless it is
// marked NoRemove or a NoRemove key lies inside it; then only the script's entries inside it go.
#pragma once

#include <windows.h>

#include <map>
#include <string>

class CCRegistrar {
public:
    void AddReplacement(const std::wstring& wsName, const std::wstring& wsValue);
    // Sends a root key of the script elsewhere (tests use a scratch key instead of HKCR).
    void MapRootKey(HKEY hScriptRoot, HKEY hTarget);

    HRESULT RegisterScript(const std::wstring& wsScript);
    HRESULT UnregisterScript(const std::wstring& wsScript);
    // The script is a resource of hModule with the given id and type (ANSI text).
    HRESULT RunResource(HMODULE hModule, UINT uId, const wchar_t* wszType, bool bRegister);

    // What went wrong in the last failed run ("line 3: ...").
    const std::wstring& GetError() const { return m_wsError; }

private:
    HRESULT Run(const std::wstring& wsScript, bool bRegister);

    std::map<std::wstring, std::wstring> m_replacements;
    std::map<HKEY, HKEY> m_rootMap;
    std::wstring m_wsError;
};
