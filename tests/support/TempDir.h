// A fresh folder under the Wine user's temp folder, removed with its content.
#pragma once

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

bool FileExists(const std::wstring& wsPath);
std::string Narrow(const std::wstring& ws);  // non-ASCII characters become '?'
std::wstring Widen(const std::string& s);
