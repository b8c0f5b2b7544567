// Notification id 62: programs added to or removed from each user's autostart entries, found by
// comparing the user's startup commands with those stored at the previous cycle.
#pragma once

#include "notifications/inventory/CNotfyInventoryChange.h"

#include <string>
#include <vector>

class CNotfyAutoStartMonitoring : public CNotfyInventoryChange {
public:
    static constexpr unsigned long kNotfyId = 62;

    CNotfyAutoStartMonitoring();
    ~CNotfyAutoStartMonitoring() override;

    HRESULT Init(IWbemServices* pNamespace, const CNotfyNames* pNames) override;
    HRESULT RetrieveInstances() override;
    bool IsSupported() override;

    // True when the upper-cased name occurs anywhere in the exclude list (so an empty name always does).
    bool IsApplicationFiltered(const char* szAppName);
    // Copies the user's startup entries from source (a COXL_AllStartupCommand) into the event.
    HRESULT CopyProperties(CCWMIAccess& source);
    // The event values of the user on which source stands; the result of CheckChanges.
    HRESULT SetEventData(CCWMIAccess& source);
    // Compares the user's commands with the stored ones; appends the added and removed lists to
    // arguments on a change. 0, NOTFY_S_NO_REFERENCE, NOTFY_S_LIST_CHANGED or a failure.
    HRESULT CheckChanges(CCWMIAccess& source, std::vector<std::wstring>& arguments);

private:
    // This kind's settings key under HKEY_LOCAL_MACHINE.
    std::string SettingsKey() const;
    void ReadExcludeList();

    std::string m_sDataQuery = "select * from COXL_AllStartupCommand";
    std::string m_sExcludeList;  // upper case
};
