// The platform's own WMI behind CimStore: the locator for namespaces the repository does not
// define, and per namespace the reads of classes it does not define.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <wrl/client.h>

#include <mutex>
#include <set>
#include <string>

namespace cimstore::com {

// Loaded from wbemprox.dll directly: the registry may name CimStore as the WMI locator.
HRESULT CreatePlatformLocator(IWbemLocator** ppLocator);

// One namespace of the platform's WMI, connected on first use and shared by every thread of
// the services object that owns it. Answers as WMI does for a class neither side knows.
class PlatformNamespace {
public:
    explicit PlatformNamespace(std::wstring wsNamespace) : m_wsNamespace(std::move(wsNamespace)) {}
    PlatformNamespace(const PlatformNamespace&) = delete;
    PlatformNamespace& operator=(const PlatformNamespace&) = delete;

    // A relative path; an unknown class or namespace is WBEM_E_NOT_FOUND.
    HRESULT GetObject(const std::wstring& wsRelPath, long lFlags, IWbemContext* pCtx, IWbemClassObject** ppObject,
                      IWbemCallResult** ppCallResult);
    // A SELECT of wsClass; WBEM_E_INVALID_CLASS when the platform does not know it.
    HRESULT ExecQuery(const BSTR strQueryLanguage, const BSTR strQuery, const std::wstring& wsClass, long lFlags,
                      IWbemContext* pCtx, IEnumWbemClassObject** ppEnum);
    HRESULT CreateInstanceEnum(const BSTR strClass, long lFlags, IWbemContext* pCtx, IEnumWbemClassObject** ppEnum);

private:
    HRESULT Services(Microsoft::WRL::ComPtr<IWbemServices>& pServices);
    HRESULT CheckClassKnown(const std::wstring& wsClass, IWbemContext* pCtx,
                            Microsoft::WRL::ComPtr<IWbemServices>& pServices);

    const std::wstring m_wsNamespace;
    std::mutex m_mutex;  // the connection and the classes found
    bool m_bConnectTried = false;
    HRESULT m_hrConnect = S_OK;
    Microsoft::WRL::ComPtr<IWbemServices> m_pServices;
    std::set<std::wstring> m_knownClasses;  // folded names
};

}  // namespace cimstore::com
