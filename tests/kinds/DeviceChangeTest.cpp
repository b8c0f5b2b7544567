// The device change kind (id 23) over several agent cycles against a MOF workstation in CimStore.
#include "KindTestSupport.h"

#include "TempDir.h"
#include "TestRegistryKey.h"
#include "access/ComHolders.h"
#include "framework/CCEventLog.h"
#include "notifications/inventory/CNotfyDeviceChange.h"

#include <wrl/client.h>

#include <map>
#include <set>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kDiskName[] = L"VBOX HARDDISK ATA Device";
constexpr wchar_t kCdName[] = L"NECVMWar VMware SATA CD01";
constexpr wchar_t kUsbName[] = L"SanDisk Cruzer USB Device";
constexpr wchar_t kAddedName[] = L"ST1000DM010 SCSI Disk Device";

struct Event {
    LONG lType, lStatus, lTextId, lEventId, lDeviceId;
    bool bNoPut;
    std::wstring wsObject, wsTarget;
    std::vector<std::wstring> arguments;
};

struct Cycle {
    HRESULT hr = E_FAIL;
    std::map<std::wstring, Event> events;  // by Name
    size_t uCount = 0;
};

std::vector<std::wstring> Arguments(IWbemClassObject* pObject)
{
    std::vector<std::wstring> result;
    CCVariant value;
    if (FAILED(pObject->Get(L"EventTextArguments", 0, value.GetAddress(), nullptr, nullptr)) ||
        value.Type() != (VT_ARRAY | VT_BSTR))
        return result;
    SAFEARRAY* psa = V_ARRAY(&value.Get());
    LONG lLower = 0, lUpper = -1;
    SafeArrayGetLBound(psa, 1, &lLower);
    SafeArrayGetUBound(psa, 1, &lUpper);
    for (LONG i = lLower; i <= lUpper; ++i) {
        CCBstr bstr;
        SafeArrayGetElement(psa, &i, bstr.GetAddress());
        result.push_back(bstr.Get() ? bstr.Get() : L"");
    }
    return result;
}

// Events reported through the event log while a test runs.
std::vector<std::vector<std::string>> g_logged;

HANDLE WINAPI FakeRegister(LPCSTR, LPCSTR)
{
    return &g_logged;
}
BOOL WINAPI FakeReport(HANDLE, WORD, WORD, DWORD dwEventId, PSID, WORD wNumStrings, DWORD, LPCSTR* pszStrings, LPVOID)
{
    std::vector<std::string> entry{std::to_string(dwEventId)};
    for (WORD i = 0; i < wNumStrings; ++i)
        entry.push_back(pszStrings[i]);
    g_logged.push_back(entry);
    return TRUE;
}
BOOL WINAPI FakeDeregister(HANDLE)
{
    return TRUE;
}

class DeviceChangeTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_schema.mof"));
        g_logged.clear();
        m_previousApi = CCEventLog::SetApi({&FakeRegister, &FakeReport, &FakeDeregister});
    }
    void TearDown() override
    {
        CCEventLog::SetApi(m_previousApi);
        KindTest::TearDown();
    }

    // A feature no other test process switches event logging on for.
    HRESULT InitOwnFeature(CNotfyBase& kind)
    {
        const CNotfyNames names = {m_sFeature.c_str(), "1.0", "TestContext"};
        return kind.Init(*m_pEvents, &names);
    }

    // One agent cycle: GetInstances, PutInstance of everything without NoPut, DeleteObsoleteInstances.
    Cycle RunCycle()
    {
        Cycle cycle;
        std::vector<ComPtr<IWbemClassObject>> instances;
        {
            CNotfyDeviceChange kind;
            EXPECT_EQ(InitOwnFeature(kind), S_OK);
            unsigned long ulCount = 0;
            cycle.hr = kind.GetInstances(nullptr, &ulCount);
            if (FAILED(cycle.hr))
                return cycle;
            std::vector<IWbemClassObject*> pointers(ulCount, nullptr);
            EXPECT_EQ(kind.GetInstances(pointers.data(), &ulCount), NOTFY_S_UNCHANGED);
            for (IWbemClassObject* p : pointers) {
                ComPtr<IWbemClassObject> pOwned;
                TakeOwnership(pOwned, p);
                instances.push_back(pOwned);
            }
        }
        cycle.uCount = instances.size();
        IWbemServices* pEvents = *m_pEvents;
        for (const ComPtr<IWbemClassObject>& p : instances) {
            Event event{GetI4(p.Get(), L"EventType"),   GetI4(p.Get(), L"EventStatus"), GetI4(p.Get(), L"EventTextId"),
                        GetI4(p.Get(), L"EventId"),     GetI4(p.Get(), L"DeviceId"),    HasNoPut(p.Get()),
                        GetText(p.Get(), L"Object"),    GetText(p.Get(), L"DeviceIDTarget"), Arguments(p.Get())};
            cycle.events[GetText(p.Get(), L"Name")] = event;
            if (!event.bNoPut) {
                EXPECT_EQ(pEvents->PutInstance(p.Get(), WBEM_FLAG_CREATE_OR_UPDATE, nullptr, nullptr), S_OK);
            }
        }
        CNotfyDeviceChange cleaner;
        EXPECT_EQ(InitOwnFeature(cleaner), S_OK);
        cleaner.DeleteObsoleteInstances();
        return cycle;
    }

    size_t StoredCount()
    {
        size_t uCount = 0;
        CCWMIAccess access;
        access = static_cast<IWbemServices*>(*m_pEvents);
        for (HRESULT hr = access.GetClassInstances("KM_DeviceChange_Static", 0); SUCCEEDED(hr);
             hr = access.GetNextWMIInstanceInEnumerator())
            ++uCount;
        return uCount;
    }

    std::string m_sFeature = "DeviceTestFeature_" + std::to_string(GetCurrentProcessId());
    CCEventLogApi m_previousApi{};
};

