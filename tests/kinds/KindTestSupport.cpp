#include "KindTestSupport.h"

#include "GlobalTraceLog.h"
#include "access/ComHolders.h"

#include <tuple>

static HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_I4;
    V_I4(value.Ptr()) = lValue;
    return access.SetProperty(szProperty, value.Ptr());
}

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
    for (const LONG lDeviceId : m_items)
        if (SUCCEEDED(m_wmi.NewInstance(m_sEventClassName.c_str())) && SUCCEEDED(PutI4(m_wmi, "DeviceId", lDeviceId)) &&
            SUCCEEDED(PutI4(m_wmi, "EventStatus", 1)) && SUCCEEDED(SetEventType(1)) && SUCCEEDED(SetCommonData()))
            AddToList();
    if (m_iFailingRetrievals > 0) {
        --m_iFailingRetrievals;
        return E_FAIL;
    }
    return S_OK;
}

bool CNotfyTestKind::IsInstanceObsolete(CCWMIAccess& stored, CCWMIAccess&)
{
    return m_obsoleteIds.count(GetI4(stored, L"DeviceId")) != 0;
}

void KindTest::SetUp()
{
    CimStoreTest::SetUp();
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\KM_Notification.mof"));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\test_kind.mof"));
    m_pEvents = std::make_unique<CCWMIAccess>();
    ASSERT_EQ(m_pEvents->ConnectToNamespace(kEventNamespace, -1, nullptr), S_OK);
    for (const std::wstring& wsFixture : m_fixtures)
        ASSERT_NO_FATAL_FAILURE(LoadFixture(wsFixture));
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
    LONG lLower = 0, lUpper = -1;
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
        IWbemClassObject* pEvent = pRaw;
        CycleEvent event = {nullptr, GetI4(pEvent, L"EventStatus"), GetI4(pEvent, L"EventTextId"),
                            GetI4(pEvent, L"EventType"), HasNoPut(pEvent), GetTexts(pEvent, L"EventTextArguments")};
        TakeOwnership(event.pEvent, pRaw);
        EXPECT_EQ(GetI4(pEvent, L"EventId"), static_cast<LONG>(getter.GetNotfyId()));
        IWbemServices* pServices = *m_pEvents;
        EXPECT_EQ(event.bNoPut ? S_OK : pServices->PutInstance(pEvent, WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr),
                  S_OK);
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
        texts.insert(KeyText(access, wszProperty));
    return texts;
}

std::wstring KeyText(IWbemClassObject* pObject, const wchar_t* wszProperty)
{
    VARTYPE vt = VT_EMPTY;
    const LONG l = GetI4(pObject, wszProperty, &vt);
    return vt == VT_I4 ? std::to_wstring(l) : GetText(pObject, wszProperty);
}

Events ByKey(CycleResult result, const wchar_t* wszKey)
{
    Events events;
    for (CycleEvent& event : result.events) {
        const std::wstring wsKey = KeyText(event.pEvent.Get(), wszKey);
        events[events.count(wsKey) ? wsKey + L"#2" : wsKey] = std::move(event);
    }
    return events;
}

void ExpectEvents(const Events& events, const std::vector<Want>& wants, const std::string& sWhere)
{
    EXPECT_EQ(events.size(), wants.size()) << sWhere;
    for (const Want& w : wants) {
        const auto it = events.find(w.wsKey);
        if (it == events.end()) {
            ADD_FAILURE() << sWhere << " " << Narrow(w.wsKey) << ": missing";
            continue;
        }
        const CycleEvent& e = it->second;
        EXPECT_EQ(std::make_tuple(e.lStatus, e.lTextId, e.lType, e.bNoPut, e.arguments),
                  std::make_tuple(w.lStatus, w.lTextId, w.lType, w.bNoPut, w.arguments))
            << sWhere << " " << Narrow(w.wsKey);
    }
}
