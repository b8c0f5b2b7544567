// Who this module is, where its installation keeps dependency tables and components,
// and which components the named feature makes it depend on.
#pragma once

#include <windows.h>

#include <cstddef>
#include <map>
#include <string>

// One dependencies/assemblyIdentity entry of a dependency table.
struct CCDependencyRecord {
    char szName[260];
    char szVersion[260];
    char szProgID[260];
    char szVersionIndependentProgID[260];
    char szFolder[260];
};

class CCAssembly {
public:
    static constexpr size_t kTextChars = 260;
    using EntryMap = std::map<std::string, CCDependencyRecord>;

    CCAssembly();
    virtual ~CCAssembly();
    CCAssembly(const CCAssembly&) = delete;
    CCAssembly& operator=(const CCAssembly&) = delete;

    // Host path: initialises and keeps the per-process mutex until DllUninitialize. 1 on success, else 0.
    int DllInitialize(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName);
    // COM path (CCComponentT): initialises without the mutex.
    bool Initialize(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName);
    bool DllUninitialize();

    // Copy the stored text into the caller's buffer, cut to cchBuffer; false when it had to be cut.
    bool GetFeatureName(char* szFeatureName, size_t cchBuffer = kTextChars);
    bool GetFeatureVersion(char* szFeatureVersion, size_t cchBuffer = kTextChars);
    bool GetContextName(char* szContextName, size_t cchBuffer = kTextChars);

    HMODULE GetModuleHandleRaw();
    bool CriticalEnter();
    bool CriticalLeave();

    bool IsInitialized() const { return m_bInitialized; }
    const char* GetModulePath() const { return m_szModulePath; }
    const char* GetConfigFilePath() const { return m_szConfigFilePath; }
    const char* GetDependencyTablesPath() const { return m_szDependencyTablesPath; }
    const char* GetModuleFile() const { return m_szModuleFileName; }
    const char* GetFileVersion() const { return m_szFileVersion; }
    const char* GetComponentRoot() const { return m_szComponentRoot; }
    // Keyed by versionIndependentProgID and by name; stable while no initialisation runs.
    const EntryMap& GetComEntries() const { return m_ComEntries; }
    const EntryMap& GetLibraryEntries() const { return m_LibraryEntries; }
    // The named mutex of this module in this process (valid after InitializeCommon).
    std::string MutexName() const;

private:
    bool InitializeCommon();
    bool InitializeFileNames();
    bool InitializeFileVersion();
    bool InitializeDependencyTablesPath();
    bool InitializeFeature(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName);
    bool InitializeFeatureList();
    bool ReadComponentRoot();
    bool CopyOut(const char* szQualifiedName, const char* szFormat, const char* szValue, char* szBuffer,
                 size_t cchBuffer);

    bool m_bInitialized = false;
    char m_szModulePath[kTextChars] = {};
    char m_szConfigFilePath[kTextChars] = {};
    char m_szDependencyTablesPath[kTextChars] = {};
    char m_szFeatureName[kTextChars] = {};
    char m_szFeatureVersion[kTextChars] = {};
    char m_szContextName[kTextChars] = {};
    char m_szModuleFileName[kTextChars] = {};
    char m_szFileVersion[kTextChars] = {};
    char m_szComponentRoot[kTextChars] = {};
    EntryMap m_ComEntries;
    EntryMap m_LibraryEntries;
    CRITICAL_SECTION m_Lock;
    HANDLE m_hMutex = nullptr;
};

// The module's one CCAssembly, shared by the exports and the COM handler.
CCAssembly& GetAssembly();
