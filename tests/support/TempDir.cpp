#include "TempDir.h"

#include <windows.h>

#include <atomic>
#include <cstdio>

namespace {

void RemoveTree(const std::wstring& wsDir)
{
    WIN32_FIND_DATAW fd;
    HANDLE hFind = FindFirstFileW((wsDir + L"\\*").c_str(), &fd);
    if (hFind != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring wsName = fd.cFileName;
            if (wsName == L"." || wsName == L"..")
                continue;
            const std::wstring wsPath = wsDir + L"\\" + wsName;
            if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(wsPath);
            else
                DeleteFileW(wsPath.c_str());
        } while (FindNextFileW(hFind, &fd));
        FindClose(hFind);
    }
    RemoveDirectoryW(wsDir.c_str());
}

}  // namespace

TempDir::TempDir()
{
    static std::atomic<unsigned> s_uCounter{0};
    wchar_t wszTemp[MAX_PATH];
    GetTempPathW(MAX_PATH, wszTemp);
    wchar_t wszName[64];
    swprintf(wszName, 64, L"moradel_%lu_%u_%lu", GetCurrentProcessId(), s_uCounter++, GetTickCount());
    m_wsPath = std::wstring(wszTemp) + wszName;
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
