// The change-detection scheme of the inventory kinds: each current item becomes an event whose key
// is looked up among the stored reference instances (first inventory, unchanged, added, changed),
// and stored instances whose item has vanished come back as removal events.
#pragma once

#include "core/CNotfyBase.h"

#include <string>
#include <vector>

enum class EInventoryOutcome { FirstInventory, Unchanged, Added, Changed };

class CNotfyInventoryChange : public CNotfyBase {
protected:
    // szKindName ("CNotfyDeviceChange") names the kind in its trace lines.
    explicit CNotfyInventoryChange(const char* szKindName);

    // First inventory: no stored instance of the event class has DeviceId 1. Another failure of
    // that probe is reported to the event log with the event class name, traced and raised.
    bool IsFirstInventoryByQuery(const char* szQualifiedName);
    // Looks up the event being built among the stored instances by its __RelPath: Added when it is
    // not stored, else Unchanged with stored positioned on it. Another failure is traced and raised.
    EInventoryOutcome LookupStored(CCWMIAccess& stored, const char* szQualifiedName);
    // Writes EventStatus, EventTextId (event id x 1000 + case), EventTextArguments and EventType of
    // the outcome, in that order; answers NOTFY_S_UNCHANGED for an unchanged item, else S_OK.
    HRESULT WriteOutcome(EInventoryOutcome outcome, const std::vector<std::wstring>& arguments,
                         const char* szQualifiedName);
    // Turns the base's obsolete list into removal events (5/3/event id x 1000 + 3) that keep the
    // values stored with them.
    HRESULT AddObsoleteInstances();
    // Puts a failing class or query into the event log when logging is on for the feature.
    void ReportQueryFailure(const char* szArgument);
    // "CNotfyDeviceChange::" + szMethod, for trace lines.
    std::string QualifiedName(const char* szMethod) const;

    const char* m_szKindName;
};
