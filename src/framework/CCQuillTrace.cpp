#include "framework/CCQuillTrace.h"

#include "access/ErrorText.h"
#include "framework/TraceNames.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <new>
#include <string>

CCQuillTrace* gg_ptrc = nullptr;

CCQuillTrace& GetTrace()
{
    static CCQuillTrace s_Trace;
    return s_Trace;
}

namespace {

constexpr char kLockPrefix[] = "CCQuillTrace_PID_";
constexpr const char* kLevelWords[6] = {"\tError", "\tWarning", "\tInfo", "\tVerbose", "\tInfoCC", "\tVerboseCC"};
constexpr wchar_t kDefaultFileName[] = L"Trace.trc";
constexpr unsigned long kMaxLineCapacity = 0x40000000;

void ShowInfoBox(const char* szText, const char* szCaption)
{
    MessageBoxA(nullptr, szText, szCaption, MB_OK);
}

CCQuillTrace::InfoBoxFn g_pfnInfoBox = &ShowInfoBox;

bool FileExists(const wchar_t* wszPath)
{
    WIN32_FIND_DATAW fd;
    HANDLE hFind = FindFirstFileW(wszPath, &fd);
    if (hFind == INVALID_HANDLE_VALUE)
        return false;
    FindClose(hFind);
    return true;
}

int64_t NowSeconds()
{
    return static_cast<int64_t>(time(nullptr));
}

const char* OrNull(const char* sz)
{
    return sz ? sz : "(null)";
}

// Owns a file handle for the duration of one write.
struct FileHandle {
    HANDLE h;
    explicit FileHandle(HANDLE hFile) : h(hFile) {}
    ~FileHandle()
    {
        if (h != INVALID_HANDLE_VALUE)
            CloseHandle(h);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
};

// Appends one whole line. Writers in other processes hold their own semaphore, so
// the end of the file is found and written under a lock on a byte far beyond any
// content, which every writer of the file takes for this moment only.
bool AppendToFile(const wchar_t* wszPath, const void* pData, DWORD cbData)
{
    FileHandle file(CreateFileW(wszPath, FILE_APPEND_DATA | FILE_WRITE_DATA,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.h == INVALID_HANDLE_VALUE)
        return false;
    OVERLAPPED lockRange = {};
    lockRange.OffsetHigh = 0x7FFFFFFF;
    const bool bLocked = LockFileEx(file.h, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &lockRange) != FALSE;
    DWORD cbWritten = 0;
    const bool bWritten = SetFilePointer(file.h, 0, nullptr, FILE_END) != INVALID_SET_FILE_POINTER &&
                          WriteFile(file.h, pData, cbData, &cbWritten, nullptr) && cbWritten == cbData;
    if (bLocked)
        UnlockFileEx(file.h, 0, 1, 0, &lockRange);
    return bWritten;
}

std::string ModuleVersionText(const wchar_t* wszModulePath)
{
    DWORD dwIgnored = 0;
    const DWORD cbInfo = GetFileVersionInfoSizeW(wszModulePath, &dwIgnored);
    if (cbInfo == 0)
        return std::string();
    std::string sInfo(cbInfo, '\0');
    VS_FIXEDFILEINFO* pFixed = nullptr;
    UINT cbFixed = 0;
    if (!GetFileVersionInfoW(wszModulePath, 0, cbInfo, sInfo.data()) ||
        !VerQueryValueW(sInfo.data(), L"\\", reinterpret_cast<void**>(&pFixed), &cbFixed) || !pFixed ||
        cbFixed < sizeof(VS_FIXEDFILEINFO))
        return std::string();
    char szVersion[32];
    snprintf(szVersion, sizeof(szVersion), "%d.%2.2d", static_cast<int>(HIWORD(pFixed->dwFileVersionMS)),
             static_cast<int>(LOWORD(pFixed->dwFileVersionMS)));
    return szVersion;
}

std::string Narrow(const wchar_t* wsz)
{
    const int cb = WideCharToMultiByte(CP_ACP, 0, wsz, -1, nullptr, 0, nullptr, nullptr);
    if (cb <= 1)
        return std::string();
    std::string s(static_cast<size_t>(cb), '\0');
    WideCharToMultiByte(CP_ACP, 0, wsz, -1, s.data(), cb, nullptr, nullptr);
    s.resize(static_cast<size_t>(cb - 1));
    return s;
}

}  // namespace

CCQuillTrace::InfoBoxFn CCQuillTrace::SetInfoBoxHandler(InfoBoxFn pfnHandler)
{
    InfoBoxFn pfnOld = g_pfnInfoBox;
    g_pfnInfoBox = pfnHandler ? pfnHandler : &ShowInfoBox;
    return pfnOld;
}

CCQuillTrace::CCQuillTrace()
{
    m_pLine = static_cast<char*>(malloc(kInitialLineCapacity));
    if (m_pLine) {
        m_ulLineCapacity = kInitialLineCapacity;
        m_pLine[0] = '\0';
    }
    m_wszFileName = static_cast<wchar_t*>(calloc(kPathChars, sizeof(wchar_t)));
    if (m_wszFileName)
        wcscpy(m_wszFileName, kDefaultFileName);
    for (int i = 0; i < 6; ++i)
        m_aszLevelWords[i] = kLevelWords[i];
    m_bEnabled = false;
    m_bReserved = true;
    m_szLockPrefix = kLockPrefix;
}

CCQuillTrace::~CCQuillTrace()
{
    m_bEnabled = false;
    if (m_hLock)
        CloseHandle(m_hLock);
    free(m_pLine);
    free(m_wszFileName);
    if (gg_ptrc == this)
        gg_ptrc = nullptr;
}

bool CCQuillTrace::AttachGlobal(const char* szExportName, CCQuillTrace* pThis, CCQuillTrace** ppExported)
{
    auto ppHost = reinterpret_cast<CCQuillTrace**>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA(nullptr), szExportName)));
    CCQuillTrace* pHost = ppHost ? *ppHost : nullptr;
    if (pHost && pHost != pThis && pHost->m_bEnabled && pHost->m_bGlobal && pThis->m_wszFileName &&
        pHost->m_wszFileName) {
        pThis->m_bClearOnStart = pHost->m_bClearOnStart;
        pThis->m_bFirstWritePending = pHost->m_bFirstWritePending;
        pThis->m_bKeepHistory = pHost->m_bKeepHistory;
        pThis->m_bNoKeyRequired = pHost->m_bNoKeyRequired;
        pThis->m_bInfoShown = pHost->m_bInfoShown;
        pThis->m_bReserved = pHost->m_bReserved;
        wcsncpy(pThis->m_wszFileName, pHost->m_wszFileName, kPathChars - 1);
        pThis->m_wszFileName[kPathChars - 1] = L'\0';
        pThis->m_ulLevel = pHost->m_ulLevel;
        pThis->m_ulSizeLimit = pHost->m_ulSizeLimit;
        pThis->m_ulBytesWritten = pHost->m_ulBytesWritten;
        pThis->m_ulTimeLimit = pHost->m_ulTimeLimit;
        pThis->m_llSwitchDeadline = pHost->m_llSwitchDeadline;
        if (pHost->m_hLock && !pThis->m_hLock) {
            DuplicateHandle(GetCurrentProcess(), pHost->m_hLock, GetCurrentProcess(), &pThis->m_hLock, 0, FALSE,
                            DUPLICATE_SAME_ACCESS);
        }
        pThis->FillModuleName();
        pThis->m_bGlobal = true;
        pThis->m_bEnabled = pThis->m_pLine != nullptr;
        return true;
    }
    if (ppExported)
        *ppExported = pThis;
    return false;
}

