// The one object through which a notification kind talks to the management service:
// a namespace connection, a current object, a result enumeration and a feature context.
#pragma once

#include "access/WbemGuids.h"

#include <wrl/client.h>

#include <map>
#include <string>

class CCWMIAccess {
public:
    static constexpr long kEnumerationTimeout = 2000;
    static constexpr long kFlagAmended = WBEM_FLAG_USE_AMENDED_QUALIFIERS;

    CCWMIAccess();
    CCWMIAccess(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName);
    virtual ~CCWMIAccess();
    CCWMIAccess(const CCWMIAccess& other);
    CCWMIAccess& operator=(const CCWMIAccess& other);
    CCWMIAccess& operator=(IWbemServices* pServices);
    // Borrowed pointers: no reference is added.
    operator IWbemServices*() const;
    operator IWbemClassObject*() const;

    HRESULT AttachNamespace(IWbemServices* pServices);
    HRESULT AttachInstanceObject(IWbemClassObject* pObject);

    bool AlreadyConnectedToNamespace(const char* szNamespace) const;
    // lInProvider: 1 in-provider, -1 decided from the host executable's name, else not.
    HRESULT ConnectToNamespace(const char* szNamespace, long lInProvider, const char* szLocale);
    HRESULT SetProxyBlanket();
    HRESULT SetContext(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName);
    HRESULT SetContext(const std::map<std::string, std::string>& values);
    // Uses the context another access object built (shared, not copied).
    void ShareContext(IWbemContext* pContext) { m_pContext = pContext; }
    // Uses a connection another access object opened to szNamespace.
    void ShareConnection(IWbemServices* pServices, const char* szNamespace);
    // The locator the last connection was made with, kept for later connections; another access
    // object may use it (created for the same in-provider choice).
    IWbemLocator* GetLocator() const { return m_pLocator.Get(); }
    bool IsLocatorInProvider() const { return m_bLocatorInProvider; }
    void ShareLocator(IWbemLocator* pLocator, bool bInProvider)
    {
        m_pLocator = pLocator;
        m_bLocatorInProvider = bInProvider;
    }

    HRESULT ExecuteQuery(const char* szWQLQuery, long lFlags);
    HRESULT GetClassInstances(const char* szClassname, long lFlags);
    HRESULT GetNextWMIInstanceInEnumerator();
    HRESULT GetObject(const char* szInstancePath);
    HRESULT NewInstance(const char* szClassName);
    HRESULT GetAssociatedClassInstances(const char* szSourceClass, const char* szResultClass);
    HRESULT GetNextAssociatedClassInstances();

    HRESULT GetProperty(const char* szPropertyName, VARIANT* pvPropertyValue, bool bMappedValue, long lMapOffset);
    HRESULT SetProperty(const char* szPropertyName, VARIANT* pvPropertyValue);
    HRESULT GetQualifier(const char* szQualifierName, VARIANT* pvQualifierValue, const char* szPropertyName);
    HRESULT SetQualifier(const char* szQualifierName, VARIANT* pvQualifierValue, const char* szPropertyName);
    HRESULT GetClassQualifier(const char* szClassName, const char* szQualifierName, VARIANT* pvQualifierValue,
                              const char* szPropertyName);
    HRESULT GetMappedProperty(const char* szPropertyName, VARIANT* pvValue, long lMapOffset);
    HRESULT BeginPropertyEnumeration();
    HRESULT GetNextProperty(char* szPropertyName, VARIANT* pvPropertyValue, DWORD dwBufferSizePropName,
                            bool bMappedValue, long lMapOffset);
    HRESULT EndPropertyEnumeration();

    const char* GetNamespaceName() const { return m_szNamespace; }
    bool IsLocalized() const { return m_bLocalized; }
    IWbemContext* GetContext() const { return m_pContext.Get(); }
    IEnumWbemClassObject* GetResultEnumeration() const { return m_pResultEnum.Get(); }

private:
    long ServiceFlags(long lFlags) const { return m_bLocalized ? (lFlags | kFlagAmended) : lFlags; }
    void ReleaseAll();
    static HRESULT QualifierOperation(IWbemClassObject* pObject, const char* szQualifierName,
                                      VARIANT* pvQualifierValue, const char* szPropertyName, bool bPut, long lFlavor,
                                      const char* szQualifiedName);
    static bool IsHostInProvider();

    Microsoft::WRL::ComPtr<IEnumWbemClassObject> m_pSourceEnum;
    Microsoft::WRL::ComPtr<IEnumWbemClassObject> m_pResultEnum;
    Microsoft::WRL::ComPtr<IWbemClassObject> m_pCurrentObject;
    Microsoft::WRL::ComPtr<IUnknown> m_pSpare1;
    Microsoft::WRL::ComPtr<IUnknown> m_pSpare2;
    Microsoft::WRL::ComPtr<IWbemServices> m_pServices;
    Microsoft::WRL::ComPtr<IWbemContext> m_pContext;
    Microsoft::WRL::ComPtr<IWbemLocator> m_pLocator;
    bool m_bLocatorInProvider = false;
    char m_szNamespace[260] = {};
    long m_lTimeout = kEnumerationTimeout;
    const char* m_szQueryLanguage = "WQL";
    bool m_bLocalized = false;
    char* m_szResultClass = nullptr;
};
