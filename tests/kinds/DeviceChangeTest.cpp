// The device change kind (id 23) and the video adapter kind (id 64) on the same association
// walk, over several agent cycles against MOF machines in CimStore.
#include "KindTestSupport.h"

#include "TempDir.h"
#include "TestRegistryKey.h"
#include "framework/CCEventLog.h"
#include "notifications/inventory/CNotfyDeviceChange.h"
#include "notifications/inventory/CNotfyVideoAdapterChange.h"

namespace {

constexpr wchar_t kDisk[] = L"VBOX HARDDISK ATA Device";
constexpr wchar_t kCd[] = L"NECVMWar VMware SATA CD01";
constexpr wchar_t kAdded[] = L"ST1000DM010 SCSI Disk Device";
constexpr wchar_t kQuadro[] = L"NVIDIA Quadro P620";
constexpr wchar_t kIntel[] = L"Intel UHD Graphics 630";
constexpr wchar_t kRadeon[] = L"AMD Radeon Pro WX 3200";

using Logged = std::vector<std::vector<std::string>>;
Logged g_logged;  // what went to the event log while a test ran

HANDLE WINAPI FakeRegister(LPCSTR, LPCSTR)
{
    return &g_logged;
}
BOOL WINAPI FakeReport(HANDLE, WORD, WORD, DWORD dwEventId, PSID, WORD wNumStrings, DWORD, LPCSTR* pszStrings, LPVOID)
{
    g_logged.push_back({std::to_string(dwEventId)});
    for (WORD i = 0; i < wNumStrings; ++i)
        g_logged.back().push_back(pszStrings[i]);
    return TRUE;
}
BOOL WINAPI FakeDeregister(HANDLE)
{
    return TRUE;
}

struct Expected {
    const wchar_t* wszName;
    LONG lType, lStatus, lTextId;
    bool bNoPut;
};

// The cycle's events are exactly these (by Name), each with its name as the one text argument.
void ExpectEvents(const std::map<std::wstring, CycleEvent>& events, std::initializer_list<Expected> expected)
{
    EXPECT_EQ(events.size(), expected.size());
    for (const Expected& e : expected) {
        const std::string sName = Narrow(e.wszName);
        const auto it = events.find(e.wszName);
        ASSERT_NE(it, events.end()) << sName;
        EXPECT_EQ(it->second.lType, e.lType) << sName;
        EXPECT_EQ(it->second.lStatus, e.lStatus) << sName;
        EXPECT_EQ(it->second.lTextId, e.lTextId) << sName;
        EXPECT_EQ(it->second.bNoPut, e.bNoPut) << sName;
        EXPECT_EQ(it->second.arguments, std::vector<std::wstring>{e.wszName}) << sName;
    }
}

class DeviceChangeTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        // A feature no other test process switches event logging on for.
        m_sFeature = "DeviceTestFeature_" + std::to_string(GetCurrentProcessId());
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_schema.mof"));
        g_logged.clear();
        m_previousApi = CCEventLog::SetApi({&FakeRegister, &FakeReport, &FakeDeregister});
    }
    void TearDown() override
    {
        CCEventLog::SetApi(m_previousApi);
        KindTest::TearDown();
    }
    template <class Kind>
    std::map<std::wstring, CycleEvent> Cycle(HRESULT hrGet = S_OK)
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, hrGet) << std::hex << result.hrGet;
        EXPECT_EQ(result.hrDelete, S_OK);
        return EventsBy(std::move(result.events), L"Name");
    }
    static std::wstring Text(const CycleEvent& event, const wchar_t* wszProperty)
    {
        return GetText(event.pEvent.Get(), wszProperty);
    }

    CCEventLogApi m_previousApi{};
};

