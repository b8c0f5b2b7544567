#include "access/CCWMIAccess.h"

#include "access/CCStringConversion.h"
#include "access/ComHolders.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kEntered[] = "has been entered.";

void TraceCheck(const char* szQualifiedName, const char* szMessage, const char* szFormat = "")
{
    GetTrace().TraceMsg(TRACE_ERROR, szQualifiedName, "Internal", szMessage, szFormat);
}

void CopyName(char (&szTarget)[260], const char* szSource)
{
    snprintf(szTarget, sizeof(szTarget), "%s", szSource ? szSource : "");
}

// A heap copy that the object owns; null when the source is null.
char* DuplicateText(const char* sz)
{
    if (!sz)
        return nullptr;
    const size_t cb = strlen(sz) + 1;
    auto* pszCopy = static_cast<char*>(malloc(cb));
    if (pszCopy)
        memcpy(pszCopy, sz, cb);
    return pszCopy;
}

}  // namespace

CCWMIAccess::CCWMIAccess()
{
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::CCWMIAccess", "Internal",
                        "An instance of CCWMIAccess has been created.", "");
}

CCWMIAccess::CCWMIAccess(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
    : CCWMIAccess()
{
    SetContext(szFeatureName, szFeatureVersion, szContextName);
}

CCWMIAccess::CCWMIAccess(const CCWMIAccess& other) : CCWMIAccess()
{
    *this = other;
}

CCWMIAccess::~CCWMIAccess()
{
    m_pCurrentObject.Reset();
    m_pContext.Reset();
    m_pSourceEnum.Reset();
    m_pResultEnum.Reset();
    m_pSpare1.Reset();
    m_pSpare2.Reset();
    m_pServices.Reset();
    free(m_szResultClass);
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::~CCWMIAccess", "Internal",
                        "An instance of CCWMIAccess has been destroyed.", "");
}

void CCWMIAccess::ReleaseAll()
{
    m_pCurrentObject.Reset();
    m_pContext.Reset();
    m_pSourceEnum.Reset();
    m_pResultEnum.Reset();
    m_pSpare1.Reset();
    m_pSpare2.Reset();
    m_pServices.Reset();
    m_pLocator.Reset();
    free(m_szResultClass);
    m_szResultClass = nullptr;
}

CCWMIAccess& CCWMIAccess::operator=(const CCWMIAccess& other)
{
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::operator=", "Enter", "Operator = has been entered.", "");
    if (this != &other) {
        // Every slot is released first; a slot the source holds empty stays empty here.
        ReleaseAll();
        m_pCurrentObject = other.m_pCurrentObject;
        m_pContext = other.m_pContext;
        m_pSourceEnum = other.m_pSourceEnum;
        m_pResultEnum = other.m_pResultEnum;
        m_pSpare1 = other.m_pSpare1;
        m_pSpare2 = other.m_pSpare2;
        m_pServices = other.m_pServices;
        m_pLocator = other.m_pLocator;
        m_bLocatorInProvider = other.m_bLocatorInProvider;
        m_szResultClass = DuplicateText(other.m_szResultClass);
        memcpy(m_szNamespace, other.m_szNamespace, sizeof(m_szNamespace));
        m_bLocalized = other.m_bLocalized;
    }
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::operator=", "Leave", "Operator = has been left.", "");
    return *this;
}

CCWMIAccess& CCWMIAccess::operator=(IWbemServices* pServices)
{
    m_pServices.Reset();
    if (pServices) {
        m_szNamespace[0] = '\0';
        m_pServices = pServices;
    }
    return *this;
}

void CCWMIAccess::ShareConnection(IWbemServices* pServices, const char* szNamespace)
{
    m_pServices = pServices;
    CopyName(m_szNamespace, szNamespace);
}

CCWMIAccess::operator IWbemServices*() const
{
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::operator IWbemServices*", "Internal", "", "pRet 0x%08X",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(m_pServices.Get())));
    return m_pServices.Get();
}

CCWMIAccess::operator IWbemClassObject*() const
{
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::operator IWbemClassObject*", "Internal", "", "pRet 0x%08X",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(m_pCurrentObject.Get())));
    return m_pCurrentObject.Get();
}

HRESULT CCWMIAccess::AttachNamespace(IWbemServices* pServices)
{
    CCMethodTrace trace(TRACE_INFO_CC, "CCWMIAccess::AttachNamespace", kEntered, "pNamespace: 0x%08X",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(pServices)));
    if (!pServices) {
        TraceCheck("CCWMIAccess::AttachNamespace", "Invalid namespace pointer specified");
        return trace.Return(WBEM_E_INVALID_PARAMETER);
    }
    m_pServices.Reset();
    m_szNamespace[0] = '\0';
    TakeOwnership(m_pServices, pServices);  // the caller's reference passes to this object
    return trace.Return(S_OK);
}

