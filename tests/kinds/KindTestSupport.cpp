#include "KindTestSupport.h"

#include "GlobalTraceLog.h"

#include "access/ComHolders.h"

namespace {

HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_I4;
    V_I4(value.Ptr()) = lValue;
    return access.SetProperty(szProperty, value.Ptr());
}

}  // namespace

CNotfyTestKind::CNotfyTestKind(unsigned long ulNotfyId)
{
    m_ulNotfyId = ulNotfyId;
    m_sEventClassName = "KM_TestKind_Static";
    m_sReferencedNamespace = kLiveNamespace;
}

HRESULT CNotfyTestKind::RetrieveInstances()
{
    ++m_iRetrieveCalls;
    // Like every kind: the first failing step ends the item, and the others go on.
    for (const Item& item : m_items) {
        CCVariant object;
        if (item.szObject)
            object.SetText(std::wstring(item.szObject, item.szObject + strlen(item.szObject)).c_str());
        HRESULT hr = m_wmi.NewInstance(m_sEventClassName.c_str());
        if (SUCCEEDED(hr))
            hr = PutI4(m_wmi, "DeviceId", item.lDeviceId);
        if (SUCCEEDED(hr) && item.szObject)
            hr = m_wmi.SetProperty("Object", object.Ptr());
        if (SUCCEEDED(hr))
            hr = PutI4(m_wmi, "EventStatus", static_cast<LONG>(item.ulStatus));
        if (SUCCEEDED(hr))
            hr = SetEventType(item.ulStatus);
        if (SUCCEEDED(hr))
            hr = SetCommonData();
        if (SUCCEEDED(hr))
            AddToList();
    }
    if (m_iFailingRetrievals > 0) {
        --m_iFailingRetrievals;
        return E_FAIL;
    }
    return S_OK;
}

bool CNotfyTestKind::IsInstanceObsolete(CCWMIAccess& stored, CCWMIAccess&)
{
    CCVariant deviceId;
    if (FAILED(stored.GetProperty("DeviceId", deviceId.GetAddress(), false, 0)) || deviceId.Type() != VT_I4)
        return false;
    return m_obsoleteIds.count(V_I4(&deviceId.Get())) != 0;
}

void KindTest::SetUp()
{
    CimStoreTest::SetUp();
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Notification.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\test_kind.mof"));
    m_pEvents = std::make_unique<CCWMIAccess>();
    ASSERT_EQ(m_pEvents->ConnectToNamespace(kEventNamespace, -1, nullptr), S_OK);
}

void KindTest::TearDown()
{
    m_pEvents.reset();
    CimStoreTest::TearDown();
}

HRESULT KindTest::InitKind(CNotfyBase& kind)
{
    const CNotfyNames names = {m_sFeature.c_str(), "1.0", "TestContext"};
    return kind.Init(*m_pEvents, &names);
}

void KindTest::NewEvent(CNotfyTestKind& kind, LONG lDeviceId, const char* szClass)
{
    ASSERT_EQ(kind.Access().NewInstance(szClass), S_OK);
    ASSERT_EQ(PutI4(kind.Access(), "DeviceId", lDeviceId), S_OK);
}

std::set<LONG> KindTest::StoredDeviceIds()
{
    std::set<LONG> ids;
    CCWMIAccess access;
    access = static_cast<IWbemServices*>(*m_pEvents);
    for (HRESULT hr = access.GetClassInstances("KM_TestKind_Static", 0); SUCCEEDED(hr);
         hr = access.GetNextWMIInstanceInEnumerator())
        ids.insert(GetI4(access, L"DeviceId"));
    return ids;
}

LONG GetI4(IWbemClassObject* pObject, const wchar_t* wszProperty, VARTYPE* pvt)
{
    CCVariant value;
    const HRESULT hr = pObject->Get(wszProperty, 0, value.GetAddress(), nullptr, nullptr);
    if (pvt)
        *pvt = FAILED(hr) ? static_cast<VARTYPE>(VT_ERROR) : value.Type();
    return (SUCCEEDED(hr) && value.Type() == VT_I4) ? V_I4(&value.Get()) : -12345;
}

