#include "CommonKeyValues.h"

#include <gtest/gtest.h>

CommonKeyValues::CommonKeyValues() : m_hMutex(CreateMutexA(nullptr, FALSE, "MoradelTests_CommonKey"))
{
    WaitForSingleObject(m_hMutex, INFINITE);
    RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Tessaline Systems\\Common", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                    &m_hKey, nullptr);
    for (Saved& saved : m_saved) {
        DWORD cb = 0;
        if (RegQueryValueExA(m_hKey, saved.szName, nullptr, &saved.dwType, nullptr, &cb) == ERROR_SUCCESS) {
            saved.data.emplace(cb, '\0');
            RegQueryValueExA(m_hKey, saved.szName, nullptr, nullptr, reinterpret_cast<BYTE*>(saved.data->data()), &cb);
        }
    }
}

CommonKeyValues::~CommonKeyValues()
{
    for (const Saved& saved : m_saved)
        if (saved.data)
            RegSetValueExA(m_hKey, saved.szName, 0, saved.dwType, reinterpret_cast<const BYTE*>(saved.data->data()),
                           static_cast<DWORD>(saved.data->size()));
        else
            RegDeleteValueA(m_hKey, saved.szName);
    RegCloseKey(m_hKey);
    ReleaseMutex(m_hMutex);
    CloseHandle(m_hMutex);
}

void CommonKeyValues::Set(const char* szName, const std::string& sValue, DWORD dwType)
{
    ASSERT_EQ(RegSetValueExA(m_hKey, szName, 0, dwType, reinterpret_cast<const BYTE*>(sValue.c_str()),
                             static_cast<DWORD>(sValue.size() + 1)),
              ERROR_SUCCESS);
}
