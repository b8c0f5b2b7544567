#include "core/CNotificationHandler.h"

#include "access/CCStringConversion.h"
#include "access/CCWMIAccess.h"
#include "access/ComHolders.h"
#include "core/CNotfySimulation.h"
#include "framework/CCMethodTrace.h"
#include "framework/HResultError.h"
#include "notifications/inventory/CNotfyAutoStartMonitoring.h"
#include "notifications/inventory/CNotfyBiosSettingsChange.h"
#include "notifications/inventory/CNotfyDeviceChange.h"
#include "notifications/inventory/CNotfyDisplayChange.h"
#include "notifications/inventory/CNotfyHardDisksFreeSpace.h"
#include "notifications/inventory/CNotfyLeaseExpiration.h"
#include "notifications/inventory/CNotfyMemoryChange.h"
#include "notifications/inventory/CNotfyPhysicalHDDChange.h"
#include "notifications/inventory/CNotfyProcessorChange.h"
#include "notifications/inventory/CNotfyServiceMonitoring.h"
#include "notifications/inventory/CNotfyVideoAdapterChange.h"
#include "notifications/sensors/CNotfyCoverOpening.h"
#include "notifications/sensors/CNotfyCoverSensor.h"
#include "notifications/sensors/CNotfyFanDeterioration.h"
#include "notifications/sensors/CNotfyFanMonitoring.h"
#include "notifications/sensors/CNotfyHardDisksSMART.h"
#include "notifications/sensors/CNotfyTemperature.h"
#include "notifications/sensors/CNotfyVoltage.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kEntered[] = "has been entered.";
constexpr ULONG kFailedBeforeObject = 0xFFFFFFFF;
constexpr size_t kTextChars = CCAssembly::kTextChars;

template <class TKind>
CNotfyBase* CreateKind()
{
    return new TKind();
}

unsigned Address(const void* p)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p));
}

// Hands a new array over into *pvInstances, clearing what it held; nothing is copied.
void HandOver(CCSafeArray& array, VARIANT* pvInstances)
{
    VariantClear(pvInstances);
    V_VT(pvInstances) = VT_ARRAY | VT_VARIANT;
    V_ARRAY(pvInstances) = array.Detach();
}

SAFEARRAY* CreateEmptyVariantArray()
{
    SAFEARRAYBOUND bound = {0, 0};
    SAFEARRAY* psa = SafeArrayCreate(VT_VARIANT, 1, &bound);
    if (!psa)
        throw std::bad_alloc();
    return psa;
}

}  // namespace

const std::array<CNotificationHandler::KindEntry, 20>& CNotificationHandler::KindTable()
{
    // Kinds not yet part of this build have no factory.
    static const std::array<KindEntry, 20> s_table = {{
        {1, "CNotfyHardDisksSMART", &CreateKind<CNotfyHardDisksSMART>},
        {2, "CNotfyCoverOpening", &CreateKind<CNotfyCoverOpening>},
        {3, "CNotfyCoverSensor", &CreateKind<CNotfyCoverSensor>},
        {7, "CNotfyTemperature", &CreateKind<CNotfyTemperature>},
        {8, "CNotfyFanMonitoring", &CreateKind<CNotfyFanMonitoring>},
        {9, "CNotfyFanDeterioration", &CreateKind<CNotfyFanDeterioration>},
        {11, "CNotfyVoltage", &CreateKind<CNotfyVoltage>},
        {21, "CNotfyHardDisksFreeSpaceData", &CreateKind<CNotfyHardDisksFreeSpaceData>},
        {22, "CNotfyMemoryChange", &CreateKind<CNotfyMemoryChange>},
        {23, "CNotfyDeviceChange", &CreateKind<CNotfyDeviceChange>},
        {56, "CNotfyHardDisksFreeSpaceSystem", &CreateKind<CNotfyHardDisksFreeSpaceSystem>},
        {57, "CNotfyLeaseExpiration", &CreateKind<CNotfyLeaseExpiration>},
        {58, "CNotfyProcessorChange", &CreateKind<CNotfyProcessorChange>},
        {59, "CNotfySimulation", &CreateKind<CNotfySimulation>},
        {60, "CNotfyDisplayChange", &CreateKind<CNotfyDisplayChange>},
        {61, "CNotfyServiceMonitoring", &CreateKind<CNotfyServiceMonitoring>},
        {62, "CNotfyAutoStartMonitoring", &CreateKind<CNotfyAutoStartMonitoring>},
        {63, "CNotfyBiosSettingsChange", &CreateKind<CNotfyBiosSettingsChange>},
        {64, "CNotfyVideoAdapterChange", &CreateKind<CNotfyVideoAdapterChange>},
        {65, "CNotfyPhysicalHDDChange", &CreateKind<CNotfyPhysicalHDDChange>},
    }};
    return s_table;
}

