#include "TestRegistryKey.h"

#include <gtest/gtest.h>

TestRegistryKey::TestRegistryKey(const std::string& sPath) : m_sPath(sPath)
{
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, m_sPath.c_str());
    const LONG lResult = RegCreateKeyExA(HKEY_LOCAL_MACHINE, m_sPath.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                         nullptr, &m_hKey, nullptr);
    EXPECT_EQ(lResult, ERROR_SUCCESS) << m_sPath;
}

TestRegistryKey::~TestRegistryKey()
{
    if (m_hKey)
        RegCloseKey(m_hKey);
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, m_sPath.c_str());
}

void TestRegistryKey::SetDword(const char* szName, DWORD dwValue)
{
    EXPECT_EQ(RegSetValueExA(m_hKey, szName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue), sizeof(dwValue)),
              ERROR_SUCCESS);
}

void TestRegistryKey::SetString(const char* szName, const std::string& sValue, DWORD dwType)
{
    EXPECT_EQ(RegSetValueExA(m_hKey, szName, 0, dwType, reinterpret_cast<const BYTE*>(sValue.c_str()),
                             static_cast<DWORD>(sValue.size() + 1)),
              ERROR_SUCCESS);
}

void TestRegistryKey::SetBinary(const char* szName, const void* pData, DWORD cbData)
{
    EXPECT_EQ(RegSetValueExA(m_hKey, szName, 0, REG_BINARY, static_cast<const BYTE*>(pData), cbData), ERROR_SUCCESS);
}
