// The one creatable COM class: maps a notification id to its kind, drives one notification
// object per request and hands the event instances back as an automation array. IUnknown and
// IDispatch come from the module's object wrapper (CCComObject).
#pragma once

#include "core/CCCriticalSection.h"
#include "core/CNotfyBase.h"
#include "framework/CCAssembly.h"
#include "framework/CCComponentT.h"
#include "module/INotifications.h"

#include <wrl/client.h>

#include <array>
#include <memory>

class CNotificationHandler : public INotifications {
public:
    using Interface = INotifications;
    static const IID& InterfaceId() { return IID_INotifications; }

    // The complete id table, in the agent's catalogue order; a null factory marks a kind that
    // this build does not contain (its id then answers as an unknown id does).
    struct KindEntry {
        unsigned long ulNotfyId;
        const char* szClassName;
        CNotfyBase* (*pfnCreate)();
    };
    static const std::array<KindEntry, 20>& KindTable();

    CNotificationHandler();
    virtual ~CNotificationHandler();
    CNotificationHandler(const CNotificationHandler&) = delete;
    CNotificationHandler& operator=(const CNotificationHandler&) = delete;

    HRESULT FinalConstruct();
    void FinalRelease();

    // A new object of the id's kind, or null for an unknown id, a kind missing from this build
    // or a failed allocation.
    static CNotfyBase* GetDataObject(unsigned long ulNotfyId);

    // The rest of a GetInstances request once the object is prepared: retrieve and count, fetch the
    // instances, destroy the object, hand the array over. Tests drive it with kinds of their own.
    static HRESULT CollectInstances(std::unique_ptr<CNotfyBase> pObject, ULONG ulNotfyId, VARIANT* pvInstances,
                                    ULONG* pulReturnValue);

    HRESULT STDMETHODCALLTYPE ComponentInitialize(BSTR sFeatureName, BSTR sFeatureVersion, BSTR sContextName,
                                                  VARIANT_BOOL* pRetVal) override;
    HRESULT STDMETHODCALLTYPE Initialize(BSTR bstrNamespace, ULONG* pulReturnValue) override;
    HRESULT STDMETHODCALLTYPE GetInstances(ULONG ulNotfyId, VARIANT* pvInstances, ULONG* pulReturnValue) override;
    HRESULT STDMETHODCALLTYPE DeleteObsoleteInstances(ULONG ulNotfyId, ULONG* pulReturnValue) override;

private:
    // GetDataObject and Init of the preparation step; Init's result goes to *phrInit.
    std::unique_ptr<CNotfyBase> PrepareDataObject(unsigned long ulNotfyId, HRESULT* phrInit);

    // This request's own copy of a context with the feature identity; null when none can be made
    // (the kind then builds its own).
    Microsoft::WRL::ComPtr<IWbemContext> RequestContext(const CNotfyNames& names);

    CCComponentT<CCAssembly> m_component;
    bool m_bInitialized = false;
    Microsoft::WRL::ComPtr<IWbemServices> m_pNamespace;
    // Kept from Initialize for the requests' connections: a locator holds no connection state.
    Microsoft::WRL::ComPtr<IWbemLocator> m_pLocator;
    bool m_bLocatorInProvider = false;
    // The context the requests copy, for the identity it was made with. Requests may run on several
    // threads, and a context is enumerated by the store on every call: each gets its own copy.
    CCCriticalSection m_contextSection;
    Microsoft::WRL::ComPtr<IWbemContext> m_pContextPrototype;
    std::map<std::string, std::string> m_prototypeValues;
};