void CCQuillTrace::Configure(const char* szModuleSubKey, unsigned long ulFlags, const char* szBaseKey)
{
    char szKey[kPathChars];
    snprintf(szKey, sizeof(szKey), "%s%s", OrNull(szBaseKey), OrNull(szModuleSubKey));
    Enable_By_RegKey(HKEY_LOCAL_MACHINE, szKey, ulFlags);
}

unsigned long CCQuillTrace::ReadDword(HKEY hKey, const char* szName, unsigned long ulDefault, bool* pbPresent)
{
    DWORD dwType = 0;
    DWORD dwValue = 0;
    DWORD cbValue = sizeof(dwValue);
    const bool bPresent = RegQueryValueExA(hKey, szName, nullptr, &dwType, reinterpret_cast<BYTE*>(&dwValue),
                                           &cbValue) == ERROR_SUCCESS &&
                          dwType == REG_DWORD && cbValue == sizeof(dwValue);
    if (pbPresent)
        *pbPresent = bPresent;
    return bPresent ? dwValue : ulDefault;
}

void CCQuillTrace::ReadTraceFile(HKEY hKey)
{
    char szValue[kPathChars + 1] = {};
    DWORD dwType = 0;
    DWORD cbValue = kPathChars;
    if (RegQueryValueExA(hKey, "TraceFile", nullptr, &dwType, reinterpret_cast<BYTE*>(szValue), &cbValue) !=
            ERROR_SUCCESS ||
        (dwType != REG_SZ && dwType != REG_EXPAND_SZ) || szValue[0] == '\0')
        return;
    szValue[kPathChars - 1] = '\0';

    char szExpanded[kPathChars];
    const DWORD cchExpanded = ExpandEnvironmentStringsA(szValue, szExpanded, kPathChars);
    if (cchExpanded == 0 || cchExpanded > kPathChars)
        return;
    wchar_t wszWide[kPathChars];
    if (MultiByteToWideChar(CP_ACP, 0, szExpanded, -1, wszWide, kPathChars) == 0)
        return;
    try {
        std::wstring wsName = wszWide;
        TraceNames::ReplaceFirstNumber(wsName, L"%PID%", GetCurrentProcessId());
        TraceNames::ReplaceFirstNumber(wsName, L"%TID%", GetCurrentThreadId());
        if (wsName.size() < kPathChars)
            wcscpy(m_wszFileName, wsName.c_str());
    } catch (const std::bad_alloc&) {
        // Keep the former name.
    }
}

