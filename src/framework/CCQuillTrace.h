// Diagnostic trace file writer, configured per module from the registry.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>

class CCQuillTrace;

// The module's shared trace pointer; a module loaded later into the same process
// joins the trace object that the host executable exports under this name.
extern "C" __declspec(dllexport) CCQuillTrace* gg_ptrc;

enum TraceLevel : unsigned long {
    TRACE_ERROR = 1,
    TRACE_WARNING = 2,
    TRACE_INFO = 3,
    TRACE_VERBOSE = 4,
    TRACE_INFO_CC = 5,
    TRACE_VERBOSE_CC = 6,
};

// Configuration flags of Enable_By_RegKey and Configure.
enum TraceConfigFlag : unsigned long {
    TRACE_FLAG_GLOBAL = 1,
    TRACE_FLAG_CLEAR = 2,
    TRACE_FLAG_RESERVED = 4,
    TRACE_FLAG_KEEP_HISTORY = 16,
    TRACE_FLAG_NO_KEY = 32,
};

class CCQuillTrace {
public:
    static constexpr unsigned long kPathChars = 260;
    static constexpr unsigned long kInitialLineCapacity = 4096;

    CCQuillTrace();
    ~CCQuillTrace();
    CCQuillTrace(const CCQuillTrace&) = delete;
    CCQuillTrace& operator=(const CCQuillTrace&) = delete;

    // Joins the trace object exported by the host executable under szExportName;
    // otherwise publishes pThis through ppExported. True when joined.
    virtual bool AttachGlobal(const char* szExportName, CCQuillTrace* pThis, CCQuillTrace** ppExported);
    virtual void Configure(const char* szModuleSubKey, unsigned long ulFlags, const char* szBaseKey);

    void Enable_By_RegKey(HKEY hRootKey, const char* szKeyTemplate, unsigned long ulFlags);

    void TraceMsg(unsigned long ulLevel, const char* szQualifiedName, const char* szCategory,
                  const char* szMessage, const char* szFormat, ...);
    void TraceMsgV(unsigned long ulLevel, const char* szQualifiedName, const char* szCategory,
                   const char* szMessage, const char* szFormat, va_list args);
    void TraceMsgClass(unsigned long ulLevel, const char* szFirst, const char* szClass, const char* szMethod,
                       const char* szCategory, const char* szFormat, ...);

    HMODULE GetModuleHandleRaw();
    void FileSwitch();

    bool IsEnabled() const { return m_bEnabled; }
    // True when a line of this level would be written: lets callers skip building texts.
    bool WouldTrace(unsigned long ulLevel) const { return m_bEnabled && ulLevel <= m_ulLevel; }
    bool IsGlobal() const { return m_bGlobal; }
    bool IsInfoShown() const { return m_bInfoShown; }
    bool IsClearOnStart() const { return m_bClearOnStart; }
    bool IsKeepHistory() const { return m_bKeepHistory; }
    unsigned long GetLevel() const { return m_ulLevel; }
    unsigned long GetSizeLimit() const { return m_ulSizeLimit; }
    unsigned long GetTimeLimit() const { return m_ulTimeLimit; }
    unsigned long GetDelaySecs() const { return m_ulDelaySecs; }
    const wchar_t* GetFileName() const { return m_wszFileName; }
    const wchar_t* GetModuleName() const { return m_wszModuleName; }

    // Shows the information box of the TraceInfo setting; replaceable so that
    // an unattended run never waits for a click.
    using InfoBoxFn = void (*)(const char* szText, const char* szCaption);
    static InfoBoxFn SetInfoBoxHandler(InfoBoxFn pfnHandler);

private:
    bool LockLine();
    void UnlockLine();
    bool AppendFormatted(bool bGrow, const char* szFormat, ...);
    bool AppendFormattedV(bool bGrow, const char* szFormat, va_list args);
    bool Grow();
    void WriteHeader(unsigned long ulLevel);
    void FinishLine();
    void WriteLineToFile();
    void AppendLine();
    void AppendRawWide(const wchar_t* wszText);
    bool CreateTraceFile(bool bReplace);
    void PrepareFirstWrite();
    void WriteFixedLine(const char* szFormat, ...);
    void FillModuleName();
    unsigned long ReadDword(HKEY hKey, const char* szName, unsigned long ulDefault, bool* pbPresent = nullptr);
    void ReadTraceFile(HKEY hKey);

    bool m_bClearOnStart = false;
    bool m_bFirstWritePending = false;
    bool m_bKeepHistory = false;
    bool m_bNoKeyRequired = false;
    HANDLE m_hLock = nullptr;
    wchar_t* m_wszFileName = nullptr;
    unsigned long m_ulLevel = 0;
    unsigned long m_ulSizeLimit = 0;
    unsigned long m_ulBytesWritten = 0;
    unsigned long m_ulTimeLimit = 0;
    int64_t m_llSwitchDeadline = 0;
    wchar_t m_wszModuleName[kPathChars] = {};
    char* m_pLine = nullptr;
    unsigned long m_ulLineCapacity = 0;
    unsigned long m_ulLineLength = 0;
    const char* m_szLockPrefix = nullptr;
    const char* m_aszLevelWords[6] = {};
    volatile bool m_bEnabled = false;
    bool m_bGlobal = false;
    bool m_bReserved = false;
    unsigned long m_ulDelaySecs = 0;
    bool m_bInfoShown = false;
};

// The one trace object of this module; constructed on first use.
CCQuillTrace& GetTrace();
