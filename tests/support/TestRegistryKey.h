// A registry key under HKEY_LOCAL_MACHINE that a test fills; deleted with its values.
#pragma once

#include <windows.h>

#include <string>

class TestRegistryKey {
public:
    explicit TestRegistryKey(const std::string& sPath);
    ~TestRegistryKey();
    TestRegistryKey(const TestRegistryKey&) = delete;
    TestRegistryKey& operator=(const TestRegistryKey&) = delete;

    const std::string& Path() const { return m_sPath; }
    void SetDword(const char* szName, DWORD dwValue);
    void SetString(const char* szName, const std::string& sValue, DWORD dwType = REG_SZ);
    void SetBinary(const char* szName, const void* pData, DWORD cbData);

private:
    std::string m_sPath;
    HKEY m_hKey = nullptr;
};
