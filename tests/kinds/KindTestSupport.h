// A small notification kind driven by a script of items, and a fixture that loads the event
// namespace schema and holds a connection to it.
#pragma once

#include "CimStoreTest.h"

#include "access/CCWMIAccess.h"
#include "core/CNotfyBase.h"

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
    std::vector<HRESULT> m_itemResults;
};

class KindTest : public CimStoreTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Init with the event namespace and a fixed feature identity.
    HRESULT InitKind(CNotfyBase& kind);
    // DeviceIds of the stored instances of the test kind's class.
    std::set<LONG> StoredDeviceIds();

    std::unique_ptr<CCWMIAccess> m_pEvents;
};

// A property of an object as a VARIANT type and value, for checks.
LONG GetI4(IWbemClassObject* pObject, const wchar_t* wszProperty, VARTYPE* pvt = nullptr);
std::wstring GetText(IWbemClassObject* pObject, const wchar_t* wszProperty);
