// The process-wide state behind CimStore's COM objects: the repository and the folder it
// persists to, the context values each call brought, and the faults to inject.
#pragma once

#include "cimstore/CimRepository.h"

#include <mutex>
#include <string>
#include <vector>

struct IWbemContext;

namespace cimstore::com {

struct ContextRecord {
    std::wstring method;
    std::vector<std::pair<std::wstring, std::wstring>> values;  // name, value as text
};

// One store call: its method, the namespace of the services object (empty for calls on objects
// and enumerators) and the targets that faults match.
struct CallRecord {
    std::wstring method;
    std::wstring wsNamespace;
    std::vector<std::wstring> targets;
};

struct FaultRule {
    std::wstring method;  // empty: any method
    std::wstring target;  // class, path or namespace; empty: any
    long nth = 0;         // 0: every matching call; n: only the n-th matching call
    HRESULT hr = S_OK;
    long seen = 0;
};

class StoreState {
public:
    static StoreState& Get();

    // Loaded on first use from CIMSTORE_REPOSITORY or HKLM\SOFTWARE\CimStore\Repository.
    CimRepository& Repository();

    // Compiles every .mof file of the folder in name order, state.mof last; later changes are
    // saved there. MofResult carries "file:line:column: message" on failure.
    MofResult LoadFolder(const std::wstring& wsFolder);
    const std::wstring& Folder() const { return m_wsFolder; }
    // Writes the net changes to state.mof through a temporary file.
    HRESULT Save();
    // Empty repository, no folder, no faults, no records.
    void Reset();

    // Counts (and, while recording, records) a store call and answers the fault to inject for it
    // (S_OK for none).
    HRESULT CheckFault(const wchar_t* wszMethod, const std::vector<std::wstring>& targets,
                       const std::wstring& wsNamespace = {});
    void AddFault(FaultRule rule);
    void ClearFaults();
    long CallCount() const;

    // Starts (or stops) recording the store calls; either clears the records.
    void RecordCalls(bool bOn);
    std::vector<CallRecord> CallRecords() const;

    void RecordLocatorClass(const CLSID& clsid);
    CLSID LastLocatorClass() const;

    void RecordContext(const wchar_t* wszMethod, IWbemContext* pContext);
    std::vector<ContextRecord> ContextRecords() const;
    void ClearContextRecords();

private:
    StoreState() = default;
    void EnsureLoaded();

    std::once_flag m_loaded;
    CimRepository m_repository;
    mutable std::mutex m_mutex;  // folder, faults and records
    std::wstring m_wsFolder;
    std::vector<FaultRule> m_faults;
    long m_lCalls = 0;
    bool m_bRecordCalls = false;
    std::vector<CallRecord> m_calls;
    std::vector<ContextRecord> m_records;
    CLSID m_lastLocatorClass = {};
};

}  // namespace cimstore::com
