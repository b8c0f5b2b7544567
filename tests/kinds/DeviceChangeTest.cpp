// The device change kind (id 23) and the video adapter kind (id 64) on the same association
// walk, over several agent cycles against MOF machines in CimStore.
#include "KindTestSupport.h"

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

HANDLE WINAPI FakeRegister(LPCSTR, LPCSTR) { return &g_logged; }
BOOL WINAPI FakeDeregister(HANDLE) { return TRUE; }
BOOL WINAPI FakeReport(HANDLE, WORD, WORD, DWORD dwEventId, PSID, WORD wNumStrings, DWORD, LPCSTR* pszStrings, LPVOID)
{
    g_logged.push_back({std::to_string(dwEventId)});
    for (WORD i = 0; i < wNumStrings; ++i)
        g_logged.back().push_back(pszStrings[i]);
    return TRUE;
}

// The cycle's events are exactly these (by Name), each with its name as the one text argument.
void ExpectDevices(const Events& events, std::vector<Want> wants, const char* szStep)
{
    for (Want& w : wants)
        w.arguments = {w.wsKey};
    ExpectEvents(events, wants, szStep);
}

class DeviceChangeTest : public KindTest {
protected:
    DeviceChangeTest() : KindTest({L"kinds\\device\\device_schema.mof"}) {}
    void SetUp() override
    {
        // A feature no other test process switches event logging on for.
        m_sFeature = "DeviceTestFeature_" + std::to_string(GetCurrentProcessId());
        g_logged.clear();
        m_previousApi = CCEventLog::SetApi({&FakeRegister, &FakeReport, &FakeDeregister});
        KindTest::SetUp();
    }
    void TearDown() override
    {
        CCEventLog::SetApi(m_previousApi);
        KindTest::TearDown();
    }

    CCEventLogApi m_previousApi{};
};

TEST_F(DeviceChangeTest, AgentCyclesReportFirstUnchangedAddedAndRemovedDevices)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    Events events = Cycle<CNotfyDeviceChange>(L"Name");
    // The USB stick has no IDE or SCSI association: no event and no running number.
    ExpectDevices(events, {{kDisk, 1, 23001, 3, false}, {kCd, 1, 23001, 3, false}}, "first");
    IWbemClassObject *pDisk = events.at(kDisk).pEvent.Get(), *pCd = events.at(kCd).pEvent.Get();
    const std::wstring wsDiskObject = GetText(pDisk, L"Object"), wsDiskTarget = GetText(pDisk, L"DeviceIDTarget");
    const LONG lDiskId = GetI4(pDisk, L"DeviceId");
    EXPECT_NE(wsDiskObject.find(L"root\\cimv2:Win32_IDEControllerDevice.Antecedent="), std::wstring::npos)
        << Narrow(wsDiskObject);
    EXPECT_NE(GetText(pCd, L"Object").find(L"root\\cimv2:Win32_SCSIControllerDevice.Antecedent="), std::wstring::npos);
    EXPECT_EQ(GetText(pCd, L"DeviceIDTarget"), L"SCSI\\CDROM&VEN_NECVMWAR&PROD_VMWARE_SATA_CD01\\4&3");
    EXPECT_EQ((std::set<LONG>{lDiskId, GetI4(pCd, L"DeviceId")}), (std::set<LONG>{1, 2}));
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_added.mof"));
    ExpectDevices(Cycle<CNotfyDeviceChange>(L"Name"),
                  {{kDisk, 1, 23001, 3, true}, {kCd, 1, 23001, 3, true}, {kAdded, 2, 23002, 5, false}}, "added");
    // The disk is taken out: reported once with what was stored with it, then deleted by the agent.
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_removed.mof"));
    events = Cycle<CNotfyDeviceChange>(L"Name");
    ExpectDevices(events, {{kDisk, 3, 23003, 5, false}, {kCd, 1, 23001, 3, true}, {kAdded, 1, 23001, 3, true}},
                  "removed");
    EXPECT_EQ(GetI4(events[kDisk].pEvent.Get(), L"DeviceId"), lDiskId);
    EXPECT_EQ(GetText(events[kDisk].pEvent.Get(), L"Object"), wsDiskObject);
    EXPECT_EQ(GetText(events[kDisk].pEvent.Get(), L"DeviceIDTarget"), wsDiskTarget);
    EXPECT_EQ(StoredTexts("KM_DeviceChange_Static", L"Name"), (std::set<std::wstring>{kCd, kAdded}));
    // Without the reference of DeviceId 1 the next cycle counts as a first inventory again.
    const bool bNoPut = lDiskId != 1;
    ExpectDevices(Cycle<CNotfyDeviceChange>(L"Name"), {{kCd, 1, 23001, 3, bNoPut}, {kAdded, 1, 23001, 3, bNoPut}},
                  "after");
}