std::wstring GetText(IWbemClassObject* pObject, const wchar_t* wszProperty)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszProperty, 0, value.GetAddress(), nullptr, nullptr)) || value.Type() != VT_BSTR)
        return L"<none>";
    return V_BSTR(&value.Get());
}

std::vector<std::wstring> GetTexts(IWbemClassObject* pObject, const wchar_t* wszProperty)
{
    CCVariant value;
    if (FAILED(pObject->Get(wszProperty, 0, value.GetAddress(), nullptr, nullptr)) ||
        value.Type() != (VT_ARRAY | VT_BSTR))
        return {L"<none>"};
    SAFEARRAY* psa = V_ARRAY(value.Ptr());
    LONG lLower = 0;
    LONG lUpper = -1;
    SafeArrayGetLBound(psa, 1, &lLower);
    SafeArrayGetUBound(psa, 1, &lUpper);
    std::vector<std::wstring> texts;
    for (LONG l = lLower; l <= lUpper; ++l) {
        CCBstr text;
        SafeArrayGetElement(psa, &l, text.GetAddress());
        texts.emplace_back(text.Get() ? text.Get() : L"");
    }
    return texts;
}

bool HasNoPut(IWbemClassObject* pObject)
{
    Microsoft::WRL::ComPtr<IWbemQualifierSet> pQualifiers;
    CCVariant value;
    return SUCCEEDED(pObject->GetQualifierSet(pQualifiers.GetAddressOf())) &&
           SUCCEEDED(pQualifiers->Get(L"NoPut", 0, value.GetAddress(), nullptr)) && value.Type() == VT_BOOL &&
           V_BOOL(value.Ptr()) != VARIANT_FALSE;
}

std::string TraceLevelOf(size_t uMark, const std::string& sMessage)
{
    for (const auto& fields : GlobalTraceLog::Get().LinesSince(uMark))
        if (fields.size() >= 9 && fields[7] == sMessage)
            return fields[3];
    return "";
}

CycleResult KindTest::RunAgentCycle(CNotfyBase& getter, CNotfyBase& deleter)
{
    CycleResult result;
    EXPECT_EQ(InitKind(getter), S_OK);
    unsigned long ulCount = 0;
    result.hrGet = getter.GetInstances(nullptr, &ulCount);
    std::vector<IWbemClassObject*> pointers(ulCount, nullptr);
    if (ulCount) {
        EXPECT_EQ(getter.GetInstances(pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
    }
    for (IWbemClassObject* pRaw : pointers) {
        CycleEvent event;
        TakeOwnership(event.pEvent, pRaw);
        IWbemClassObject* pEvent = event.pEvent.Get();
        event.lStatus = GetI4(pEvent, L"EventStatus");
        event.lTextId = GetI4(pEvent, L"EventTextId");
        event.lType = GetI4(pEvent, L"EventType");
        event.bNoPut = HasNoPut(pEvent);
        event.arguments = GetTexts(pEvent, L"EventTextArguments");
        EXPECT_EQ(GetI4(pEvent, L"EventId"), static_cast<LONG>(getter.GetNotfyId()));
        if (!event.bNoPut) {
            EXPECT_EQ(static_cast<IWbemServices*>(*m_pEvents)
                          ->PutInstance(pEvent, WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr),
                      S_OK);
        }
        result.events.push_back(std::move(event));
    }
    EXPECT_EQ(InitKind(deleter), S_OK);
    result.hrDelete = deleter.DeleteObsoleteInstances();
    return result;
}

std::set<std::wstring> KindTest::StoredTexts(const char* szClass, const wchar_t* wszProperty)
{
    std::set<std::wstring> texts;
    CCWMIAccess access;
    access = static_cast<IWbemServices*>(*m_pEvents);
    for (HRESULT hr = access.GetClassInstances(szClass, 0); SUCCEEDED(hr); hr = access.GetNextWMIInstanceInEnumerator())
        texts.insert(GetText(access, wszProperty));
    return texts;
}

std::map<std::wstring, CycleEvent> EventsBy(std::vector<CycleEvent> events, const wchar_t* wszKey)
{
    std::map<std::wstring, CycleEvent> byKey;
    for (CycleEvent& event : events)
        byKey[GetText(event.pEvent.Get(), wszKey)] = std::move(event);
    return byKey;
}
