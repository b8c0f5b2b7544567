// The base of every notification kind: the retrieval cycle the handler drives, the list of
// event instances built, and the scan for stored instances that have become obsolete.
#pragma once

#include "access/CCWMIAccess.h"
#include "core/CNotificationModify.h"

#include <wrl/client.h>

#include <functional>
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

// Trace texts of the steps that build one event from a source instance; the defaults are the
// usual wording, and a kind replaces those that it words differently.
struct CEventStepTexts {
    const char* szNewInstance = "Raising exception because NewInstance failed.";
    const char* szObject = "Raising exception because setting 'Object' reference failed.";
    const char* szDeviceId = "Raising exception because setting 'DeviceId' failed.";
    const char* szSetEventData = "Raising exception because SetEventData failed.";
    const char* szNoPut = "Raising exception because SetQualifier with 'NoPut' failed.";
    const char* szCommonData = "Raising exception because SetCommonData failed.";
    const char* szAddToList = "Raising exception because AddToList failed.";
};

// What a source query that finds nothing means to a kind.
enum class ENoSourceData { Success, Failure };

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

    // What the caller already holds for this request, offered before Init: a context with the
    // values Init would give (this request's own copy) and a locator. Either may be null.
    void ShareRequestEnvironment(IWbemContext* pContext, IWbemLocator* pLocator, bool bLocatorInProvider);

    unsigned long GetNotfyId() const { return m_ulNotfyId; }
    const std::string& GetEventClassName() const { return m_sEventClassName; }
    size_t GetObsoleteCount() const { return m_obsoleteList.size(); }
    bool IsRetrieved() const { return m_bRetrieved; }

protected:
    using CInstanceList = std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>>;

    static void Append(CInstanceList& list, IWbemClassObject* pObject);

    // The source loop: connects an access object with the feature context to szNamespace, runs
    // szQuery and calls perItem with it positioned on each result instance in turn. A query without
    // data ends with success (or, for ENoSourceData::Failure, with its code); another failure is
    // traced and returned. What perItem raises ends only that item; failures are traced, success
    // codes (skip the item) are not.
    HRESULT ForEachSourceInstance(const char* szQualifiedName, const char* szNamespace, const char* szQuery,
                                  const std::function<void(CCWMIAccess& source)>& perItem,
                                  ENoSourceData noData = ENoSourceData::Success);
    // NewInstance of the event class in m_wmi and Object := the source's __RelPath; with
    // bCopyDeviceId also DeviceId := the source's DeviceID. Raises the step's text on failure.
    void BeginEvent(CCWMIAccess& source, const CEventStepTexts& texts, const char* szQualifiedName,
                    bool bCopyDeviceId = true);
    // The last steps for the event built in m_wmi: NoPut when hrData says unchanged, the common
    // data, the list. Raises the first failure.
    void CompleteEvent(HRESULT hrData, const char* szQualifiedName, const CEventStepTexts& texts = {});
    // Fetches, into stored (attached to the event namespace with the feature context), the stored
    // instance whose path is the __RelPath of the event being built. WBEM_E_NOT_FOUND when none is.
    HRESULT GetStoredInstance(CCWMIAccess& stored);
    // Attaches stored to the event namespace with the feature context and enumerates the stored
    // instances of the event class; false, traced "No instances to delete. ", when there are none to
    // examine (with bNeedReferencedNamespace also when the referenced-object namespace is empty).
    bool OpenStoredInstances(CCWMIAccess& stored, const char* szQualifiedName, bool bNeedReferencedNamespace);
    // After an unchanged status: true when the stored instance exists and one of the properties
    // differs from the event's (variant comparison, user's default locale).
    bool StoredDiffers(std::initializer_list<const char*> properties);
    // The event type from the stored instance's status: not stored 1 for status 2 or 3 else 3; equal
    // 3 and NOTFY_S_UNCHANGED (traced with szSameText); worse now 1; better now lImprovedType.
    HRESULT SetEventTypeFromStored(unsigned long dwStatus, LONG lImprovedType, const char* szQualifiedName,
                                   const char* szSameText);
    // The usual item of the source loop over m_sAuxiliary in m_sReferencedNamespace: BeginEvent,
    // setEventData (a failure raised with the step's text; NOTFY_S_SKIP ends the item), CompleteEvent.
    HRESULT RetrieveSourceEvents(const char* szQualifiedName, const CEventStepTexts& texts,
                                 const std::function<HRESULT(CCWMIAccess& source)>& setEventData);
    // Prepares access for this request's store calls: the request's context and, with szNamespace,
    // a connection to it. A namespace is connected once per request and the connection shared.
    HRESULT OpenAccess(CCWMIAccess& access, const char* szNamespace = nullptr) const;
    // The feature context value of szKey, empty when absent.
    std::string ContextValue(const char* szKey) const;

    unsigned long m_ulNotfyId = 0;
    std::string m_sEventClassName;
    CCWMIAccess m_wmi;
    CInstanceList m_instanceList;
    CInstanceList m_obsoleteList;
    bool m_bRetrieved = false;
    std::map<std::string, std::string> m_context;
    std::string m_sReferencedNamespace = "root\\cimv2";
    std::string m_sAuxiliary;

private:
    mutable std::map<std::string, Microsoft::WRL::ComPtr<IWbemServices>> m_connections;
    Microsoft::WRL::ComPtr<IWbemContext> m_pSharedContext;
    Microsoft::WRL::ComPtr<IWbemLocator> m_pSharedLocator;
    bool m_bSharedLocatorInProvider = false;
    CCommonNames m_commonNames;
};