void CCQuillTrace::Enable_By_RegKey(HKEY hRootKey, const char* szKeyTemplate, unsigned long ulFlags)
{
    if (m_bEnabled)
        return;

    m_bClearOnStart = false;
    m_bFirstWritePending = true;
    m_bKeepHistory = false;
    m_bNoKeyRequired = false;
    m_bGlobal = false;
    m_ulLevel = 0;
    m_ulSizeLimit = 0;
    m_ulBytesWritten = 0;
    m_ulTimeLimit = 0;
    m_llSwitchDeadline = 0;
    if (!m_wszFileName || !m_pLine)
        return;
    wcscpy(m_wszFileName, kDefaultFileName);

    if (AttachGlobal("gg_ptrc", this, &gg_ptrc))
        return;

    if (ulFlags & TRACE_FLAG_GLOBAL)
        m_bGlobal = true;
    if (ulFlags & TRACE_FLAG_CLEAR)
        m_bClearOnStart = true;
    if (ulFlags & TRACE_FLAG_RESERVED)
        m_bReserved = true;
    if (ulFlags & TRACE_FLAG_KEEP_HISTORY)
        m_bKeepHistory = true;
    if (ulFlags & TRACE_FLAG_NO_KEY)
        m_bNoKeyRequired = true;

    HKEY hKey = nullptr;
    try {
        std::string sKeyPath = szKeyTemplate ? szKeyTemplate : "";
        if (sKeyPath.find('%') != std::string::npos) {
            wchar_t wszModulePath[MAX_PATH] = {};
            GetModuleFileNameW(GetModuleHandleRaw(), wszModulePath, MAX_PATH);
            const wchar_t* pwszSlash = wcsrchr(wszModulePath, L'\\');
            sKeyPath = TraceNames::ExpandKeyTokens(sKeyPath, Narrow(pwszSlash ? pwszSlash + 1 : wszModulePath),
                                                   ModuleVersionText(wszModulePath));
        }
        if (RegOpenKeyExA(hRootKey, sKeyPath.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS)
            return;
    } catch (const std::bad_alloc&) {
        return;
    }

    bool bEnable = false;
    if (ReadDword(hKey, "Trace", 0) != 0) {
        if (m_bNoKeyRequired) {
            bEnable = true;
        } else {
            bool bKeyPresent = false;
            const unsigned long ulKey = ReadDword(hKey, "Key", 0, &bKeyPresent);
            SYSTEMTIME stToday;
            GetLocalTime(&stToday);
            bEnable = bKeyPresent && ulKey == TraceNames::DateKey(stToday);
        }
    }
    if (bEnable) {
        bool bPresent = false;
        const unsigned long ulClear = ReadDword(hKey, "TraceClear", 0, &bPresent);
        if (bPresent)
            m_bClearOnStart = ulClear != 0;
        ReadTraceFile(hKey);
    }

    m_ulLevel = ReadDword(hKey, "TraceLevel", 0);
    m_bGlobal = ReadDword(hKey, "TraceGlobalEnable", 0) > 0;
    if (m_bGlobal)
        FillModuleName();
    m_bKeepHistory = ReadDword(hKey, "TraceKeepHistory", 0) > 0;
    m_ulSizeLimit = ReadDword(hKey, "TraceLimitSize", 0);
    m_ulTimeLimit = ReadDword(hKey, "TraceLimitTime", 0);
    m_ulDelaySecs = ReadDword(hKey, "TraceDelaySecs", 0);
    m_bEnabled = bEnable;

    if (ReadDword(hKey, "TraceInfo", 0) != 0) {
        m_bInfoShown = true;
        char szText[kPathChars + 64];
        if (bEnable)
            snprintf(szText, sizeof(szText), "Enable_By_RegKey: TRACE ENABLED:\r\nFile='%ls'", m_wszFileName);
        else
            snprintf(szText, sizeof(szText), "Enable_By_RegKey: trace disabled");
        g_pfnInfoBox(szText, "CCQuillTrace");
    }
    RegCloseKey(hKey);
}

void CCQuillTrace::FillModuleName()
{
    wchar_t wszPath[MAX_PATH] = {};
    const DWORD cch = GetModuleFileNameW(GetModuleHandleRaw(), wszPath, MAX_PATH);
    if (cch == 0 || cch >= MAX_PATH)
        return;
    const wchar_t* pwszSlash = wcsrchr(wszPath, L'\\');
    wcsncpy(m_wszModuleName, pwszSlash ? pwszSlash + 1 : wszPath, kPathChars - 1);
    m_wszModuleName[kPathChars - 1] = L'\0';
}

HMODULE CCQuillTrace::GetModuleHandleRaw()
{
    TraceMsg(TRACE_INFO_CC, "CCQuillTrace::GetModuleHandleRaw", "Enter", "Method GetModuleHandleRaw has been called",
             "");
    // Any static of this module lies inside its image; the region's allocation base is the module handle.
    static const char s_cAnchor = 0;
    MEMORY_BASIC_INFORMATION mbi = {};
    HMODULE hReturn = nullptr;
    if (VirtualQuery(&s_cAnchor, &mbi, sizeof(mbi)) != 0)
        hReturn = static_cast<HMODULE>(mbi.AllocationBase);
    TraceMsg(TRACE_INFO_CC, "CCQuillTrace::GetModuleHandleRaw", "Leave", "Method GetModuleHandleRaw has been left.",
             "hReturn: 0x%08X", static_cast<unsigned>(reinterpret_cast<uintptr_t>(hReturn)));
    return hReturn;
}

bool CCQuillTrace::LockLine()
{
    HANDLE hLock = m_hLock;
    if (!hLock) {
        try {
            const std::string sName = TraceNames::LockName(m_szLockPrefix, GetCurrentProcessId(), m_wszFileName);
            hLock = OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, sName.c_str());
            if (!hLock)
                hLock = CreateSemaphoreA(nullptr, 1, 1, sName.c_str());
        } catch (const std::bad_alloc&) {
            return false;
        }
        if (!hLock)
            return false;
        // Two threads may race to open the lock; the loser closes its handle.
        HANDLE hExisting = InterlockedCompareExchangePointer(&m_hLock, hLock, nullptr);
        if (hExisting) {
            CloseHandle(hLock);
            hLock = hExisting;
        }
    }
    return WaitForSingleObject(hLock, INFINITE) == WAIT_OBJECT_0;
}

