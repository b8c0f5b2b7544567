// A small notification kind driven by a script of items, and a fixture that loads the event
// namespace schema and holds a connection to it.
#pragma once

#include "CimStoreTest.h"

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
    struct Item {
        LONG lDeviceId;
        unsigned long ulStatus;
        const char* szObject;  // null: Object stays unset
    };

    explicit CNotfyTestKind(unsigned long ulNotfyId = kTestKindId);

    HRESULT RetrieveInstances() override;
    bool IsSupported() override { return m_bSupported; }
    bool IsInstanceObsolete(CCWMIAccess& stored, CCWMIAccess& live) override;

    CCWMIAccess& Access() { return m_wmi; }
    void SetReferencedNamespace(const char* sz) { m_sReferencedNamespace = sz; }

    std::vector<Item> m_items;
    bool m_bSupported = true;
    int m_iFailingRetrievals = 0;  // so many retrievals list their items and then fail
    int m_iRetrieveCalls = 0;
    std::set<LONG> m_obsoleteIds;  // IsInstanceObsolete answers true for these stored DeviceIds
};

// What an agent cycle saw of one event; the object stays for reading further properties.
struct CycleEvent {
    Microsoft::WRL::ComPtr<IWbemClassObject> pEvent;
    LONG lStatus = -1;
    LONG lTextId = -1;
    LONG lType = -1;
    bool bNoPut = false;
    std::vector<std::wstring> arguments;  // {L"<none>"} when EventTextArguments is not set
};

struct CycleResult {
    HRESULT hrGet = E_FAIL;
    std::vector<CycleEvent> events;  // in the kind's order
    HRESULT hrDelete = E_FAIL;
};

class KindTest : public CimStoreTest {
protected:
    // One agent cycle, each request on a fresh kind object as the handler does: GetInstances,
    // PutInstance of every event without NoPut, then DeleteObsoleteInstances.
    template <class Kind>
    CycleResult RunAgentCycle()
    {
        Kind getter;
        Kind deleter;
        return RunAgentCycle(getter, deleter);
    }
    CycleResult RunAgentCycle(CNotfyBase& getter, CNotfyBase& deleter);
    // The values of one text property over the stored instances of szClass.
    std::set<std::wstring> StoredTexts(const char* szClass, const wchar_t* wszProperty);

    void SetUp() override;
    void TearDown() override;

    // Init with the event namespace and the feature identity {m_sFeature, "1.0", "TestContext"}.
    HRESULT InitKind(CNotfyBase& kind);
    // DeviceIds of the stored instances of the test kind's class.
    std::set<LONG> StoredDeviceIds();
    // A new event instance of szClass as the kind's current one, keyed by lDeviceId.
    void NewEvent(CNotfyTestKind& kind, LONG lDeviceId, const char* szClass = "KM_TestKind_Static");

    std::unique_ptr<CCWMIAccess> m_pEvents;
    std::string m_sFeature = "TestFeature";
};

// A cycle's events by the text of one of their properties (e.g. DeviceId or Name).
std::map<std::wstring, CycleEvent> EventsBy(std::vector<CycleEvent> events, const wchar_t* wszKey);

// A property of an object as a VARIANT type and value, for checks.
LONG GetI4(IWbemClassObject* pObject, const wchar_t* wszProperty, VARTYPE* pvt = nullptr);
std::wstring GetText(IWbemClassObject* pObject, const wchar_t* wszProperty);
// A VT_ARRAY | VT_BSTR property; {L"<none>"} when it is not such an array.
std::vector<std::wstring> GetTexts(IWbemClassObject* pObject, const wchar_t* wszProperty);
bool HasNoPut(IWbemClassObject* pObject);
// The level word of the first trace line with this message written since uMark, "" when none.
std::string TraceLevelOf(size_t uMark, const std::string& sMessage);
