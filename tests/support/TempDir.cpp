#include "TempDir.h"

#include <atomic>
#include <filesystem>

TempDir::TempDir()
{
    static std::atomic<unsigned> s_uCounter{0};
    wchar_t wszTemp[MAX_PATH];
    GetTempPathW(MAX_PATH, wszTemp);
    m_wsPath = std::wstring(wszTemp) + L"moradel_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
               std::to_wstring(s_uCounter++) + L"_" + std::to_wstring(GetTickCount());
    CreateDirectoryW(m_wsPath.c_str(), nullptr);
}

TempDir::~TempDir()
{
    std::error_code error;  // what cannot be removed stays
    std::filesystem::remove_all(m_wsPath, error);
}

std::string Narrow(const std::wstring& ws)
{
    std::string s;
    for (wchar_t wc : ws)
        s += wc < 0x80 ? static_cast<char>(wc) : '?';
    return s;
}