void CCQuillTrace::UnlockLine()
{
    ReleaseSemaphore(m_hLock, 1, nullptr);
}

bool CCQuillTrace::Grow()
{
    if (m_ulLineCapacity >= kMaxLineCapacity)
        return false;
    const unsigned long ulNew = m_ulLineCapacity * 2;
    char* pNew = static_cast<char*>(realloc(m_pLine, ulNew));
    if (!pNew)
        return false;
    m_pLine = pNew;
    m_ulLineCapacity = ulNew;
    return true;
}

bool CCQuillTrace::AppendFormatted(bool bGrow, const char* szFormat, ...)
{
    va_list args;
    va_start(args, szFormat);
    const bool bResult = AppendFormattedV(bGrow, szFormat, args);
    va_end(args);
    return bResult;
}

bool CCQuillTrace::AppendFormattedV(bool bGrow, const char* szFormat, va_list args)
{
    if (!szFormat)
        return true;
    for (;;) {
        const size_t cbRoom = m_ulLineCapacity - m_ulLineLength;
        va_list argsCopy;
        va_copy(argsCopy, args);
        const int cch = vsnprintf(m_pLine + m_ulLineLength, cbRoom, szFormat, argsCopy);
        va_end(argsCopy);
        if (cch < 0) {
            m_pLine[m_ulLineLength] = '\0';
            return true;
        }
        if (static_cast<size_t>(cch) < cbRoom) {
            m_ulLineLength += static_cast<unsigned long>(cch);
            return true;
        }
        if (!bGrow) {
            // Cut at the capacity; the missing room for the line end is reported by FinishLine.
            m_ulLineLength = m_ulLineCapacity - 1;
            return true;
        }
        if (!Grow())
            return false;
    }
}