HRESULT CCWMIAccess::AttachInstanceObject(IWbemClassObject* pObject)
{
    CCMethodTrace trace(TRACE_INFO_CC, "CCWMIAccess::AttachInstanceObject", kEntered, "pInstance: 0x%08X",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(pObject)));
    if (!pObject) {
        TraceCheck("CCWMIAccess::AttachInstanceObject", "Invalid instance pointer specified");
        return trace.Return(WBEM_E_INVALID_PARAMETER);
    }
    m_pCurrentObject.Reset();
    TakeOwnership(m_pCurrentObject, pObject);
    return trace.Return(S_OK);
}

bool CCWMIAccess::AlreadyConnectedToNamespace(const char* szNamespace) const
{
    const bool bRet = szNamespace && m_pServices && _stricmp(m_szNamespace, szNamespace) == 0;
    GetTrace().TraceMsg(TRACE_INFO_CC, "CCWMIAccess::AlreadyConnectedToNamespace", "Internal", "", "bRet %d",
                        bRet ? 1 : 0);
    return bRet;
}

bool CCWMIAccess::IsHostInProvider()
{
    char szPath[260] = {};
    const DWORD cch = GetModuleFileNameA(nullptr, szPath, sizeof(szPath));
    if (cch == 0 || cch >= sizeof(szPath))
        return false;
    char szName[260] = {};
    char szExtension[260] = {};
    if (_splitpath_s(szPath, nullptr, 0, nullptr, 0, szName, sizeof(szName), szExtension, sizeof(szExtension)) != 0)
        return false;
    char szFile[520];
    snprintf(szFile, sizeof(szFile), "%s%s", szName, szExtension);
    return _stricmp(szFile, "WinMgmt.exe") == 0 || _stricmp(szFile, "WmiPrvse.exe") == 0;
}

HRESULT CCWMIAccess::ConnectToNamespace(const char* szNamespace, long lInProvider, const char* szLocale)
{
    constexpr char kName[] = "CCWMIAccess::ConnectToNamespace";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szNamespace: %s, lInProvider: %d, szLocale: %s",
                        szNamespace ? szNamespace : "(null)", static_cast<int>(lInProvider),
                        szLocale ? szLocale : "(null)");
    if (AlreadyConnectedToNamespace(szNamespace))
        return trace.Return(WBEM_S_ALREADY_EXISTS);

    m_szNamespace[0] = '\0';
    m_pServices.Reset();
    if (szLocale)
        m_bLocalized = true;

    const bool bInProvider = lInProvider == 1 || (lInProvider == -1 && IsHostInProvider());
    return trace.Return(CatchHr([&]() -> HRESULT {
        // A locator holds no state of a connection: one made for the same choice is used again.
        HRESULT hr = S_OK;
        if (!m_pLocator || m_bLocatorInProvider != bInProvider) {
            m_pLocator.Reset();
            hr = CoCreateInstance(bInProvider ? CLSID_WbemAdministrativeLocator : CLSID_WbemLocator, nullptr,
                                  CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                  reinterpret_cast<void**>(m_pLocator.GetAddressOf()));
            if (FAILED(hr)) {
                m_pLocator.Reset();
                RaiseHr(hr, kName, "Throwing exception because CoCreateInstance (native) failed", "hr 0x%X",
                        static_cast<unsigned>(hr));
            }
            m_bLocatorInProvider = bInProvider;
        }
        IWbemLocator* pLocator = m_pLocator.Get();

        CCStringConversion wsNamespace(szNamespace);
        CCStringConversion wsLocale(szLocale);
        CCBstr bstrNamespace(wsNamespace.Convert2W());
        CCBstr bstrLocale(wsLocale.Convert2W());
        hr = pLocator->ConnectServer(bstrNamespace.Get(), nullptr, nullptr, bstrLocale.Get(), 0, nullptr,
                                     m_pContext.Get(), m_pServices.ReleaseAndGetAddressOf());
        if (FAILED(hr)) {
            m_pServices.Reset();
            RaiseHr(hr, kName, "Throwing exception because ConnectServer (native) failed", "hr 0x%X",
                    static_cast<unsigned>(hr));
        }

        hr = SetProxyBlanket();
        if (FAILED(hr) && !bInProvider)
            RaiseHr(hr, kName, "Throwing exception because SetProxyBlanket failed", "hr 0x%X",
                    static_cast<unsigned>(hr));
        CopyName(m_szNamespace, szNamespace);
        return hr;
    }));
}