CNotificationHandler::CNotificationHandler() : m_component(GetAssembly())
{
    GetTrace().TraceMsg(TRACE_INFO, "CNotificationHandler::CNotificationHandler", "Internal",
                        "An instance of CNotificationHandler has been created.", "");
}

CNotificationHandler::~CNotificationHandler()
{
    m_pNamespace.Reset();
    GetTrace().TraceMsg(TRACE_INFO, "CNotificationHandler::~CNotificationHandler", "Internal",
                        "An instance of CNotificationHandler has been destroyed.", "");
}

HRESULT CNotificationHandler::FinalConstruct()
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationHandler::FinalConstruct", kEntered);
    return trace.Return(S_OK);
}

void CNotificationHandler::FinalRelease()
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationHandler::FinalRelease", kEntered);
    m_pNamespace.Reset();
}

CNotfyBase* CNotificationHandler::GetDataObject(unsigned long ulNotfyId)
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationHandler::GetDataObject", kEntered, "ulNotfyId: %lu", ulNotfyId);
    for (const KindEntry& entry : KindTable()) {
        if (entry.ulNotfyId != ulNotfyId || !entry.pfnCreate)
            continue;
        try {
            return entry.pfnCreate();
        } catch (...) {
            return nullptr;
        }
    }
    GetTrace().TraceMsg(TRACE_WARNING, "CNotificationHandler::GetDataObject", "Internal", "Unknown Notification Id...",
                        "ulNotfyId: %lu", ulNotfyId);
    return nullptr;
}

std::unique_ptr<CNotfyBase> CNotificationHandler::PrepareDataObject(unsigned long ulNotfyId, HRESULT* phrInit)
{
    std::unique_ptr<CNotfyBase> pObject(GetDataObject(ulNotfyId));
    if (!pObject)
        return pObject;
    char szFeatureName[kTextChars] = {};
    char szFeatureVersion[kTextChars] = {};
    char szContextName[kTextChars] = {};
    m_component->GetFeatureName(szFeatureName, kTextChars);
    m_component->GetFeatureVersion(szFeatureVersion, kTextChars);
    m_component->GetContextName(szContextName, kTextChars);
    const CNotfyNames names = {szFeatureName, szFeatureVersion, szContextName};
    pObject->ShareRequestEnvironment(RequestContext(names).Get(), m_pLocator.Get(), m_bLocatorInProvider);
    *phrInit = pObject->Init(m_pNamespace.Get(), &names);
    return pObject;
}

ComPtr<IWbemContext> CNotificationHandler::RequestContext(const CNotfyNames& names)
{
    // The values CNotfyBase::Init gives its context.
    const std::map<std::string, std::string> values = {
        {"FeatureName", names.szFeatureName},
        {"FeatureVersion", names.szFeatureVersion},
        {"ContextName", names.szContextName},
    };
    CCCriticalSection::Lock lock(m_contextSection);
    if (!m_pContextPrototype || m_prototypeValues != values) {
        CCWMIAccess access;
        access.SetContext(values);
        m_pContextPrototype = access.GetContext();
        m_prototypeValues = values;
    }
    ComPtr<IWbemContext> pCopy;
    if (m_pContextPrototype && FAILED(m_pContextPrototype->Clone(pCopy.GetAddressOf())))
        pCopy.Reset();
    return pCopy;
}

