#include "cimstore/com/StoreState.h"

#include "access/ComHolders.h"
#include "cimstore/RepositoryFolder.h"

#include <wbemcli.h>

#include <algorithm>

namespace cimstore::com {

namespace {

std::wstring RepositorySetting()
{
    wchar_t wszValue[MAX_PATH * 2] = {};
    const DWORD cch = GetEnvironmentVariableW(L"CIMSTORE_REPOSITORY", wszValue, MAX_PATH * 2);
    if (cch > 0 && cch < MAX_PATH * 2)
        return wszValue;
    DWORD cb = sizeof(wszValue) - sizeof(wchar_t);
    DWORD dwType = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\CimStore", L"Repository", RRF_RT_REG_SZ, &dwType, wszValue,
                     &cb) == ERROR_SUCCESS)
        return wszValue;
    return std::wstring();
}

std::wstring VariantText(const VARIANT& v)
{
    if (V_VT(&v) == VT_BSTR)
        return V_BSTR(&v) ? V_BSTR(&v) : L"";
    CCVariant text;
    if (SUCCEEDED(VariantChangeType(text.GetAddress(), const_cast<VARIANT*>(&v), 0, VT_BSTR)) && V_BSTR(&text.Get()))
        return V_BSTR(&text.Get());
    return std::wstring();
}

}  // namespace

StoreState& StoreState::Get()
{
    static StoreState s_state;
    return s_state;
}

void StoreState::EnsureLoaded()
{
    std::call_once(m_loaded, [this] {
        const std::wstring wsFolder = RepositorySetting();
        if (!wsFolder.empty())
            LoadFolder(wsFolder);
    });
}

CimRepository& StoreState::Repository()
{
    EnsureLoaded();
    return m_repository;
}

MofResult StoreState::LoadFolder(const std::wstring& wsFolder)
{
    m_repository.Clear();
    m_repository.ClearTracking();
    const MofResult result = LoadRepositoryFolder(m_repository, wsFolder);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_wsFolder = wsFolder;
    return result;
}

HRESULT StoreState::Save()
{
    std::wstring wsFolder;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        wsFolder = m_wsFolder;
    }
    if (wsFolder.empty())
        return S_OK;
    // A fault here stands for a crash between writing and publishing the new state.
    return SaveRepositoryState(m_repository, wsFolder, [&] { return CheckFault(L"Save", {wsFolder}); });
}

void StoreState::Reset()
{
    EnsureLoaded();
    m_repository.Clear();
    m_repository.ClearTracking();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_wsFolder.clear();
    m_faults.clear();
    m_records.clear();
    m_lCalls = 0;
    m_bRecordCalls = false;
    m_calls.clear();
}

HRESULT StoreState::CheckFault(const wchar_t* wszMethod, const std::vector<std::wstring>& targets,
                               const std::wstring& wsNamespace)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_lCalls;
    if (m_bRecordCalls)
        m_calls.push_back({wszMethod, wsNamespace, targets});
    for (FaultRule& rule : m_faults) {
        if (!rule.method.empty() && !EqualsNoCase(rule.method, wszMethod))
            continue;
        if (!rule.target.empty() &&
            std::none_of(targets.begin(), targets.end(),
                         [&](const std::wstring& wsTarget) { return EqualsNoCase(rule.target, wsTarget); }))
            continue;
        ++rule.seen;
        if (rule.nth == 0 || rule.nth == rule.seen)
            return rule.hr;
    }
    return S_OK;
}

void StoreState::AddFault(FaultRule rule)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.push_back(std::move(rule));
}

void StoreState::ClearFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faults.clear();
    m_lCalls = 0;
}

void StoreState::RecordCalls(bool bOn)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bRecordCalls = bOn;
    m_calls.clear();
}

std::vector<CallRecord> StoreState::CallRecords() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

long StoreState::CallCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lCalls;
}

void StoreState::RecordLocatorClass(const CLSID& clsid)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastLocatorClass = clsid;
}

CLSID StoreState::LastLocatorClass() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastLocatorClass;
}

void StoreState::RecordContext(const wchar_t* wszMethod, IWbemContext* pContext)
{
    ContextRecord record;
    record.method = wszMethod;
    if (pContext) {
        // Enumeration where the context supports it, else the names this system uses.
        if (SUCCEEDED(pContext->BeginEnumeration(0))) {
            for (;;) {
                CCBstr bstrName;
                CCVariant value;
                if (pContext->Next(0, bstrName.GetAddress(), value.GetAddress()) != S_OK)
                    break;
                record.values.emplace_back(bstrName ? bstrName.Get() : L"", VariantText(value.Get()));
            }
            pContext->EndEnumeration();
        }
        if (record.values.empty()) {
            // Wine's context enumerates nothing; its names list still tells what it holds.
            CCSafeArray names;
            std::vector<std::wstring> wanted;
            if (SUCCEEDED(pContext->GetNames(0, names.GetAddress())) && names.Get()) {
                LONG lLower = 0;
                LONG lUpper = -1;
                SafeArrayGetLBound(names.Get(), 1, &lLower);
                SafeArrayGetUBound(names.Get(), 1, &lUpper);
                for (LONG i = lLower; i <= lUpper; ++i) {
                    CCBstr bstrName;
                    if (SUCCEEDED(SafeArrayGetElement(names.Get(), &i, bstrName.GetAddress())) && bstrName)
                        wanted.push_back(bstrName.Get());
                }
            }
            if (wanted.empty())
                wanted = {L"FeatureName", L"FeatureVersion", L"ContextName"};
            for (const std::wstring& wsName : wanted) {
                CCVariant value;
                if (SUCCEEDED(pContext->GetValue(wsName.c_str(), 0, value.GetAddress())))
                    record.values.emplace_back(wsName, VariantText(value.Get()));
            }
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.push_back(std::move(record));
}

std::vector<ContextRecord> StoreState::ContextRecords() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

void StoreState::ClearContextRecords()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    // Released, not only emptied: a long run clears the log to measure what else the process holds.
    std::vector<ContextRecord>().swap(m_records);
}

}  // namespace cimstore::com