TEST_F(DeviceChangeTest, NoDevicesAtAllReportNotEvenRemovals)
{
    LoadMof(L"instance of KM_DeviceChange_Static { Object = \"\\\\\\\\VM\\\\root\\\\cimv2:Win32_IDEControllerDevice."
            L"Antecedent=\\\"gone\\\",Dependent=\\\"gone\\\"\"; DeviceId = 1; Name = \"Old disk\"; };",
            L"root\\oxl1v2\\KM_Notification");
    EXPECT_TRUE(Cycle<CNotfyDeviceChange>(L"Name").empty());
}

TEST_F(DeviceChangeTest, FailedQueriesGoToTheEventLogOnlyWhenActivated)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    const HRESULT hrDenied = static_cast<HRESULT>(WBEM_E_ACCESS_DENIED);
    ASSERT_EQ(CimStoreInjectFault(L"CreateInstanceEnum", L"CIM_MediaAccessDevice", 0, hrDenied), S_OK);
    EXPECT_TRUE(Cycle<CNotfyDeviceChange>(L"Name", hrDenied).empty());
    EXPECT_TRUE(g_logged.empty()) << "event logging is off for the feature";
    TestRegistryKey key("SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Larkspan\\Larkspan\\Activation\\" + m_sFeature);
    key.SetDword("Active", 1);
    Cycle<CNotfyDeviceChange>(L"Name", hrDenied);
    EXPECT_EQ(g_logged, (Logged{{std::to_string(0xC0000007u), "CIM_MediaAccessDevice"}}));

    // A failed probe for stored events skips the device, each one reported; the request goes on.
    CimStoreClearFaults();
    g_logged.clear();
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", L"select * from KM_DeviceChange_Static where DeviceId = 1", 0,
                                  WBEM_E_FAILED),
              S_OK);
    EXPECT_TRUE(Cycle<CNotfyDeviceChange>(L"Name").empty());
    EXPECT_EQ(g_logged, (Logged(2, {std::to_string(0xC0000007u), "KM_DeviceChange_Static"})));
}

struct VideoAdapterTest : DeviceChangeTest {
    VideoAdapterTest()
    {
        m_fixtures.insert(m_fixtures.end(), {L"..\\..\\schema\\cimv2.mof", L"kinds\\video\\adapters.mof"});
    }
};

// The key is the adapter's own Plug and Play entity, so a replaced adapter is an addition and a removal.
TEST_F(VideoAdapterTest, AReplacedAdapterIsOneAdditionAndOneRemoval)
{
    Events events = Cycle<CNotfyVideoAdapterChange>(L"Name");
    ExpectDevices(events, {{kQuadro, 1, 64001, 3, false}, {kIntel, 1, 64001, 3, false}}, "first");
    EXPECT_EQ(GetText(events[kQuadro].pEvent.Get(), L"Object"),
              L"\\\\VM\\root\\cimv2:Win32_PnPEntity.DeviceID=\"PCI\\\\VEN_10DE&DEV_1CB6\\\\4&1\"");
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\video\\replaced.mof"));
    events = Cycle<CNotfyVideoAdapterChange>(L"Name");
    ExpectDevices(events, {{kQuadro, 1, 64001, 3, true}, {kRadeon, 2, 64002, 5, false}, {kIntel, 3, 64003, 5, false}},
                  "replaced");
    EXPECT_EQ(GetI4(events[kIntel].pEvent.Get(), L"DeviceId"), 2);
    EXPECT_EQ(StoredTexts("KM_VideoAdapterChange_Static", L"Name"), (std::set<std::wstring>{kQuadro, kRadeon}));
}

}  // namespace