HRESULT CNotificationHandler::ComponentInitialize(BSTR sFeatureName, BSTR sFeatureVersion, BSTR sContextName,
                                                  VARIANT_BOOL* pRetVal)
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationHandler::ComponentInitialize", kEntered,
                        "sFeatureName: %ls, sFeatureVersion: %ls, sContextName: %ls", sFeatureName ? sFeatureName : L"",
                        sFeatureVersion ? sFeatureVersion : L"", sContextName ? sContextName : L"");
    if (!pRetVal)
        return trace.Return(E_POINTER);
    *pRetVal = VARIANT_FALSE;
    if (m_component.Initialize(sFeatureName, sFeatureVersion, sContextName))
        *pRetVal = VARIANT_TRUE;
    else
        GetTrace().TraceMsg(TRACE_WARNING, "CNotificationHandler::ComponentInitialize", "Internal",
                            "Calling Assembly.Initialize failed for some reason.", "");
    return trace.Return(S_OK);
}

HRESULT CNotificationHandler::Initialize(BSTR bstrNamespace, ULONG* pulReturnValue)
{
    CCMethodTrace trace(TRACE_INFO, "CNotificationHandler::Initialize", kEntered, "bstrNamespace: %ls",
                        bstrNamespace ? bstrNamespace : L"");
    if (!pulReturnValue)
        return trace.Return(E_POINTER);
    return trace.Return(CatchHr([&]() -> HRESULT {
        char szFeatureName[kTextChars] = {};
        char szFeatureVersion[kTextChars] = {};
        char szContextName[kTextChars] = {};
        m_component->GetFeatureName(szFeatureName, kTextChars);
        m_component->GetFeatureVersion(szFeatureVersion, kTextChars);
        m_component->GetContextName(szContextName, kTextChars);
        CCWMIAccess access(szFeatureName, szFeatureVersion, szContextName);
        CCStringConversion ns(bstrNamespace ? static_cast<const wchar_t*>(bstrNamespace) : L"");
        const char* szNamespace = ns.Convert2A();
        // A failed connection is left for the requests to find: the handler is initialised anyway.
        access.ConnectToNamespace(szNamespace ? szNamespace : "", -1, nullptr);
        IWbemServices* pServices = access;
        if (m_pNamespace.Get() != pServices)
            m_pNamespace = pServices;
        m_pLocator = access.GetLocator();
        m_bLocatorInProvider = access.IsLocatorInProvider();
        m_bInitialized = true;
        *pulReturnValue = 0;
        return S_OK;
    }));
}

HRESULT CNotificationHandler::GetInstances(ULONG ulNotfyId, VARIANT* pvInstances, ULONG* pulReturnValue)
{
    constexpr char kName[] = "CNotificationHandler::GetInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "ulNotfyId: %lu, pvInstances: 0x%08X", ulNotfyId,
                        Address(pvInstances));
    if (!pulReturnValue)
        return trace.Return(E_POINTER);
    *pulReturnValue = kFailedBeforeObject;
    return trace.Return(CatchHr([&]() -> HRESULT {
        if (!pvInstances)
            RaiseHr(E_POINTER, kName, "Invalid Parameter", "");
        if (!m_bInitialized)
            RaiseHr(E_UNEXPECTED, kName, "Raising exception because not intialized!", "");

        HRESULT hr = S_OK;
        std::unique_ptr<CNotfyBase> pObject = PrepareDataObject(ulNotfyId, &hr);
        if (!pObject) {
            *pulReturnValue = ulNotfyId;
            RaiseHr(E_INVALIDARG, kName,
                    "Raising exception because error creating dataobject. Maybe invalid argument.", "ulNotfyId: %lu",
                    ulNotfyId);
        }
        if (FAILED(hr)) {
            *pulReturnValue = ulNotfyId;
            RaiseHr(hr, kName, "Raising exception because CNotfyBase::Init failed.", "hr 0x%X",
                    static_cast<unsigned>(hr));
        }

        return CollectInstances(std::move(pObject), ulNotfyId, pvInstances, pulReturnValue);
    }));
}

