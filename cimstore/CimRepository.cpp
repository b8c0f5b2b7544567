#include "cimstore/CimRepository.h"

#include "cimstore/MofCompiler.h"
#include "cimstore/MofWriter.h"
#include "cimstore/WqlQuery.h"

#include <new>

namespace cimstore {

class CimRepository::SharedLock {
public:
    explicit SharedLock(SRWLOCK& lock) : m_lock(lock) { AcquireSRWLockShared(&m_lock); }
    ~SharedLock() { ReleaseSRWLockShared(&m_lock); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    SRWLOCK& m_lock;
};

class CimRepository::ExclusiveLock {
public:
    explicit ExclusiveLock(SRWLOCK& lock) : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
    ~ExclusiveLock() { ReleaseSRWLockExclusive(&m_lock); }
    ExclusiveLock(const ExclusiveLock&) = delete;
    ExclusiveLock& operator=(const ExclusiveLock&) = delete;

private:
    SRWLOCK& m_lock;
};

namespace {

// Runs fn, turning an allocation failure into an HRESULT: nothing may throw past this layer.
template <typename Fn>
HRESULT Guard(Fn&& fn)
{
    try {
        return fn();
    } catch (const std::bad_alloc&) {
        return Hr(WBEM_E_OUT_OF_MEMORY);
    } catch (...) {
        return Hr(WBEM_E_FAILED);
    }
}

std::wstring ChangeKey(const CimNamespace& ns, const std::wstring& wsIdentity)
{
    return Fold(ns.Name()) + L"|" + wsIdentity;
}

}  // namespace

std::wstring NormalizeNamespace(std::wstring_view wsName)
{
    std::wstring out(wsName);
    for (wchar_t& ch : out)
        if (ch == L'/')
            ch = L'\\';
    if (out.rfind(L"\\\\", 0) == 0) {
        const size_t slash = out.find(L'\\', 2);
        out = slash == std::wstring::npos ? std::wstring() : out.substr(slash + 1);
    }
    while (!out.empty() && out.back() == L'\\')
        out.pop_back();
    while (!out.empty() && out.front() == L'\\')
        out.erase(0, 1);
    return out;
}

std::wstring DefaultServerName()
{
    wchar_t buf[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD cch = MAX_COMPUTERNAME_LENGTH + 1;
    return GetComputerNameW(buf, &cch) ? std::wstring(buf, cch) : std::wstring(L".");
}

RepositoryTransaction::RepositoryTransaction(const RepositoryState& state, std::wstring wsServer, bool bTrack)
    : m_state(state), m_wsServer(std::move(wsServer)), m_bTrack(bTrack)
{
}

const CimNamespace* RepositoryTransaction::FindNamespace(std::wstring_view wsName) const
{
    const auto it = m_state.namespaces.find(Fold(NormalizeNamespace(wsName)));
    return it == m_state.namespaces.end() ? nullptr : it->second.get();
}

CimNamespace* RepositoryTransaction::WritableNamespace(std::wstring_view wsName, bool bCreate)
{
    const std::wstring name = NormalizeNamespace(wsName);
    const std::wstring key = Fold(name);
    auto it = m_state.namespaces.find(key);
    if (it == m_state.namespaces.end()) {
        if (!bCreate || name.empty())
            return nullptr;
        const size_t slash = name.rfind(L'\\');
        if (slash != std::wstring::npos)
            WritableNamespace(name.substr(0, slash), true);
        it = m_state.namespaces.emplace(key, std::make_shared<CimNamespace>(name)).first;
        m_cloned.insert(key);
    } else if (!m_cloned.count(key)) {
        it->second = std::make_shared<CimNamespace>(*it->second);
        m_cloned.insert(key);
    }
    return it->second.get();
}

void RepositoryTransaction::RecordPut(const CimNamespace& ns, const CimInstancePtr& instance)
{
    if (m_bTrack)
        m_changes[ChangeKey(ns, instance->IdentityKey())] = TrackedChange{ns.Name(), instance->RelPath(), instance};
}

void RepositoryTransaction::RecordDelete(const CimNamespace& ns, const CimInstancePtr& instance)
{
    if (m_bTrack)
        m_changes[ChangeKey(ns, instance->IdentityKey())] = TrackedChange{ns.Name(), instance->RelPath(), nullptr};
}

void RepositoryTransaction::SetTracking(bool bTrack) { m_bTrack = bTrack; }

CimRepository::CimRepository(std::wstring wsServer) : m_wsServer(std::move(wsServer)) { Clear(); }

void CimRepository::Clear()
{
    ExclusiveLock lock(m_lock);
    m_state.namespaces.clear();
    m_state.namespaces.emplace(L"root", std::make_shared<CimNamespace>(L"root"));
    m_changes.clear();
}

const CimNamespace* CimRepository::FindNamespaceLocked(std::wstring_view wsName) const
{
    const auto it = m_state.namespaces.find(Fold(NormalizeNamespace(wsName)));
    return it == m_state.namespaces.end() ? nullptr : it->second.get();
}

HRESULT CimRepository::CreateNamespace(std::wstring_view wsName)
{
    return Guard([&] {
        ExclusiveLock lock(m_lock);
        const std::wstring name = NormalizeNamespace(wsName);
        if (!EqualsNoCase(name.substr(0, name.find(L'\\')), L"root"))
            return Hr(WBEM_E_INVALID_NAMESPACE);
        if (FindNamespaceLocked(name))
            return Hr(WBEM_E_ALREADY_EXISTS);
        RepositoryTransaction tx(m_state, m_wsServer, false);
        tx.WritableNamespace(name, true);
        m_state = std::move(tx.State());
        return S_OK;
    });
}

bool CimRepository::HasNamespace(std::wstring_view wsName) const
{
    SharedLock lock(m_lock);
    return FindNamespaceLocked(wsName) != nullptr;
}

std::vector<std::wstring> CimRepository::Namespaces() const
{
    SharedLock lock(m_lock);
    std::vector<std::wstring> out;
    for (const auto& entry : m_state.namespaces)
        out.push_back(entry.second->Name());
    return out;
}

HRESULT CimRepository::GetClass(std::wstring_view wsNs, std::wstring_view wsClass, CimClassPtr& out) const
{
    return Guard([&] {
        SharedLock lock(m_lock);
        const CimNamespace* pNs = FindNamespaceLocked(wsNs);
        if (!pNs)
            return Hr(WBEM_E_INVALID_NAMESPACE);
        out = pNs->FindClass(wsClass);
        return out ? S_OK : Hr(WBEM_E_NOT_FOUND);
    });
}

HRESULT CimRepository::EnumClasses(std::wstring_view wsNs, std::wstring_view wsSuperclass, bool bDeep,
                                   std::vector<CimClassPtr>& out) const
{
    return Guard([&] {
        SharedLock lock(m_lock);
        out.clear();
        const CimNamespace* pNs = FindNamespaceLocked(wsNs);
        if (!pNs)
            return Hr(WBEM_E_INVALID_NAMESPACE);
        if (!wsSuperclass.empty() && !pNs->FindClass(wsSuperclass))
            return Hr(WBEM_E_INVALID_CLASS);
        for (const CimClassPtr& cls : pNs->Classes()) {
            const bool bDirect = wsSuperclass.empty() ? !cls->Parent()
                                                      : EqualsNoCase(cls->SuperclassName(), wsSuperclass);
            const bool bBelow = wsSuperclass.empty() || (cls->InheritsFrom(wsSuperclass) &&
                                                         !EqualsNoCase(cls->Name(), wsSuperclass));
            if (bDeep ? bBelow : bDirect)
                out.push_back(cls);
        }
        return S_OK;
    });
}

HRESULT CimRepository::SpawnInstance(std::wstring_view wsNs, std::wstring_view wsClass, CimInstance& out) const
{
    return Guard([&] {
        CimClassPtr cls;
        const HRESULT hr = GetClass(wsNs, wsClass, cls);
        if (hr == Hr(WBEM_E_NOT_FOUND))
            return Hr(WBEM_E_INVALID_CLASS);
        if (FAILED(hr))
            return hr;
        out = CimInstance(cls);
        return S_OK;
    });
}

HRESULT CimRepository::GetInstance(std::wstring_view wsNs, std::wstring_view wsPath, CimInstance& out) const
{
    return Guard([&] {
        ObjectPath path;
        HRESULT hr = ParseObjectPath(wsPath, path);
        if (FAILED(hr))
            return hr;
        SharedLock lock(m_lock);
        const CimNamespace* pNs = FindNamespaceLocked(path.ns.empty() ? wsNs : std::wstring_view(path.ns));
        if (!pNs)
            return Hr(WBEM_E_INVALID_NAMESPACE);
        CimInstancePtr found;
        hr = pNs->GetInstance(path, found);
        if (SUCCEEDED(hr))
            out = *found;
        return hr;
    });
}

HRESULT CimRepository::PutInstance(std::wstring_view wsNs, const CimInstance& instance, long lFlags,
                                   std::wstring* pwsRelPath)
{
    return Guard([&] {
        ExclusiveLock lock(m_lock);
        const auto it = m_state.namespaces.find(Fold(NormalizeNamespace(wsNs)));
        if (it == m_state.namespaces.end())
            return Hr(WBEM_E_INVALID_NAMESPACE);
        CimInstancePtr stored;
        const HRESULT hr = it->second->PutInstance(instance, lFlags, &stored);
        if (FAILED(hr))
            return hr;
        m_changes[ChangeKey(*it->second, stored->IdentityKey())] =
            TrackedChange{it->second->Name(), stored->RelPath(), stored};
        if (pwsRelPath)
            *pwsRelPath = stored->RelPath();
        return S_OK;
    });
}

HRESULT CimRepository::DeleteInstance(std::wstring_view wsNs, std::wstring_view wsPath)
{
    return Guard([&] {
        ObjectPath path;
        HRESULT hr = ParseObjectPath(wsPath, path);
        if (FAILED(hr))
            return hr;
        ExclusiveLock lock(m_lock);
        const auto it = m_state.namespaces.find(Fold(NormalizeNamespace(path.ns.empty() ? wsNs : path.ns)));
        if (it == m_state.namespaces.end())
            return Hr(WBEM_E_INVALID_NAMESPACE);
        CimInstancePtr deleted;
        hr = it->second->DeleteInstance(path, &deleted);
        if (FAILED(hr))
            return hr;
        m_changes[ChangeKey(*it->second, deleted->IdentityKey())] =
            TrackedChange{it->second->Name(), deleted->RelPath(), nullptr};
        return S_OK;
    });
}

HRESULT CimRepository::EnumInstances(std::wstring_view wsNs, std::wstring_view wsClass,
                                     std::vector<CimInstance>& out) const
{
    return Guard([&] {
        SharedLock lock(m_lock);
        out.clear();
        const CimNamespace* pNs = FindNamespaceLocked(wsNs);
        if (!pNs)
            return Hr(WBEM_E_INVALID_NAMESPACE);
        const CimClassPtr cls = pNs->FindClass(wsClass);
        if (!cls)
            return Hr(WBEM_E_INVALID_CLASS);
        pNs->ForEachInstance(*cls, [&](const CimInstancePtr& p) { out.push_back(*p); });
        return S_OK;
    });
}

HRESULT CimRepository::ExecQuery(std::wstring_view wsNs, std::wstring_view wsQuery,
                                 std::vector<CimInstance>& out) const
{
    return Guard([&] {
        SharedLock lock(m_lock);
        out.clear();
        const CimNamespace* pNs = FindNamespaceLocked(wsNs);
        if (!pNs)
            return Hr(WBEM_E_INVALID_NAMESPACE);
        return ExecuteWql(*pNs, wsQuery, out);
    });
}

MofResult CimRepository::Compile(const std::vector<std::wstring>& files, std::wstring_view wsText,
                                 size_t firstTracked, std::wstring_view wsNamespace, bool bText)
{
    MofResult result;
    const HRESULT hr = Guard([&] {
        ExclusiveLock lock(m_lock);
        RepositoryTransaction tx(m_state, m_wsServer, false);
        try {
            for (size_t i = 0; i < files.size(); ++i) {
                tx.SetTracking(i >= firstTracked);
                MofCompiler compiler(tx, wsNamespace);
                if (bText)
                    compiler.CompileText(wsText, files[i]);
                else
                    compiler.CompileFile(files[i]);
            }
        } catch (const MofError& error) {
            result.hr = error.hr;
            result.file = error.file;
            result.line = error.line;
            result.column = error.column;
            result.message = error.file + L":" + std::to_wstring(error.line) + L":" + std::to_wstring(error.column) +
                             L": " + error.text;
            return error.hr;
        }
        m_state = std::move(tx.State());
        for (auto& change : tx.Changes())
            m_changes[change.first] = std::move(change.second);
        return S_OK;
    });
    if (FAILED(hr) && SUCCEEDED(result.hr)) {
        result.hr = hr;
        result.message = L"the compilation failed";
    }
    return result;
}

MofResult CimRepository::CompileText(std::wstring_view wsText, std::wstring_view wsFile,
                                     std::wstring_view wsNamespace, bool bTrack)
{
    return Compile({std::wstring(wsFile)}, wsText, bTrack ? 0 : 1, wsNamespace, true);
}

MofResult CimRepository::CompileFile(std::wstring_view wsPath, std::wstring_view wsNamespace, bool bTrack)
{
    return Compile({std::wstring(wsPath)}, {}, bTrack ? 0 : 1, wsNamespace, false);
}

MofResult CimRepository::CompileFiles(const std::vector<std::wstring>& files, size_t firstTracked,
                                      std::wstring_view wsNamespace)
{
    return Compile(files, {}, firstTracked, wsNamespace, false);
}

HRESULT CimRepository::SerializeNamespace(std::wstring_view wsNs, bool bClasses, std::wstring& out) const
{
    return Guard([&] {
        SharedLock lock(m_lock);
        const CimNamespace* pNs = FindNamespaceLocked(wsNs);
        if (!pNs)
            return Hr(WBEM_E_INVALID_NAMESPACE);
        out.clear();
        if (bClasses)
            for (const CimClassPtr& cls : pNs->Classes())
                WriteClassMof(*cls, out);
        for (const CimClassPtr& cls : pNs->Classes())
            pNs->ForEachInstance(*cls, [&](const CimInstancePtr& p) { WriteInstanceMof(*p, out); }, false);
        return S_OK;
    });
}

HRESULT CimRepository::SerializeChanges(std::wstring& out) const
{
    return Guard([&] {
        SharedLock lock(m_lock);
        out.clear();
        std::wstring wsCurrent;
        for (int pass = 0; pass < 2; ++pass) {
            for (const auto& entry : m_changes) {
                const TrackedChange& change = entry.second;
                if ((pass == 0) != (change.written == nullptr))
                    continue;
                if (!EqualsNoCase(change.ns, wsCurrent)) {
                    wsCurrent = change.ns;
                    out += L"#pragma namespace(" + MofString(L"\\\\.\\" + change.ns) + L")\n\n";
                }
                if (change.written)
                    WriteInstanceMof(*change.written, out);
                else
                    out += L"#pragma deleteinstance(" + MofString(change.relPath) + L", NOFAIL)\n\n";
            }
        }
        return S_OK;
    });
}

void CimRepository::ClearTracking()
{
    ExclusiveLock lock(m_lock);
    m_changes.clear();
}

size_t CimRepository::TrackedChangeCount() const
{
    SharedLock lock(m_lock);
    return m_changes.size();
}

}  // namespace cimstore