void CCQuillTrace::WriteHeader(unsigned long ulLevel)
{
    SYSTEMTIME st;
    GetLocalTime(&st);
    AppendFormatted(false, "%02u.%02u.%04u %02u:%02u:%02u.%03u\t%04lu\t%04lu%s", static_cast<unsigned>(st.wDay),
                    static_cast<unsigned>(st.wMonth), static_cast<unsigned>(st.wYear),
                    static_cast<unsigned>(st.wHour), static_cast<unsigned>(st.wMinute),
                    static_cast<unsigned>(st.wSecond), static_cast<unsigned>(st.wMilliseconds),
                    GetCurrentProcessId(), GetCurrentThreadId(),
                    ulLevel >= 1 && ulLevel <= 6 ? m_aszLevelWords[ulLevel - 1] : "");
}

void CCQuillTrace::TraceMsg(unsigned long ulLevel, const char* szQualifiedName, const char* szCategory,
                            const char* szMessage, const char* szFormat, ...)
{
    if (!m_bEnabled || ulLevel > m_ulLevel)
        return;
    va_list args;
    va_start(args, szFormat);
    TraceMsgV(ulLevel, szQualifiedName, szCategory, szMessage, szFormat, args);
    va_end(args);
}

void CCQuillTrace::TraceMsgV(unsigned long ulLevel, const char* szQualifiedName, const char* szCategory,
                             const char* szMessage, const char* szFormat, va_list args)
{
    if (!m_bEnabled || ulLevel > m_ulLevel)
        return;
    if (!LockLine())
        return;

    char szClass[kPathChars] = "<global>";
    const char* szMethod = OrNull(szQualifiedName);
    if (const char* pSep = szQualifiedName ? strstr(szQualifiedName, "::") : nullptr) {
        const size_t cchClass = static_cast<size_t>(pSep - szQualifiedName);
        const size_t cchCopy = cchClass < kPathChars - 1 ? cchClass : kPathChars - 1;
        memcpy(szClass, szQualifiedName, cchCopy);
        szClass[cchCopy] = '\0';
        szMethod = pSep + 2;
    }

    m_ulLineLength = 0;
    WriteHeader(ulLevel);
    bool bOk = m_bGlobal ? AppendFormatted(true, "\t%ls\t%s\t%s\t%s\t%s\t", m_wszModuleName, szClass, szMethod,
                                           OrNull(szCategory), OrNull(szMessage))
                         : AppendFormatted(true, "\t%s\t%s\t%s\t%s\t", szClass, szMethod, OrNull(szCategory),
                                           OrNull(szMessage));
    if (bOk)
        bOk = AppendFormattedV(true, szFormat, args);
    if (!bOk) {
        m_bEnabled = false;
        AppendRawWide(L"Buffer allocation failed, tracing was disabled");
    } else {
        FinishLine();
    }
    UnlockLine();
}

