// The base of every notification kind: the retrieval cycle the handler drives, the list of
// event instances built, and the scan for stored instances that have become obsolete.
#pragma once

#include "access/CCWMIAccess.h"

#include <wrl/client.h>

#include <map>
#include <string>
#include <vector>

// Private success codes of the notification layer.
constexpr HRESULT NOTFY_S_UNCHANGED = 0x00040001;     // cached data, or status unchanged (caller sets NoPut)
constexpr HRESULT NOTFY_S_SKIP = 0x00040005;          // skip this item
constexpr HRESULT NOTFY_S_NOTHING_TO_DELETE = 0x00040017;

// The feature identity handed to Init, in this order.
struct CNotfyNames {
    const char* szFeatureName;
    const char* szFeatureVersion;
    const char* szContextName;
};

class CNotfyBase {
public:
    CNotfyBase();
    virtual ~CNotfyBase();
    CNotfyBase(const CNotfyBase&) = delete;
    CNotfyBase& operator=(const CNotfyBase&) = delete;

    // With ppInstances null: retrieves (once) and counts. Otherwise also copies the listed
    // pointers into ppInstances, each with a reference for the caller.
    virtual HRESULT GetInstances(IWbemClassObject** ppInstances, unsigned long* pulNoOfInstances);
    virtual HRESULT DeleteObsoleteInstances();
    virtual HRESULT Init(IWbemServices* pNamespace, const CNotfyNames* pNames);
    virtual HRESULT RetrieveInstances() = 0;
    virtual HRESULT SetCommonData();
    virtual HRESULT AddToList();
    virtual HRESULT SetEventType(unsigned long dwStatus);
    virtual unsigned long GetThresholdState(ULONGLONG ullCurrent, LONGLONG* pllLowWarning, LONGLONG* pllLowCritical,
                                            LONGLONG* pllHighWarning, LONGLONG* pllHighCritical);
    virtual HRESULT GetObsoleteInstances();
    virtual HRESULT DeleteInstancesInList();
    virtual bool IsInstanceObsolete(CCWMIAccess& stored, CCWMIAccess& live);
    virtual bool IsSupported();

    unsigned long GetNotfyId() const { return m_ulNotfyId; }
    const std::string& GetEventClassName() const { return m_sEventClassName; }
    size_t GetObsoleteCount() const { return m_obsoleteList.size(); }
    bool IsRetrieved() const { return m_bRetrieved; }

protected:
    using CInstanceList = std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>>;

    static void Append(CInstanceList& list, IWbemClassObject* pObject);
    // The last steps for the event built in m_wmi: NoPut when hrData says unchanged, the common
    // data, the list. Raises the first failure.
    void CompleteEvent(HRESULT hrData, const char* szQualifiedName);

    unsigned long m_ulNotfyId = 0;
    std::string m_sEventClassName;
    CCWMIAccess m_wmi;
    CInstanceList m_instanceList;
    CInstanceList m_obsoleteList;
    bool m_bRetrieved = false;
    std::map<std::string, std::string> m_context;
    std::string m_sReferencedNamespace = "root\\cimv2";
    std::string m_sAuxiliary;
};