HRESULT CNotificationHandler::CollectInstances(std::unique_ptr<CNotfyBase> pObject, ULONG ulNotfyId,
                                               VARIANT* pvInstances, ULONG* pulReturnValue)
{
    constexpr char kName[] = "CNotificationHandler::GetInstances";
    return CatchHr([&]() -> HRESULT {
        if (!pObject || !pvInstances || !pulReturnValue)
            return E_POINTER;
        unsigned long ulCount = 0;
        HRESULT hr = pObject->GetInstances(nullptr, &ulCount);
        if (FAILED(hr)) {
            *pulReturnValue = ulNotfyId;
            RaiseHr(hr, kName, "Raising exception because CNotfyBase::GetInstances failed .", "hr 0x%X",
                    static_cast<unsigned>(hr));
        }

        CCSafeArray array;
        if (ulCount == 0) {
            pObject.reset();
            array.Attach(CreateEmptyVariantArray());
            HandOver(array, pvInstances);
            *pulReturnValue = 0;
            return S_OK;
        }

        std::unique_ptr<IWbemClassObject*[]> apInstances(new (std::nothrow) IWbemClassObject*[ulCount]());
        if (!apInstances) {
            *pulReturnValue = kFailedBeforeObject;
            RaiseHr(E_OUTOFMEMORY, kName, "Raising exception because Memory allocation failed", "");
        }
        // Allocated before the object hands out references, so that taking them over cannot fail.
        std::vector<ComPtr<IWbemClassObject>> instances(ulCount);
        hr = pObject->GetInstances(apInstances.get(), &ulCount);
        // Each filled slot holds a reference of ours from here on, whatever happens next.
        ulCount = std::min<unsigned long>(ulCount, static_cast<unsigned long>(instances.size()));
        instances.resize(ulCount);
        for (unsigned long i = 0; i < ulCount; ++i)
            TakeOwnership(instances[i], apInstances[i]);
        apInstances.reset();
        if (FAILED(hr)) {
            *pulReturnValue = ulNotfyId;
            RaiseHr(hr, kName, "Raising exception because CNotfyBase::GetInstances failed .", "hr 0x%X",
                    static_cast<unsigned>(hr));
        }
        pObject.reset();

        array.Attach(CreateEmptyVariantArray());
        for (LONG i = 0; i < static_cast<LONG>(instances.size()); ++i) {
            CCVariant element;
            V_VT(element.Ptr()) = VT_UNKNOWN;
            V_UNKNOWN(element.Ptr()) = instances[static_cast<size_t>(i)].Get();
            V_UNKNOWN(element.Ptr())->AddRef();
            SAFEARRAYBOUND bound = {static_cast<ULONG>(i) + 1, 0};
            hr = SafeArrayRedim(array.Get(), &bound);
            if (SUCCEEDED(hr))
                hr = SafeArrayPutElement(array.Get(), &i, element.Ptr());
            if (FAILED(hr))
                RaiseHr(hr, kName, "Raising exception because the array could not take the instance.", "hr 0x%X",
                        static_cast<unsigned>(hr));
            instances[static_cast<size_t>(i)].Reset();
        }
        HandOver(array, pvInstances);
        *pulReturnValue = 0;
        return S_OK;
    });
}

HRESULT CNotificationHandler::DeleteObsoleteInstances(ULONG ulNotfyId, ULONG* pulReturnValue)
{
    constexpr char kName[] = "CNotificationHandler::DeleteObsoleteInstances";
    CCMethodTrace trace(TRACE_INFO, kName, kEntered, "ulNotfyId: %lu", ulNotfyId);
    if (!pulReturnValue)
        return trace.Return(E_POINTER);
    *pulReturnValue = kFailedBeforeObject;
    return trace.Return(CatchHr([&]() -> HRESULT {
        if (!m_bInitialized)
            RaiseHr(E_UNEXPECTED, kName, "Not initialized!", "");
        HRESULT hrInit = S_OK;
        std::unique_ptr<CNotfyBase> pObject = PrepareDataObject(ulNotfyId, &hrInit);
        if (!pObject) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "Could not create Dataobject, invalid arg",
                                "ulNotfyId: %lu", ulNotfyId);
            *pulReturnValue = ulNotfyId;
            return E_INVALIDARG;
        }
        // Init's result is deliberately not examined here; the object reports its own failure.
        const HRESULT hr = pObject->DeleteObsoleteInstances();
        if (FAILED(hr)) {
            GetTrace().TraceMsg(TRACE_ERROR, kName, "Internal", "CNotfyBase::DeleteObsoleteInstances returned an error",
                                "hr 0x%X", static_cast<unsigned>(hr));
            *pulReturnValue = ulNotfyId;
        }
        pObject.reset();
        if (SUCCEEDED(hr))
            *pulReturnValue = 0;
        return hr;
    }));
}
