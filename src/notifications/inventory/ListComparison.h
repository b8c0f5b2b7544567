// The comparison of a current text list with the list stored at the previous cycle, shared by
// the autostart and service kinds, and the event values that its outcome gives.
#pragma once

#include "access/CCWMIAccess.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Results of the list kinds' CheckChanges besides 0 (no change).
constexpr HRESULT NOTFY_S_NO_REFERENCE = 0x00040002;  // nothing stored yet for this item
constexpr HRESULT NOTFY_S_LIST_CHANGED = 0x00040003;  // entries added or removed

struct CListChanges {
    std::vector<size_t> added;    // indices into the current list, ascending
    std::vector<size_t> removed;  // indices into the old list, ascending
    bool Empty() const { return added.empty() && removed.empty(); }
};

// Answers true for an index whose entry is left out of the result. A left-out entry still
// counts as the equal of an entry of the other list.
using CEntryFilter = std::function<bool(size_t uIndex)>;

// Equal entries: letters A to Z compared without case, every other character as it stands.
bool IsSameEntry(std::wstring_view wsFirst, std::wstring_view wsSecond);

// Added: current entries that no old entry equals; removed: old entries that no current entry
// equals. Duplicates take part as they stand, so the result is that of comparing every pair,
// in expected linear time.
CListChanges CompareLists(const std::vector<std::wstring>& current, const std::vector<std::wstring>& old,
                          const CEntryFilter& isCurrentFiltered = nullptr, const CEntryFilter& isOldFiltered = nullptr);

// "--" for no indices; else the named entries joined by ", ", each as "name" or, with types,
// as "name [type]". Every index must be within names (and types).
std::wstring FormatEntries(const std::vector<size_t>& indices, const std::vector<std::wstring>& names,
                           const std::vector<long>* pTypes = nullptr);

// Reads a string-array property; a NULL (or empty) value is an empty list.
HRESULT ReadEntryList(CCWMIAccess& access, const char* szProperty, std::vector<std::wstring>* pEntries);

// Writes EventStatus, EventTextId, EventTextArguments (when pArguments is given) and EventType
// for a CheckChanges result: NOTFY_S_LIST_CHANGED 5/2/id x 1000 + 10, else 3/1/id x 1000 + 1.
void WriteListOutcome(CCWMIAccess& event, unsigned long ulNotfyId, HRESULT hrChanges,
                      const std::vector<std::wstring>* pArguments, const char* szQualifiedName);
