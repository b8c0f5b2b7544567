// A small notification kind driven by a script of items, a fixture that loads the event namespace
// schema and holds a connection to it, and agent cycles with their events by a key property.
#pragma once

#include "CimStoreTest.h"
#include "TempDir.h"

#include "access/CCWMIAccess.h"
#include "core/CNotfyBase.h"

#include <wrl/client.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

inline constexpr char kEventNamespace[] = "root\\oxl1v2\\KM_Notification";
inline constexpr char kLiveNamespace[] = "root\\oxl1v2\\KM_TestLive";
inline constexpr unsigned long kTestKindId = 90;

class CNotfyTestKind : public CNotfyBase {
public:
    explicit CNotfyTestKind(unsigned long ulNotfyId = kTestKindId);
    HRESULT RetrieveInstances() override;
    bool IsSupported() override { return m_bSupported; }
    bool IsInstanceObsolete(CCWMIAccess& stored, CCWMIAccess& live) override;
    CCWMIAccess& Access() { return m_wmi; }
    void SetReferencedNamespace(const char* sz) { m_sReferencedNamespace = sz; }
    std::vector<LONG> m_items;  // DeviceIds of items in status 1 without an Object
    bool m_bSupported = true;
    int m_iFailingRetrievals = 0, m_iRetrieveCalls = 0;  // so many retrievals list their items and then fail
    std::set<LONG> m_obsoleteIds;  // IsInstanceObsolete answers true for these stored DeviceIds
};

// What an agent cycle saw of one event; the object stays for reading further properties.
struct CycleEvent {
    Microsoft::WRL::ComPtr<IWbemClassObject> pEvent;
    LONG lStatus = -1, lTextId = -1, lType = -1;
    bool bNoPut = false;
    std::vector<std::wstring> arguments;  // {L"<none>"} when EventTextArguments is not set
};

// The events in the kind's order.
struct CycleResult { HRESULT hrGet = E_FAIL; std::vector<CycleEvent> events; HRESULT hrDelete = E_FAIL; };
using Texts = std::vector<std::wstring>;
using Events = std::map<std::wstring, CycleEvent>;
// One expected event: its key, what the agent sees, its arguments ({L"<none>"}: not set).
struct Want { std::wstring wsKey; LONG lStatus, lTextId, lType; bool bNoPut; Texts arguments = {L"<none>"}; };

// The events by a key property (an integer as decimal text); a second one with the same key as "<key>#2".
Events ByKey(CycleResult result, const wchar_t* wszKey);
// Exactly the wanted events, each compared as (status, text id, type, NoPut, arguments).
void ExpectEvents(const Events& events, const std::vector<Want>& wants, const std::string& sWhere);

// A kind test whose schema and machine come from these fixture files besides the event schema.
class KindTest : public CimStoreTest {
protected:
    explicit KindTest(std::vector<std::wstring> fixtures = {}) : m_fixtures(std::move(fixtures)) {}
    // One agent cycle, each request on a fresh kind object as the handler does: GetInstances,
    // PutInstance of every event without NoPut, then DeleteObsoleteInstances.
    template <class Kind>
    CycleResult RunAgentCycle()
    {
        Kind getter, deleter;
        return RunAgentCycle(getter, deleter);
    }
    CycleResult RunAgentCycle(CNotfyBase& getter, CNotfyBase& deleter);
    // One agent cycle whose requests answer hrGet and S_OK, its events by wszKey.
    template <class Kind>
    Events Cycle(const wchar_t* wszKey, HRESULT hrGet = S_OK)
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, hrGet) << std::hex << result.hrGet;
        EXPECT_EQ(result.hrDelete, S_OK) << std::hex << result.hrDelete;
        return ByKey(std::move(result), wszKey);
    }
    // The values of one property (an integer as decimal text) over the stored instances of szClass.
    std::set<std::wstring> StoredTexts(const char* szClass, const wchar_t* wszProperty);

    void SetUp() override;
    void TearDown() override;

    // Init with the event namespace and the feature identity {m_sFeature, "1.0", "TestContext"}.
    HRESULT InitKind(CNotfyBase& kind);
    // A new event instance of szClass as the kind's current one, keyed by lDeviceId.
    void NewEvent(CNotfyTestKind& kind, LONG lDeviceId, const char* szClass = "KM_TestKind_Static");

    std::vector<std::wstring> m_fixtures;
    std::unique_ptr<CCWMIAccess> m_pEvents;
    std::string m_sFeature = "TestFeature";
};

// A property of an object as a VARIANT type and value, for checks.
LONG GetI4(IWbemClassObject* pObject, const wchar_t* wszProperty, VARTYPE* pvt = nullptr);
std::wstring GetText(IWbemClassObject* pObject, const wchar_t* wszProperty);
std::wstring KeyText(IWbemClassObject* pObject, const wchar_t* wszProperty);  // an integer as decimal text
// A VT_ARRAY | VT_BSTR property; {L"<none>"} when it is not such an array.
std::vector<std::wstring> GetTexts(IWbemClassObject* pObject, const wchar_t* wszProperty);
bool HasNoPut(IWbemClassObject* pObject);
// The level word of the first trace line with this message written since uMark, "" when none.
std::string TraceLevelOf(size_t uMark, const std::string& sMessage);
