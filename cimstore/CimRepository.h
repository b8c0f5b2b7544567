// The management repository: namespaces behind one reader/writer lock. Every method returns
// an HRESULT (WBEM_E_*), never throws, and hands out copies.
#pragma once

#include "cimstore/CimNamespace.h"

#include <set>

namespace cimstore {

// Outcome of a MOF compilation; message is "file:line:column: text" on failure.
struct MofResult {
    HRESULT hr = S_OK;
    std::wstring message;
    std::wstring file;
    int line = 0;
    int column = 0;
};

// Net effect of PutInstance/DeleteInstance for one instance identity.
struct TrackedChange {
    std::wstring ns;
    std::wstring relPath;    // of the deleted instance
    CimInstancePtr written;  // null for a delete
};

// Shared state of one snapshot of the repository; a transaction copies it and clones the
// namespaces it writes to, so a failed compilation leaves the repository as it was.
struct RepositoryState {
    std::map<std::wstring, std::shared_ptr<CimNamespace>> namespaces;  // folded name -> namespace
};

class RepositoryTransaction {
public:
    RepositoryTransaction(const RepositoryState& state, std::wstring wsServer, bool bTrack);

    const std::wstring& Server() const { return m_wsServer; }
    const CimNamespace* FindNamespace(std::wstring_view wsName) const;
    // Writable namespace, created (with its parents) when bCreate.
    CimNamespace* WritableNamespace(std::wstring_view wsName, bool bCreate);
    void RecordPut(const CimNamespace& ns, const CimInstancePtr& instance);
    void RecordDelete(const CimNamespace& ns, const CimInstancePtr& instance);
    void SetTracking(bool bTrack);

    RepositoryState& State() { return m_state; }
    std::map<std::wstring, TrackedChange>& Changes() { return m_changes; }

private:
    RepositoryState m_state;
    std::set<std::wstring> m_cloned;
    std::wstring m_wsServer;
    bool m_bTrack;
    std::map<std::wstring, TrackedChange> m_changes;
};

// "root\cimv2" from "\\.\root\cimv2", "//./root/cimv2" or "root/cimv2".
std::wstring NormalizeNamespace(std::wstring_view wsName);
std::wstring DefaultServerName();

class CimRepository {
public:
    explicit CimRepository(std::wstring wsServer = DefaultServerName());
    ~CimRepository() = default;
    CimRepository(const CimRepository&) = delete;
    CimRepository& operator=(const CimRepository&) = delete;

    const std::wstring& Server() const { return m_wsServer; }

    HRESULT CreateNamespace(std::wstring_view wsName);
    bool HasNamespace(std::wstring_view wsName) const;
    std::vector<std::wstring> Namespaces() const;

    HRESULT GetClass(std::wstring_view wsNs, std::wstring_view wsClass, CimClassPtr& out) const;
    // The class and (bDeep) its subclasses, or only direct subclasses of wsSuperclass when not deep.
    HRESULT EnumClasses(std::wstring_view wsNs, std::wstring_view wsSuperclass, bool bDeep,
                        std::vector<CimClassPtr>& out) const;
    HRESULT SpawnInstance(std::wstring_view wsNs, std::wstring_view wsClass, CimInstance& out) const;

    // A path may carry its own namespace; relative paths use wsNs.
    HRESULT GetInstance(std::wstring_view wsNs, std::wstring_view wsPath, CimInstance& out) const;
    HRESULT PutInstance(std::wstring_view wsNs, const CimInstance& instance, long lFlags = 0,
                        std::wstring* pwsRelPath = nullptr);
    HRESULT DeleteInstance(std::wstring_view wsNs, std::wstring_view wsPath);
    HRESULT EnumInstances(std::wstring_view wsNs, std::wstring_view wsClass, std::vector<CimInstance>& out) const;
    // WQL; results are copies. WBEM_E_INVALID_QUERY, WBEM_E_INVALID_CLASS, WBEM_E_NOT_FOUND.
    HRESULT ExecQuery(std::wstring_view wsNs, std::wstring_view wsQuery, std::vector<CimInstance>& out) const;

    // Compiles MOF text (all or nothing). wsFile names the text in messages and is the base for
    // #pragma include; bTrack records its instance changes like PutInstance does.
    MofResult CompileText(std::wstring_view wsText, std::wstring_view wsFile,
                          std::wstring_view wsNamespace = L"root\\default", bool bTrack = false);
    MofResult CompileFile(std::wstring_view wsPath, std::wstring_view wsNamespace = L"root\\default",
                          bool bTrack = false);
    // Several files as one transaction, in the order given; the last ones may be tracked.
    MofResult CompileFiles(const std::vector<std::wstring>& files, size_t firstTracked,
                           std::wstring_view wsNamespace = L"root\\default");

    // MOF of one namespace: class declarations (when asked) then all instances.
    HRESULT SerializeNamespace(std::wstring_view wsNs, bool bClasses, std::wstring& out) const;
    // MOF of the net instance changes since the last ClearTracking, for every namespace.
    HRESULT SerializeChanges(std::wstring& out) const;
    void ClearTracking();
    size_t TrackedChangeCount() const;
    // Deletes everything (the root namespace stays).
    void Clear();

private:
    class SharedLock;
    class ExclusiveLock;
    const CimNamespace* FindNamespaceLocked(std::wstring_view wsName) const;
    MofResult Compile(const std::vector<std::wstring>& files, std::wstring_view wsText, size_t firstTracked,
                      std::wstring_view wsNamespace, bool bText);

    std::wstring m_wsServer;
    mutable SRWLOCK m_lock = SRWLOCK_INIT;
    RepositoryState m_state;
    std::map<std::wstring, TrackedChange> m_changes;
};

}  // namespace cimstore
