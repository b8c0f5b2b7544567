// Requests on the example workstation: the repository assembled as the demo does it (the schema first, then
// the machine without its change) in a folder of the test; Moradel.dll loaded, handlers from its class factory.
#pragma once

#include "CimStoreTest.h"
#include "TempDir.h"
#include "WbemTestClient.h"
#include "tests/com/MoradelModule.h"

#include <memory>
#include <string>
#include <vector>

inline constexpr wchar_t kWorkstationEvents[] = L"root\\oxl1v2\\KM_Notification";

std::vector<ULONG> TableIds();                        // every id of the handler's table, in its order
inline std::string IdTestName(const testing::TestParamInfo<ULONG>& info) { return "Id" + std::to_string(info.param); }

class WorkstationTest : public CimStoreTest {
protected:
    void SetUp() override;
    void TearDown() override;
    void LoadWorkstation();  // without the state that earlier runs saved in the folder
    Microsoft::WRL::ComPtr<INotifications> InitializedHandler();
    // One agent cycle of an id on a new handler: its events, those without NoPut written back, obsolete ones deleted.
    void RunAgentCycle(ULONG ulId);
    // Loaded, then two cycles over every id: afterwards a request changes nothing in the store.
    void LoadSettledWorkstation();

    std::unique_ptr<MoradelModule> m_pModule;
    TempDir m_folder;
    std::wstring m_wsChange;  // examples/workstation/change.mof
};
