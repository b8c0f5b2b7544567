// The values of HKLM\SOFTWARE\Tessaline Systems\Common that component initialisation reads
// (DependencyTables, ComponentRoot): saved on construction, put back on destruction. A named
// mutex keeps test processes that share the prefix from overwriting each other's values.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

class CommonKeyValues {
public:
    CommonKeyValues();
    ~CommonKeyValues();
    CommonKeyValues(const CommonKeyValues&) = delete;
    CommonKeyValues& operator=(const CommonKeyValues&) = delete;

    void Set(const char* szName, const std::string& sValue, DWORD dwType = REG_SZ);
    void Remove(const char* szName) { RegDeleteValueA(m_hKey, szName); }

private:
    struct Saved { const char* szName; DWORD dwType = 0; std::optional<std::string> data; };
    HANDLE m_hMutex;
    HKEY m_hKey = nullptr;
    Saved m_saved[2] = {{"DependencyTables", 0, std::nullopt}, {"ComponentRoot", 0, std::nullopt}};
};
