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
    void SetDword(const char* szName, DWORD dwValue) { SetRaw(szName, REG_DWORD, &dwValue, sizeof(dwValue)); }
    void SetString(const char* szName, const std::string& sValue, DWORD dwType = REG_SZ)
    {
        SetRaw(szName, dwType, sValue.c_str(), static_cast<DWORD>(sValue.size() + 1));
    }
    void SetBinary(const char* szName, const void* pData, DWORD cbData) { SetRaw(szName, REG_BINARY, pData, cbData); }

private:
    void SetRaw(const char* szName, DWORD dwType, const void* pData, DWORD cbData);

    std::string m_sPath;
    HKEY m_hKey = nullptr;
};