HRESULT CCWMIAccess::SetProxyBlanket()
{
    CCMethodTrace trace(TRACE_INFO_CC, "CCWMIAccess::SetProxyBlanket", kEntered);
    if (!m_pServices)
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    return trace.Return(CoSetProxyBlanket(m_pServices.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                          RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                                          EOAC_DYNAMIC_CLOAKING));
}

HRESULT CCWMIAccess::SetContext(const char* szFeatureName, const char* szFeatureVersion, const char* szContextName)
{
    constexpr char kName[] = "CCWMIAccess::SetContext";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szFeatureName: %s, szFeatureVersion: %s, szContextName: %s",
                        szFeatureName ? szFeatureName : "(null)", szFeatureVersion ? szFeatureVersion : "(null)",
                        szContextName ? szContextName : "(null)");
    return trace.Return(CatchHr([&]() -> HRESULT {
        m_pContext.Reset();
        HRESULT hr = CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_ALL, IID_IWbemContext,
                                      reinterpret_cast<void**>(m_pContext.GetAddressOf()));
        if (FAILED(hr)) {
            m_pContext.Reset();
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error creating IWbemContext instance,", "hr 0x%X",
                                static_cast<unsigned>(hr));
            return hr;
        }
        struct NamedValue {
            const wchar_t* wszName;
            const char* szValue;
            const char* szError;
        };
        const NamedValue values[] = {
            {L"FeatureName", szFeatureName, "Error calling SetValue (native) with 'FeatureName' on IWbemContext"},
            {L"FeatureVersion", szFeatureVersion,
             "Error calling SetValue (native) with 'FeatureVersion' on IWbemContext"},
            {L"ContextName", szContextName, "Error calling SetValue (native) with 'ContextName' on IWbemContext"},
        };
        HRESULT hrResult = S_OK;
        for (const NamedValue& value : values) {
            CCStringConversion wsValue(value.szValue);
            CCVariant var;
            var.SetText(wsValue.Convert2W());
            const HRESULT hrSet = m_pContext->SetValue(value.wszName, 0, var.Ptr());
            if (FAILED(hrSet)) {
                GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", value.szError, "hr 0x%X",
                                    static_cast<unsigned>(hrSet));
                hrResult = hrSet;
            }
        }
        if (FAILED(hrResult))
            m_pContext.Reset();
        return hrResult;
    }));
}

HRESULT CCWMIAccess::SetContext(const std::map<std::string, std::string>& values)
{
    constexpr char kName[] = "CCWMIAccess::SetContext";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "values: %u", static_cast<unsigned>(values.size()));
    return trace.Return(CatchHr([&]() -> HRESULT {
        m_pContext.Reset();
        HRESULT hr = CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_ALL, IID_IWbemContext,
                                      reinterpret_cast<void**>(m_pContext.GetAddressOf()));
        if (FAILED(hr)) {
            m_pContext.Reset();
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error creating IWbemContext instance,", "hr 0x%X",
                                static_cast<unsigned>(hr));
            return hr;
        }
        HRESULT hrResult = S_OK;
        for (const auto& [sName, sValue] : values) {
            CCStringConversion wsName(sName.c_str());
            CCStringConversion wsValue(sValue.c_str());
            CCVariant var;
            var.SetText(wsValue.Convert2W());
            const HRESULT hrSet = m_pContext->SetValue(wsName.Convert2W(), 0, var.Ptr());
            if (FAILED(hrSet)) {
                GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error calling SetValue (native) on IWbemContext",
                                    "hr 0x%X", static_cast<unsigned>(hrSet));
                hrResult = hrSet;
            }
        }
        if (FAILED(hrResult))
            m_pContext.Reset();
        return hrResult;
    }));
}