void ExpectEvent(const Cycle& cycle, const wchar_t* wszName, LONG lType, LONG lStatus, LONG lTextId, bool bNoPut)
{
    const auto it = cycle.events.find(wszName);
    ASSERT_NE(it, cycle.events.end()) << Narrow(wszName);
    EXPECT_EQ(it->second.lType, lType) << Narrow(wszName);
    EXPECT_EQ(it->second.lStatus, lStatus) << Narrow(wszName);
    EXPECT_EQ(it->second.lTextId, lTextId) << Narrow(wszName);
    EXPECT_EQ(it->second.lEventId, 23) << Narrow(wszName);
    EXPECT_EQ(it->second.bNoPut, bNoPut) << Narrow(wszName);
    EXPECT_EQ(it->second.arguments, std::vector<std::wstring>{wszName});
}

TEST_F(DeviceChangeTest, FirstCycleReportsEveryIdeAndScsiDevice)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    const Cycle cycle = RunCycle();
    ASSERT_EQ(cycle.hr, S_OK) << std::hex << cycle.hr;
    EXPECT_EQ(cycle.uCount, 2u) << "the USB stick has no IDE or SCSI association";
    EXPECT_EQ(cycle.events.count(kUsbName), 0u);
    ExpectEvent(cycle, kDiskName, 3, 1, 23001, false);
    ExpectEvent(cycle, kCdName, 3, 1, 23001, false);

    const Event& disk = cycle.events.at(kDiskName);
    const Event& cd = cycle.events.at(kCdName);
    EXPECT_NE(disk.wsObject.find(L"root\\cimv2:Win32_IDEControllerDevice.Antecedent="), std::wstring::npos)
        << Narrow(disk.wsObject);
    EXPECT_NE(cd.wsObject.find(L"root\\cimv2:Win32_SCSIControllerDevice.Antecedent="), std::wstring::npos)
        << Narrow(cd.wsObject);
    EXPECT_EQ(cd.wsTarget, L"SCSI\\CDROM&VEN_NECVMWAR&PROD_VMWARE_SATA_CD01\\4&3");
    // Running numbers from 1, the USB stick using none of them.
    EXPECT_EQ(std::set<LONG>({disk.lDeviceId, cd.lDeviceId}), std::set<LONG>({1, 2}));
    EXPECT_EQ(StoredCount(), 2u);
}

TEST_F(DeviceChangeTest, UnchangedDevicesCarryNoPutInLaterCycles)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    ASSERT_EQ(RunCycle().hr, S_OK);
    for (int i = 0; i < 2; ++i) {
        const Cycle cycle = RunCycle();
        ASSERT_EQ(cycle.hr, S_OK) << std::hex << cycle.hr;
        EXPECT_EQ(cycle.uCount, 2u);
        ExpectEvent(cycle, kDiskName, 3, 1, 23001, true);
        ExpectEvent(cycle, kCdName, 3, 1, 23001, true);
    }
    EXPECT_EQ(StoredCount(), 2u);
}

TEST_F(DeviceChangeTest, AttachedDeviceIsReportedAsAdded)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    ASSERT_EQ(RunCycle().hr, S_OK);
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_added.mof"));
    const Cycle second = RunCycle();
    ASSERT_EQ(second.hr, S_OK) << std::hex << second.hr;
    EXPECT_EQ(second.uCount, 3u);
    ExpectEvent(second, kAddedName, 5, 2, 23002, false);
    ExpectEvent(second, kDiskName, 3, 1, 23001, true);
    EXPECT_EQ(StoredCount(), 3u);
    // Once stored, the added device is an unchanged one.
    const Cycle third = RunCycle();
    ExpectEvent(third, kAddedName, 3, 1, 23001, true);
}

