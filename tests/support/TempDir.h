// A fresh folder under the Wine user's temp folder, removed with its content.
#pragma once

#include <windows.h>

#include <string>

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::wstring& Path() const { return m_wsPath; }
    std::wstring File(const std::wstring& wsName) const { return m_wsPath + L"\\" + wsName; }

private:
    std::wstring m_wsPath;
};

inline bool FileExists(const std::wstring& ws) { return GetFileAttributesW(ws.c_str()) != INVALID_FILE_ATTRIBUTES; }
std::string Narrow(const std::wstring& ws);  // non-ASCII characters become '?'
inline std::wstring Widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }
