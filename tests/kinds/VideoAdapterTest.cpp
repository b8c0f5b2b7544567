// The video adapter kind (id 64): the device change walk with the adapter's own Plug and Play
// entity as the key, over several agent cycles.
#include "KindTestSupport.h"

#include "TempDir.h"

#include "notifications/inventory/CNotfyVideoAdapterChange.h"

#include <map>
#include <set>
#include <string>

namespace {

constexpr wchar_t kQuadro[] = L"NVIDIA Quadro P620";
constexpr wchar_t kIntel[] = L"Intel UHD Graphics 630";
constexpr wchar_t kRadeon[] = L"AMD Radeon Pro WX 3200";

class VideoAdapterTest : public KindTest {
protected:
    void SetUp() override
    {
        KindTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\device\\device_schema.mof"));
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"..\\..\\schema\\cimv2.mof"));
        ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\video\\adapters.mof"));
    }

    // The events of one cycle by Name.
    std::map<std::wstring, CycleEvent> Cycle()
    {
        CycleResult result = RunAgentCycle<CNotfyVideoAdapterChange>();
        EXPECT_EQ(result.hrGet, S_OK);
        EXPECT_EQ(result.hrDelete, S_OK);
        std::map<std::wstring, CycleEvent> events;
        for (CycleEvent& event : result.events)
            events[GetText(event.pEvent.Get(), L"Name")] = std::move(event);
        return events;
    }
};

TEST_F(VideoAdapterTest, AReplacedAdapterIsOneAdditionAndOneRemoval)
{
    const struct {
        const wchar_t* wszName;
        LONG lType, lStatus, lTextId;
        bool bNoPut;
    } first[] = {{kQuadro, 3, 1, 64001, false}, {kIntel, 3, 1, 64001, false}},
      second[] = {{kQuadro, 3, 1, 64001, true}, {kIntel, 3, 1, 64001, true}},
      replaced[] = {{kQuadro, 3, 1, 64001, true}, {kRadeon, 5, 2, 64002, false}, {kIntel, 5, 3, 64003, false}};
    const auto Check = [](const std::map<std::wstring, CycleEvent>& events, const auto& rows, const char* szCycle) {
        EXPECT_EQ(events.size(), std::size(rows)) << szCycle;
        for (const auto& row : rows) {
            const auto it = events.find(row.wszName);
            ASSERT_NE(it, events.end()) << szCycle << " " << Narrow(row.wszName);
            const CycleEvent& event = it->second;
            EXPECT_EQ(event.lType, row.lType) << szCycle << " " << Narrow(row.wszName);
            EXPECT_EQ(event.lStatus, row.lStatus) << szCycle << " " << Narrow(row.wszName);
            EXPECT_EQ(event.lTextId, row.lTextId) << szCycle << " " << Narrow(row.wszName);
            EXPECT_EQ(event.bNoPut, row.bNoPut) << szCycle << " " << Narrow(row.wszName);
            EXPECT_EQ(event.arguments, std::vector<std::wstring>{row.wszName}) << szCycle;
        }
    };

    std::map<std::wstring, CycleEvent> events = Cycle();
    Check(events, first, "first");
    // The key is the adapter's Plug and Play entity; no DeviceIDTarget is written for adapters.
    EXPECT_EQ(GetText(events[kQuadro].pEvent.Get(), L"Object"),
              L"\\\\VM\\root\\cimv2:Win32_PnPEntity.DeviceID=\"PCI\\\\VEN_10DE&DEV_1CB6\\\\4&1\"");
    Check(Cycle(), second, "unchanged");

    ASSERT_NO_FATAL_FAILURE(LoadFixture(L"kinds\\video\\replaced.mof"));
    events = Cycle();
    Check(events, replaced, "replaced");
    // The removal carries what was stored with the adapter, and it is gone from the store after the cycle.
    EXPECT_EQ(GetI4(events[kIntel].pEvent.Get(), L"DeviceId"), 2);
    EXPECT_EQ(StoredTexts("KM_VideoAdapterChange_Static", L"Name"), (std::set<std::wstring>{kQuadro, kRadeon}));
}

}  // namespace
