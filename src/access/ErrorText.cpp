#include "access/ErrorText.h"

#include <windows.h>

#include <cstring>
#include <initializer_list>

namespace {

constexpr size_t kResultSize = 4096;
constexpr unsigned long kFacilityWin32 = 8;
constexpr unsigned long kFacilityMessageQueue = 14;

// Owns a message module loaded as a data file.
class DataModule {
public:
    explicit DataModule(const char* szName) : m_h(LoadLibraryExA(szName, nullptr, LOAD_LIBRARY_AS_DATAFILE)) {}
    ~DataModule()
    {
        if (m_h)
            FreeLibrary(m_h);
    }
    DataModule(const DataModule&) = delete;
    DataModule& operator=(const DataModule&) = delete;
    HMODULE Get() const { return m_h; }

private:
    HMODULE m_h;
};

// Owns the text that FormatMessageA allocated.
class SystemText {
public:
    SystemText() = default;
    ~SystemText()
    {
        if (m_psz)
            LocalFree(m_psz);
    }
    SystemText(const SystemText&) = delete;
    SystemText& operator=(const SystemText&) = delete;

    // Looks ulCode up in the system table (hSource null) or in hSource; true when a text was found.
    bool Lookup(unsigned long ulCode, HMODULE hSource, bool bFromModule)
    {
        DWORD dwFlags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS;
        dwFlags |= bFromModule ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM;
        if (bFromModule && !hSource)
            return false;
        char* psz = nullptr;
        const DWORD cch = FormatMessageA(dwFlags, hSource, ulCode, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                         reinterpret_cast<char*>(&psz), 0, nullptr);
        if (cch == 0 || !psz) {
            if (psz)
                LocalFree(psz);
            return false;
        }
        m_psz = psz;
        return true;
    }
    const char* Get() const { return m_psz; }

private:
    char* m_psz = nullptr;
};

bool LookupMessageQueueCode(unsigned long ulCode, SystemText& text)
{
    DataModule mqutil("MQUTIL.DLL");
    if (!mqutil.Get())
        return false;
    if (text.Lookup(ulCode, mqutil.Get(), true))
        return true;
    if (text.Lookup(ulCode, nullptr, false))
        return true;
    for (const char* szModule : {"NETMSG.DLL", "wmiutils.dll"}) {
        DataModule module(szModule);
        if (text.Lookup(ulCode, module.Get(), true))
            return true;
    }
    return false;
}

void CopyBounded(char* pszResult, const char* szText, size_t cchMax)
{
    const size_t cch = strnlen(szText, cchMax);
    memcpy(pszResult, szText, cch);
    pszResult[cch] = '\0';
}

}  // namespace

const char* GetErrorText(unsigned long ulCode)
{
    thread_local char s_szResult[kResultSize];
    memset(s_szResult, 0, sizeof(s_szResult));

    SystemText text;
    bool bFound = false;
    const unsigned long ulFacility = (ulCode >> 16) & 0x1FFF;
    if (ulFacility == kFacilityWin32)
        bFound = text.Lookup(ulCode & 0xFFFF, nullptr, false);
    else if (ulFacility == kFacilityMessageQueue)
        bFound = LookupMessageQueueCode(ulCode, text);
    else
        bFound = text.Lookup(ulCode, nullptr, false);

    if (bFound) {
        const char* szText = text.Get();
        size_t cch = strlen(szText);
        while (cch > 1 && (szText[cch - 1] == '\r' || szText[cch - 1] == '\n'))
            --cch;
        CopyBounded(s_szResult, szText, cch < kResultSize - 1 ? cch : kResultSize - 1);
        return s_szResult;
    }

    const ErrorTextRow* pRow = g_ErrorTextTable;
    while (pRow->ulCode != 0 && pRow->ulCode != ulCode)
        ++pRow;
    CopyBounded(s_szResult, pRow->ulCode != 0 ? pRow->szText : "unknown", kResultSize - 1);
    return s_szResult;
}