void CCQuillTrace::TraceMsgClass(unsigned long ulLevel, const char* szFirst, const char* szClass,
                                 const char* szMethod, const char* szCategory, const char* szFormat, ...)
{
    if (!m_bEnabled || ulLevel > m_ulLevel)
        return;
    if (!LockLine())
        return;
    m_ulLineLength = 0;
    WriteHeader(ulLevel);
    if (m_bGlobal)
        AppendFormatted(false, "\t%ls\t%s\t%s\t%s\t%s\t", m_wszModuleName, OrNull(szFirst), OrNull(szClass),
                        OrNull(szMethod), OrNull(szCategory));
    else
        AppendFormatted(false, "\t%s\t%s\t%s\t%s\t", OrNull(szFirst), OrNull(szClass), OrNull(szMethod),
                        OrNull(szCategory));
    va_list args;
    va_start(args, szFormat);
    AppendFormattedV(false, szFormat, args);
    va_end(args);
    FinishLine();
    UnlockLine();
}

void CCQuillTrace::FinishLine()
{
    if (m_ulLineLength + 1 < m_ulLineCapacity) {
        m_pLine[m_ulLineLength++] = '\n';
        m_pLine[m_ulLineLength] = '\0';
        WriteLineToFile();
    } else {
        AppendRawWide(L"No space for end marker left in buffer");
    }
}