TEST_F(DeviceChangeTest, AgentCyclesReportFirstUnchangedAddedAndRemovedDevices)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    std::map<std::wstring, CycleEvent> events = Cycle<CNotfyDeviceChange>();
    // The USB stick has no IDE or SCSI association: no event and no running number.
    ExpectEvents(events, {{kDisk, 3, 1, 23001, false}, {kCd, 3, 1, 23001, false}});
    const std::wstring wsDiskObject = Text(events[kDisk], L"Object");
    const std::wstring wsDiskTarget = Text(events[kDisk], L"DeviceIDTarget");
    const LONG lDiskId = GetI4(events[kDisk].pEvent.Get(), L"DeviceId");
    EXPECT_NE(wsDiskObject.find(L"root\\cimv2:Win32_IDEControllerDevice.Antecedent="), std::wstring::npos)
        << Narrow(wsDiskObject);
    EXPECT_NE(Text(events[kCd], L"Object").find(L"root\\cimv2:Win32_SCSIControllerDevice.Antecedent="),
              std::wstring::npos);
    EXPECT_EQ(Text(events[kCd], L"DeviceIDTarget"), L"SCSI\\CDROM&VEN_NECVMWAR&PROD_VMWARE_SATA_CD01\\4&3");
    EXPECT_EQ((std::set<LONG>{lDiskId, GetI4(events[kCd].pEvent.Get(), L"DeviceId")}), (std::set<LONG>{1, 2}));

    ExpectEvents(Cycle<CNotfyDeviceChange>(), {{kDisk, 3, 1, 23001, true}, {kCd, 3, 1, 23001, true}});

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_added.mof"));
    ExpectEvents(Cycle<CNotfyDeviceChange>(),
                 {{kDisk, 3, 1, 23001, true}, {kCd, 3, 1, 23001, true}, {kAdded, 5, 2, 23002, false}});

    // The disk is taken out: reported once with what was stored with it, then deleted by the agent.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_removed.mof"));
    events = Cycle<CNotfyDeviceChange>();
    ExpectEvents(events, {{kDisk, 5, 3, 23003, false}, {kCd, 3, 1, 23001, true}, {kAdded, 3, 1, 23001, true}});
    EXPECT_EQ(GetI4(events[kDisk].pEvent.Get(), L"DeviceId"), lDiskId);
    EXPECT_EQ(Text(events[kDisk], L"Object"), wsDiskObject);
    EXPECT_EQ(Text(events[kDisk], L"DeviceIDTarget"), wsDiskTarget);
    EXPECT_EQ(StoredTexts("KM_DeviceChange_Static", L"Name"), (std::set<std::wstring>{kCd, kAdded}));
    events = Cycle<CNotfyDeviceChange>();
    EXPECT_EQ(events.size(), 2u);
    EXPECT_EQ(events.count(kDisk), 0u);
}

TEST_F(DeviceChangeTest, NoDevicesAtAllReportNotEvenRemovals)
{
    LoadMof(L"instance of KM_DeviceChange_Static { Object = \"\\\\\\\\VM\\\\root\\\\cimv2:Win32_IDEControllerDevice."
            L"Antecedent=\\\"gone\\\",Dependent=\\\"gone\\\"\"; DeviceId = 1; Name = \"Old disk\"; };",
            L"root\\oxl1v2\\KM_Notification");
    CNotfyDeviceChange kind;
    ASSERT_EQ(InitKind(kind), S_OK);
    unsigned long ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 0u);
}

TEST_F(DeviceChangeTest, FailedQueriesGoToTheEventLogOnlyWhenActivated)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    const HRESULT hrDenied = static_cast<HRESULT>(WBEM_E_ACCESS_DENIED);
    ASSERT_EQ(CimStoreInjectFault(L"CreateInstanceEnum", L"CIM_MediaAccessDevice", 0, hrDenied), S_OK);
    EXPECT_TRUE(Cycle<CNotfyDeviceChange>(hrDenied).empty());
    EXPECT_TRUE(g_logged.empty()) << "event logging is off for the feature";
    TestRegistryKey key("SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Larkspan\\Larkspan\\Activation\\" + m_sFeature);
    key.SetDword("Active", 1);
    Cycle<CNotfyDeviceChange>(hrDenied);
    EXPECT_EQ(g_logged, (Logged{{std::to_string(0xC0000007u), "CIM_MediaAccessDevice"}}));

    // A failed probe for stored events skips the device, each one reported; the request goes on.
    CimStoreClearFaults();
    g_logged.clear();
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", L"select * from KM_DeviceChange_Static where DeviceId = 1", 0,
                                  WBEM_E_FAILED),
              S_OK);
    EXPECT_TRUE(Cycle<CNotfyDeviceChange>().empty());
    EXPECT_EQ(g_logged, (Logged(2, {std::to_string(0xC0000007u), "KM_DeviceChange_Static"})));
}

class VideoAdapterTest : public DeviceChangeTest {
protected:
    void SetUp() override
    {
        DeviceChangeTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\video\\adapters.mof"));
    }
};

// The key is the adapter's own Plug and Play entity, so a replaced adapter is an addition and a removal.
TEST_F(VideoAdapterTest, AReplacedAdapterIsOneAdditionAndOneRemoval)
{
    std::map<std::wstring, CycleEvent> events = Cycle<CNotfyVideoAdapterChange>();
    ExpectEvents(events, {{kQuadro, 3, 1, 64001, false}, {kIntel, 3, 1, 64001, false}});
    EXPECT_EQ(Text(events[kQuadro], L"Object"),
              L"\\\\VM\\root\\cimv2:Win32_PnPEntity.DeviceID=\"PCI\\\\VEN_10DE&DEV_1CB6\\\\4&1\"");
    ExpectEvents(Cycle<CNotfyVideoAdapterChange>(), {{kQuadro, 3, 1, 64001, true}, {kIntel, 3, 1, 64001, true}});

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\video\\replaced.mof"));
    events = Cycle<CNotfyVideoAdapterChange>();
    ExpectEvents(events, {{kQuadro, 3, 1, 64001, true}, {kRadeon, 5, 2, 64002, false}, {kIntel, 5, 3, 64003, false}});
    EXPECT_EQ(GetI4(events[kIntel].pEvent.Get(), L"DeviceId"), 2);
    EXPECT_EQ(StoredTexts("KM_VideoAdapterChange_Static", L"Name"), (std::set<std::wstring>{kQuadro, kRadeon}));
}

}  // namespace
