#include "TempDir.h"

#include <windows.h>

#include <atomic>

namespace {

void RemoveTree(const std::wstring& wsDir)
{
    WIN32_FIND_DATAW fd;
    const HANDLE hFind = FindFirstFileW((wsDir + L"\\*").c_str(), &fd);
    for (bool bMore = hFind != INVALID_HANDLE_VALUE; bMore; bMore = FindNextFileW(hFind, &fd)) {
        const std::wstring wsName = fd.cFileName;
        if (wsName == L"." || wsName == L"..")
            continue;
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            RemoveTree(wsDir + L"\\" + wsName);
        else
            DeleteFileW((wsDir + L"\\" + wsName).c_str());
    }
    if (hFind != INVALID_HANDLE_VALUE)
        FindClose(hFind);
    RemoveDirectoryW(wsDir.c_str());
}

}  // namespace

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
    RemoveTree(m_wsPath);
}

bool FileExists(const std::wstring& wsPath)
{
    return GetFileAttributesW(wsPath.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string Narrow(const std::wstring& ws)
{
    std::string s;
    for (wchar_t wc : ws)
        s += wc < 0x80 ? static_cast<char>(wc) : '?';
    return s;
}

std::wstring Widen(const std::string& s)
{
    return std::wstring(s.begin(), s.end());
}