HRESULT CCWMIAccess::ExecuteQuery(const char* szWQLQuery, long lFlags)
{
    constexpr char kName[] = "CCWMIAccess::ExecuteQuery";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szWQLQuery: %s, lFlags: 0x%X",
                        szWQLQuery ? szWQLQuery : "(null)", static_cast<unsigned>(lFlags));
    if (!m_pServices) {
        TraceCheck(kName, "Namespace pointer invalid, but shouldnt be.");
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    }
    GetTrace().TraceMsg(TRACE_VERBOSE, kName, "Internal", "", "Query: %s", szWQLQuery ? szWQLQuery : "(null)");
    CCStringConversion wsQuery(szWQLQuery);
    CCBstr bstrLanguage(L"WQL");
    CCBstr bstrQuery(wsQuery.Convert2W());
    const HRESULT hr = m_pServices->ExecQuery(bstrLanguage.Get(), bstrQuery.Get(), ServiceFlags(lFlags),
                                              m_pContext.Get(), m_pResultEnum.ReleaseAndGetAddressOf());
    if (FAILED(hr)) {
        m_pResultEnum.Reset();
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error executing query", "Query: %s, hr: 0x%x",
                            szWQLQuery ? szWQLQuery : "(null)", static_cast<unsigned>(hr));
        return trace.Return(hr);
    }
    return trace.Return(GetNextWMIInstanceInEnumerator());
}

HRESULT CCWMIAccess::GetClassInstances(const char* szClassname, long lFlags)
{
    constexpr char kName[] = "CCWMIAccess::GetClassInstances";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szClassname: %s, lFlags: 0x%X",
                        szClassname ? szClassname : "(null)", static_cast<unsigned>(lFlags));
    if (!m_pServices) {
        TraceCheck(kName, "Namespace pointer invalid, but shouldnt be.");
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    }
    CCStringConversion wsClass(szClassname);
    CCBstr bstrClass(wsClass.Convert2W());
    const HRESULT hr = m_pServices->CreateInstanceEnum(bstrClass.Get(), ServiceFlags(lFlags), m_pContext.Get(),
                                                       m_pResultEnum.ReleaseAndGetAddressOf());
    if (FAILED(hr)) {
        m_pResultEnum.Reset();
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error calling CreateInstanceEnum (native)", "hr 0x%X",
                            static_cast<unsigned>(hr));
        return trace.Return(hr);
    }
    return trace.Return(GetNextWMIInstanceInEnumerator());
}

HRESULT CCWMIAccess::GetNextWMIInstanceInEnumerator()
{
    constexpr char kName[] = "CCWMIAccess::GetNextWMIInstanceInEnumerator";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered);
    if (!m_pResultEnum) {
        TraceCheck(kName, "Enumeration pointer member invalid.");
        return trace.Return(WBEM_E_UNEXPECTED);
    }
    m_pCurrentObject.Reset();
    ULONG ulReturned = 0;
    const HRESULT hr = m_pResultEnum->Next(m_lTimeout, 1, m_pCurrentObject.GetAddressOf(), &ulReturned);
    if (FAILED(hr)) {
        m_pCurrentObject.Reset();
        GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Error calling Next (native)", "hr 0x%X",
                            static_cast<unsigned>(hr));
        return trace.Return(hr);
    }
    if (ulReturned == 0 || !m_pCurrentObject) {
        m_pCurrentObject.Reset();
        GetTrace().TraceMsg(TRACE_VERBOSE_CC, kName, "Internal", "No data available or end of enumeration reached.",
                            "");
        return trace.Return(WBEM_E_NOT_AVAILABLE);
    }
    return trace.Return(hr);
}

HRESULT CCWMIAccess::GetObject(const char* szInstancePath)
{
    constexpr char kName[] = "CCWMIAccess::GetObject";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szInstancePath: %s",
                        szInstancePath ? szInstancePath : "(null)");
    if (!m_pServices) {
        TraceCheck(kName, "Namespace pointer member invalid.");
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    }
    m_pCurrentObject.Reset();
    CCStringConversion wsPath(szInstancePath);
    CCBstr bstrPath(wsPath.Convert2W());
    const HRESULT hr = m_pServices->GetObject(bstrPath.Get(), ServiceFlags(0), m_pContext.Get(),
                                              m_pCurrentObject.GetAddressOf(), nullptr);
    if (FAILED(hr))
        m_pCurrentObject.Reset();
    return trace.Return(hr);
}

HRESULT CCWMIAccess::NewInstance(const char* szClassName)
{
    constexpr char kName[] = "CCWMIAccess::NewInstance";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szClassName: %s", szClassName ? szClassName : "(null)");
    if (!m_pServices) {
        TraceCheck(kName, "Namespace pointer member invalid.");
        return trace.Return(WBEM_E_INITIALIZATION_FAILURE);
    }
    m_pCurrentObject.Reset();
    CCStringConversion wsClass(szClassName);
    CCBstr bstrClass(wsClass.Convert2W());
    ComPtr<IWbemClassObject> pClass;
    HRESULT hr = m_pServices->GetObject(bstrClass.Get(), ServiceFlags(0), m_pContext.Get(), pClass.GetAddressOf(),
                                        nullptr);
    if (SUCCEEDED(hr) && pClass)
        hr = pClass->SpawnInstance(0, m_pCurrentObject.GetAddressOf());
    if (FAILED(hr)) {
        m_pCurrentObject.Reset();
        TraceCheck(kName, "Error calling SpawnInstance (native)");
    }
    return trace.Return(hr);
}

