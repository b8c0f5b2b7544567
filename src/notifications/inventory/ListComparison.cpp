#include "notifications/inventory/ListComparison.h"

#include "access/ComHolders.h"
#include "core/EventValues.h"

#include <cstdint>
#include <unordered_set>

namespace {

wchar_t Fold(wchar_t c)
{
    return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

// FNV-1a over the folded characters, so that equal entries hash alike.
struct CFoldedHash {
    size_t operator()(std::wstring_view ws) const noexcept
    {
        uint64_t ullHash = 14695981039346656037ull;
        for (const wchar_t c : ws) {
            ullHash ^= static_cast<uint64_t>(Fold(c));
            ullHash *= 1099511628211ull;
        }
        return static_cast<size_t>(ullHash);
    }
};

struct CFoldedEqual {
    bool operator()(std::wstring_view wsFirst, std::wstring_view wsSecond) const noexcept
    {
        return IsSameEntry(wsFirst, wsSecond);
    }
};

// Views into the list, which outlives the set.
using CFoldedSet = std::unordered_set<std::wstring_view, CFoldedHash, CFoldedEqual>;

CFoldedSet MakeSet(const std::vector<std::wstring>& entries)
{
    CFoldedSet set;
    set.reserve(entries.size());
    for (const std::wstring& ws : entries)
        set.insert(ws);
    return set;
}

std::vector<size_t> Unmatched(const std::vector<std::wstring>& entries, const CFoldedSet& others,
                              const CEntryFilter& isFiltered)
{
    std::vector<size_t> result;
    for (size_t u = 0; u < entries.size(); ++u) {
        if (isFiltered && isFiltered(u))
            continue;
        if (others.find(entries[u]) == others.end())
            result.push_back(u);
    }
    return result;
}

}  // namespace

bool IsSameEntry(std::wstring_view wsFirst, std::wstring_view wsSecond)
{
    if (wsFirst.size() != wsSecond.size())
        return false;
    for (size_t u = 0; u < wsFirst.size(); ++u)
        if (Fold(wsFirst[u]) != Fold(wsSecond[u]))
            return false;
    return true;
}

CListChanges CompareLists(const std::vector<std::wstring>& current, const std::vector<std::wstring>& old,
                          const CEntryFilter& isCurrentFiltered, const CEntryFilter& isOldFiltered)
{
    CListChanges changes;
    changes.added = Unmatched(current, MakeSet(old), isCurrentFiltered);
    changes.removed = Unmatched(old, MakeSet(current), isOldFiltered);
    return changes;
}

std::wstring FormatEntries(const std::vector<size_t>& indices, const std::vector<std::wstring>& names,
                           const std::vector<long>* pTypes)
{
    if (indices.empty())
        return L"--";
    std::wstring wsText;
    bool bFirst = true;
    for (const size_t u : indices) {
        if (!bFirst)
            wsText += L", ";
        bFirst = false;
        wsText += names.at(u);
        if (pTypes) {
            wsText += L" [";
            wsText += std::to_wstring(pTypes->at(u));
            wsText += L"]";
        }
    }
    return wsText;
}

HRESULT ReadEntryList(CCWMIAccess& access, const char* szProperty, std::vector<std::wstring>* pEntries)
{
    HRESULT hr = ReadTextArray(access, szProperty, pEntries);
    if (hr != static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH))
        return hr;
    // An item without entries may carry no array at all.
    CCVariant value;
    hr = access.GetProperty(szProperty, value.GetAddress(), false, 0);
    if (SUCCEEDED(hr) && value.Type() != VT_NULL && value.Type() != VT_EMPTY)
        hr = WBEM_E_TYPE_MISMATCH;
    if (SUCCEEDED(hr))
        pEntries->clear();
    return hr;
}

void WriteListOutcome(CCWMIAccess& event, unsigned long ulNotfyId, HRESULT hrChanges,
                      const std::vector<std::wstring>* pArguments, const char* szQualifiedName)
{
    const bool bChanged = hrChanges == NOTFY_S_LIST_CHANGED;
    const LONG lTextBase = static_cast<LONG>(ulNotfyId * 1000);
    WriteEventState(event, bChanged ? 2 : 1, lTextBase + (bChanged ? 10 : 1), szQualifiedName);
    if (pArguments)
        RaiseIfFailed(PutTextArray(event, "EventTextArguments", *pArguments), szQualifiedName,
                      "Raising exception because SetProperty on 'EventTextArguments' failed");
    RaiseIfFailed(PutI4(event, "EventType", bChanged ? 5 : 3), szQualifiedName,
                  "Raising exception because SetProperty on 'EventType' failed");
}