bool CCQuillTrace::CreateTraceFile(bool bReplace)
{
    const wchar_t wcBom = 0xFEFF;
    DWORD cbWritten = 0;
    if (bReplace) {
        FileHandle file(CreateFileW(m_wszFileName, GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file.h == INVALID_HANDLE_VALUE)
            return false;
        WriteFile(file.h, &wcBom, sizeof(wcBom), &cbWritten, nullptr);
    } else {
        // Another process may create the same file at the same moment: the file appears
        // complete with its byte-order mark, or not at all, and never replaces the other's.
        std::wstring wsTemporary;
        try {
            wchar_t wszSuffix[32];
            swprintf(wszSuffix, 32, L".%08lx.tmp", GetCurrentProcessId());
            wsTemporary = std::wstring(m_wszFileName) + wszSuffix;
        } catch (const std::bad_alloc&) {
            return false;
        }
        {
            FileHandle file(CreateFileW(wsTemporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
            if (file.h == INVALID_HANDLE_VALUE)
                return false;
            WriteFile(file.h, &wcBom, sizeof(wcBom), &cbWritten, nullptr);
        }
        if (!MoveFileExW(wsTemporary.c_str(), m_wszFileName, MOVEFILE_WRITE_THROUGH)) {
            DeleteFileW(wsTemporary.c_str());
            return false;
        }
    }
    if (m_ulSizeLimit)
        m_ulBytesWritten = 2;
    if (m_ulTimeLimit)
        m_llSwitchDeadline = NowSeconds() + static_cast<int64_t>(m_ulTimeLimit) * 60;
    return true;
}

void CCQuillTrace::PrepareFirstWrite()
{
    if (!m_bFirstWritePending)
        return;
    if (m_bClearOnStart)
        CreateTraceFile(true);
    else if (!FileExists(m_wszFileName))
        CreateTraceFile(false);
    m_bFirstWritePending = false;
}

void CCQuillTrace::AppendRawWide(const wchar_t* wszText)
{
    PrepareFirstWrite();
    const DWORD cb = static_cast<DWORD>(wcslen(wszText) * sizeof(wchar_t));
    if (AppendToFile(m_wszFileName, wszText, cb))
        m_ulBytesWritten += cb;
}

void CCQuillTrace::WriteLineToFile()
{
    PrepareFirstWrite();
    if (m_ulSizeLimit && m_ulBytesWritten > m_ulSizeLimit) {
        FileSwitch();
    } else if (m_ulTimeLimit && NowSeconds() > m_llSwitchDeadline) {
        FileSwitch();
        m_llSwitchDeadline = NowSeconds() + static_cast<int64_t>(m_ulTimeLimit) * 60;
    }
    AppendLine();
}

void CCQuillTrace::AppendLine()
{
    // Each byte becomes one UTF-16 unit by the runtime locale; a carriage return goes before each line feed.
    std::wstring wsWide;
    try {
        wsWide.reserve(m_ulLineLength + m_ulLineLength / 16 + 2);
        for (unsigned long i = 0; i < m_ulLineLength; ++i) {
            const unsigned char uc = static_cast<unsigned char>(m_pLine[i]);
            wchar_t wc = static_cast<wchar_t>(uc);
            if (uc >= 0x80) {
                const char c = static_cast<char>(uc);
                if (mbtowc(&wc, &c, 1) <= 0)
                    wc = static_cast<wchar_t>(uc);
            }
            if (wc == L'\n')
                wsWide += L'\r';
            wsWide += wc;
        }
    } catch (const std::bad_alloc&) {
        return;
    }
    if (AppendToFile(m_wszFileName, wsWide.data(), static_cast<DWORD>(wsWide.size() * sizeof(wchar_t))))
        m_ulBytesWritten += 2 * m_ulLineLength;
}

void CCQuillTrace::WriteFixedLine(const char* szFormat, ...)
{
    // The fixed text replaces the buffer content but keeps the pending line's length.
    memset(m_pLine, 0, m_ulLineCapacity);
    va_list args;
    va_start(args, szFormat);
    vsnprintf(m_pLine, m_ulLineCapacity, szFormat, args);
    va_end(args);
}

void CCQuillTrace::FileSwitch()
{
    std::wstring wsHistory;
    try {
        std::wstring wsStem;
        std::wstring wsExtension;
        TraceNames::SplitFileName(m_wszFileName, wsStem, wsExtension);
        unsigned uNumber = 0;
        wsHistory = TraceNames::HistoryName(wsStem, wsExtension, uNumber);
        if (m_bKeepHistory) {
            while (uNumber < 1000 && FileExists(wsHistory.c_str()))
                wsHistory = TraceNames::HistoryName(wsStem, wsExtension, ++uNumber);
        }
    } catch (const std::bad_alloc&) {
        return;
    }

    const BOOL bMoved = MoveFileExW(m_wszFileName, wsHistory.c_str(),
                                    MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH);
    if (bMoved) {
        AppendLine();
        WriteFixedLine("31.12.2030 23:59:59.999\t9999\t9999\twarning\tCCQuillTrace\tFileSwitch\tInternal\t"
                       "MoveFileExW returned last error 0x%8.8lx, %s\n",
                       static_cast<unsigned long>(bMoved), GetErrorText(static_cast<unsigned long>(bMoved)));
        AppendLine();
    }
    if (FileExists(wsHistory.c_str())) {
        CreateTraceFile(true);
    } else {
        AppendLine();
        WriteFixedLine("31.12.2030 23:59:59.999\t9999\t9999\terror\tCCQuillTrace\tFileSwitch\tException\t"
                       "MoveFileExW could not create file '%ls'\n",
                       wsHistory.c_str());
        AppendLine();
    }
}