HRESULT CCWMIAccess::GetAssociatedClassInstances(const char* szSourceClass, const char* szResultClass)
{
    constexpr char kName[] = "CCWMIAccess::GetAssociatedClassInstances";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered, "szSourceClass: %s, szResultClass: %s",
                        szSourceClass ? szSourceClass : "(null)", szResultClass ? szResultClass : "(null)");
    return trace.Return(CatchHr([&]() -> HRESULT {
        if (!m_pServices)
            RaiseHr(WBEM_E_INITIALIZATION_FAILURE, kName, "Throwing exception because IWbemServices pointer invalid!",
                    "");
        free(m_szResultClass);
        m_szResultClass = DuplicateText(szResultClass ? szResultClass : "");
        if (!m_szResultClass)
            RaiseHr(WBEM_E_OUT_OF_MEMORY, kName, "Throwing exception because memory allocation failed!", "");

        m_pSourceEnum.Reset();
        CCStringConversion wsClass(szSourceClass);
        CCBstr bstrClass(wsClass.Convert2W());
        HRESULT hr = m_pServices->CreateInstanceEnum(bstrClass.Get(), ServiceFlags(0), m_pContext.Get(),
                                                     m_pSourceEnum.GetAddressOf());
        if (FAILED(hr)) {
            m_pSourceEnum.Reset();
            RaiseHr(hr, kName, "Throwing exception because CreateInstanceEnum (native) failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        }
        hr = GetNextAssociatedClassInstances();
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because GetNextAssociatedClassInstances failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        return hr;
    }));
}

HRESULT CCWMIAccess::GetNextAssociatedClassInstances()
{
    constexpr char kName[] = "CCWMIAccess::GetNextAssociatedClassInstances";
    CCMethodTrace trace(TRACE_INFO_CC, kName, kEntered);
    return trace.Return(CatchHr([&]() -> HRESULT {
        if (!m_pServices)
            RaiseHr(WBEM_E_INITIALIZATION_FAILURE, kName, "Throwing exception because namespace pointer invalid!", "");
        if (!m_pSourceEnum || !m_szResultClass)
            RaiseHr(WBEM_E_UNEXPECTED, kName, "Throwing exception because internal member invalid!", "");

        ComPtr<IWbemClassObject> pSource;
        ULONG ulReturned = 0;
        HRESULT hr = m_pSourceEnum->Next(m_lTimeout, 1, pSource.GetAddressOf(), &ulReturned);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because Next (native) on the source instance failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        if (ulReturned == 0 || !pSource)
            return WBEM_E_NOT_AVAILABLE;

        CCVariant varRelPath;
        hr = pSource->Get(L"__RELPATH", 0, varRelPath.GetAddress(), nullptr, nullptr);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because Get (native) on __RELPATH property failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        if (varRelPath.Type() != VT_BSTR)
            RaiseHr(WBEM_E_TYPE_MISMATCH, kName, "Throwing exception because Get (native) on __RELPATH property failed!",
                    "hr 0x%X", static_cast<unsigned>(WBEM_E_TYPE_MISMATCH));

        CCStringConversion relPath(V_BSTR(&varRelPath.Get()));
        const char* szRelPath = relPath.Convert2A();
        if (!szRelPath)
            RaiseHr(WBEM_E_UNEXPECTED, kName, "Throwing exception because _stprintf_s failed.", "");
        std::string sQuery;
        try {
            sQuery = std::string("ASSOCIATORS OF {") + szRelPath + "} WHERE ResultClass = " + m_szResultClass;
        } catch (const std::bad_alloc&) {
            RaiseHr(WBEM_E_OUT_OF_MEMORY, kName, "Throwing exception because memory allocation failed", "");
        }
        hr = ExecuteQuery(sQuery.c_str(), 0);
        if (FAILED(hr))
            RaiseHr(hr, kName, "Throwing exception because ExecuteQuery with assocation failed!", "hr 0x%X",
                    static_cast<unsigned>(hr));
        return hr;
    }));
}
