#include "TestRegistryKey.h"

#include <gtest/gtest.h>

TestRegistryKey::TestRegistryKey(const std::string& sPath) : m_sPath(sPath)
{
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, m_sPath.c_str());
    const LONG lError =
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, m_sPath.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_hKey, nullptr);
    EXPECT_EQ(lError, ERROR_SUCCESS) << m_sPath;
}

TestRegistryKey::~TestRegistryKey()
{
    if (m_hKey)
        RegCloseKey(m_hKey);
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, m_sPath.c_str());
}

void TestRegistryKey::SetRaw(const char* szName, DWORD dwType, const void* pData, DWORD cbData)
{
    EXPECT_EQ(RegSetValueExA(m_hKey, szName, 0, dwType, static_cast<const BYTE*>(pData), cbData), ERROR_SUCCESS)
        << szName;
}