TEST_F(DeviceChangeTest, DetachedDeviceIsReportedOnceWithItsStoredValues)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    const Cycle first = RunCycle();
    ASSERT_EQ(first.hr, S_OK);
    ASSERT_EQ(first.events.count(kDiskName), 1u);
    const Event stored = first.events.at(kDiskName);

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_removed.mof"));
    const Cycle second = RunCycle();
    ASSERT_EQ(second.hr, S_OK) << std::hex << second.hr;
    EXPECT_EQ(second.uCount, 2u);
    ExpectEvent(second, kDiskName, 5, 3, 23003, false);
    ExpectEvent(second, kCdName, 3, 1, 23001, true);
    const Event& removed = second.events.at(kDiskName);
    EXPECT_EQ(removed.lDeviceId, stored.lDeviceId);
    EXPECT_EQ(removed.wsObject, stored.wsObject);
    EXPECT_EQ(removed.wsTarget, stored.wsTarget);
    EXPECT_EQ(StoredCount(), 1u) << "the agent's DeleteObsoleteInstances removed the stored disk";

    const Cycle third = RunCycle();
    EXPECT_EQ(third.uCount, 1u) << "a removal is reported once";
    EXPECT_EQ(third.events.count(kDiskName), 0u);
}

TEST_F(DeviceChangeTest, NoMediaAccessDeviceReportsNothingNotEvenRemovals)
{
    LoadMof(L"#pragma namespace(\"\\\\\\\\.\\\\root\\\\oxl1v2\\\\KM_Notification\")\n"
            L"instance of KM_DeviceChange_Static { Object = \"\\\\\\\\VM\\\\root\\\\cimv2:Win32_IDEControllerDevice."
            L"Antecedent=\\\"gone\\\",Dependent=\\\"gone\\\"\"; DeviceId = 1; Name = \"Old disk\"; };\n");
    CNotfyDeviceChange kind;
    ASSERT_EQ(InitOwnFeature(kind), S_OK);
    unsigned long ulCount = 0xdeadbeef;
    EXPECT_EQ(kind.GetInstances(nullptr, &ulCount), S_OK);
    EXPECT_EQ(ulCount, 0u);
    EXPECT_TRUE(g_logged.empty());
}

TEST_F(DeviceChangeTest, FailingDeviceQueryGoesToTheEventLogOnlyWhenActivated)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    const HRESULT hrFault = static_cast<HRESULT>(WBEM_E_ACCESS_DENIED);
    ASSERT_EQ(CimStoreInjectFault(L"CreateInstanceEnum", L"CIM_MediaAccessDevice", 0, hrFault), S_OK);

    Cycle inactive = RunCycle();
    EXPECT_EQ(inactive.hr, hrFault) << std::hex << inactive.hr;
    EXPECT_TRUE(g_logged.empty()) << "event logging is off for the feature";

    TestRegistryKey key("SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Larkspan\\Larkspan\\Activation\\" + m_sFeature);
    key.SetDword("Active", 1);
    Cycle active = RunCycle();
    EXPECT_EQ(active.hr, hrFault) << std::hex << active.hr;
    ASSERT_EQ(g_logged.size(), 1u);
    EXPECT_EQ(g_logged[0], (std::vector<std::string>{std::to_string(0xC0000007u), "CIM_MediaAccessDevice"}));
}

TEST_F(DeviceChangeTest, FailingStoredInstanceProbeIsLoggedAndSkipsTheDevice)
{
    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_machine.mof"));
    TestRegistryKey key("SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Larkspan\\Larkspan\\Activation\\" + m_sFeature);
    key.SetDword("Active", 1);
    const HRESULT hrFault = static_cast<HRESULT>(WBEM_E_FAILED);
    ASSERT_EQ(CimStoreInjectFault(L"ExecQuery", L"select * from KM_DeviceChange_Static where DeviceId = 1", 0, hrFault),
              S_OK);
    const Cycle cycle = RunCycle();
    EXPECT_EQ(cycle.hr, S_OK) << "a failed device is skipped, the request goes on";
    EXPECT_EQ(cycle.uCount, 0u);
    ASSERT_EQ(g_logged.size(), 2u) << "one report per device";
    EXPECT_EQ(g_logged[0], (std::vector<std::string>{std::to_string(0xC0000007u), "KM_DeviceChange_Static"}));
}

}  // namespace
