#include "KindTestSupport.h"

#include "access/ComHolders.h"
#include "framework/CCQuillTrace.h"
#include "framework/HResultError.h"

namespace {

HRESULT PutI4(CCWMIAccess& access, const char* szProperty, LONG lValue)
{
    CCVariant value;
    V_VT(value.Ptr()) = VT_I4;
    V_I4(value.Ptr()) = lValue;
    return access.SetProperty(szProperty, value.Ptr());
}

void Check(HRESULT hr, const char* szMessage)
{
    if (FAILED(hr))
        RaiseHr(hr, "CNotfyTestKind::RetrieveInstances", szMessage, "hr 0x%X", static_cast<unsigned>(hr));
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
    m_itemResults.clear();
    for (const Item& item : m_items) {
        // Like every kind: a failed item is traced and skipped.
        const HRESULT hr = CatchHr([&]() -> HRESULT {
            Check(m_wmi.NewInstance(m_sEventClassName.c_str()), "Raising exception because NewInstance failed.");
            Check(PutI4(m_wmi, "DeviceId", item.lDeviceId), "Raising exception because SetProperty on 'DeviceId' failed.");
            if (item.szObject) {
                CCVariant object;
                object.SetText(std::wstring(item.szObject, item.szObject + strlen(item.szObject)).c_str());
                Check(m_wmi.SetProperty("Object", object.Ptr()), "Raising exception because setting 'Object' reference failed.");
            }
            Check(PutI4(m_wmi, "EventStatus", static_cast<LONG>(item.ulStatus)),
                  "Raising exception because SetProperty on 'EventStatus' failed");
            Check(SetEventType(item.ulStatus), "Raising exception because SetEventData failed.");
            Check(SetCommonData(), "Raising exception because SetCommonData failed.");
            Check(AddToList(), "Raising exception because AddToList failed.");
            return S_OK;
        });
        m_itemResults.push_back(hr);
        if (FAILED(hr))
            GetTrace().TraceMsg(TRACE_WARNING, "CNotfyTestKind::RetrieveInstances", "Exception",
                                "Catching an self-thrown HRESULT exception. This usually indicates an error, but I just "
                                "continue in the loop!",
                                "hr 0x%X", static_cast<unsigned>(hr));
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
    const CNotfyNames names = {"TestFeature", "1.0", "TestContext"};
    return kind.Init(*m_pEvents, &names);
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
