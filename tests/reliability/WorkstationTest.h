// Fixture for requests on the example workstation: the repository assembled as the demo does it
// (the schema first, the machine after it, without its change) in a folder of the test, and
// Moradel.dll loaded with handlers made through its class factory.
#pragma once

#include "CimStoreTest.h"
#include "TempDir.h"
#include "tests/com/MoradelModule.h"

#include "access/ComHolders.h"
#include "access/WbemGuids.h"

#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

inline constexpr wchar_t kWorkstationEvents[] = L"root\\oxl1v2\\KM_Notification";

// The objects of a VT_ARRAY | VT_VARIANT answer of GetInstances.
std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>> ReturnedObjects(const CCVariant& value);
bool CarriesNoPut(IWbemClassObject* pObject);
// Every id of the handler's table, in its order.
std::vector<ULONG> TableIds();
// The name of a test per id, "Id<n>".
std::string IdTestName(const testing::TestParamInfo<ULONG>& info);

class WorkstationTest : public CimStoreTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Loads the folder (without the stored state of earlier runs).
    void LoadWorkstation();
    Microsoft::WRL::ComPtr<INotifications> InitializedHandler();
    // One agent cycle of an id on pHandler (a new one when null): the events, those without NoPut
    // written back, then the obsolete ones deleted.
    void RunAgentCycle(ULONG ulId, INotifications* pHandler = nullptr);
    // Loads the workstation and runs two agent cycles over every id: afterwards a request
    // changes nothing in the store.
    void LoadSettledWorkstation();

    std::unique_ptr<MoradelModule> m_pModule;
    TempDir m_folder;
    std::wstring m_wsChange;  // examples/workstation/change.mof
};
