#include "cimstore/RepositoryFolder.h"

#include <algorithm>

namespace cimstore {

namespace {

class FindHandle {
public:
    explicit FindHandle(HANDLE h) : m_h(h) {}
    ~FindHandle()
    {
        if (m_h != INVALID_HANDLE_VALUE)
            FindClose(m_h);
    }
    FindHandle(const FindHandle&) = delete;
    FindHandle& operator=(const FindHandle&) = delete;
    HANDLE Get() const { return m_h; }

private:
    HANDLE m_h;
};

class WriteHandle {
public:
    explicit WriteHandle(HANDLE h) : m_h(h) {}
    ~WriteHandle() { Close(); }
    WriteHandle(const WriteHandle&) = delete;
    WriteHandle& operator=(const WriteHandle&) = delete;
    HANDLE Get() const { return m_h; }
    bool Close()
    {
        const bool bOk = m_h == INVALID_HANDLE_VALUE || CloseHandle(m_h);
        m_h = INVALID_HANDLE_VALUE;
        return bOk;
    }

private:
    HANDLE m_h;
};

std::wstring Join(std::wstring_view wsFolder, std::wstring_view wsName)
{
    std::wstring out(wsFolder);
    if (!out.empty() && out.back() != L'\\' && out.back() != L'/')
        out.push_back(L'\\');
    return out + std::wstring(wsName);
}

}  // namespace

MofResult LoadRepositoryFolder(CimRepository& repository, std::wstring_view wsFolder, std::wstring_view wsNamespace)
{
    MofResult result;
    std::vector<std::wstring> names;
    bool bState = false;
    WIN32_FIND_DATAW data{};
    FindHandle find(FindFirstFileW(Join(wsFolder, L"*.mof").c_str(), &data));
    if (find.Get() == INVALID_HANDLE_VALUE) {
        const DWORD dwError = GetLastError();
        if (dwError != ERROR_FILE_NOT_FOUND) {
            result.hr = HRESULT_FROM_WIN32(dwError);
            result.message = std::wstring(wsFolder) + L": cannot list the folder";
            return result;
        }
    } else {
        do {
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                continue;
            const std::wstring name = data.cFileName;
            // "*.mof" also matches names like "a.mofx" through 8.3 aliases.
            if (name.size() < 4 || !EqualsNoCase(name.substr(name.size() - 4), L".mof"))
                continue;
            if (EqualsNoCase(name, kStateFileName))
                bState = true;
            else
                names.push_back(name);
        } while (FindNextFileW(find.Get(), &data));
    }
    std::sort(names.begin(), names.end(),
              [](const std::wstring& a, const std::wstring& b) { return LessNoCase(a, b); });
    std::vector<std::wstring> files;
    for (const std::wstring& name : names)
        files.push_back(Join(wsFolder, name));
    if (bState)
        files.push_back(Join(wsFolder, kStateFileName));
    return repository.CompileFiles(files, bState ? files.size() - 1 : files.size(), wsNamespace);
}

HRESULT WriteFileAtomically(std::wstring_view wsPath, std::wstring_view wsText, const BeforePublish& beforePublish)
{
    const std::wstring path(wsPath);
    const std::wstring temp = path + L".tmp";
    {
        WriteHandle file(
            CreateFileW(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file.Get() == INVALID_HANDLE_VALUE)
            return HRESULT_FROM_WIN32(GetLastError());
        std::wstring content;
        content.reserve(wsText.size() + 1);
        content.push_back(0xFEFF);
        content.append(wsText);
        const DWORD cb = static_cast<DWORD>(content.size() * sizeof(wchar_t));
        DWORD cbWritten = 0;
        if (!WriteFile(file.Get(), content.data(), cb, &cbWritten, nullptr) || cbWritten != cb ||
            !FlushFileBuffers(file.Get()) || !file.Close()) {
            const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
            file.Close();
            DeleteFileW(temp.c_str());
            return FAILED(hr) ? hr : E_FAIL;
        }
    }
    if (beforePublish) {
        const HRESULT hr = beforePublish();
        if (FAILED(hr)) {
            DeleteFileW(temp.c_str());
            return hr;
        }
    }
    if (!MoveFileExW(temp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
        DeleteFileW(temp.c_str());
        return hr;
    }
    return S_OK;
}

HRESULT SaveRepositoryState(const CimRepository& repository, std::wstring_view wsFolder,
                            const BeforePublish& beforePublish)
{
    std::wstring text;
    const HRESULT hr = repository.SerializeChanges(text);
    if (FAILED(hr))
        return hr;
    try {
        return WriteFileAtomically(Join(wsFolder, kStateFileName), text, beforePublish);
    } catch (const std::bad_alloc&) {
        return Hr(WBEM_E_OUT_OF_MEMORY);
    }
}

}  // namespace cimstore
