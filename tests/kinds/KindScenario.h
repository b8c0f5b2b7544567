// Agent cycles of a concrete kind, their events by a key property, and the expected events.
#pragma once

#include "KindTestSupport.h"
#include "TempDir.h"

#include <map>
#include <string>
#include <tuple>
#include <vector>

using Texts = std::vector<std::wstring>;
using Events = std::map<std::wstring, CycleEvent>;

// One expected event: its key, what the agent sees, its arguments ({L"<none>"}: not set).
struct Want {
    std::wstring wsKey;
    LONG lStatus, lTextId, lType;
    bool bNoPut;
    Texts arguments = {L"<none>"};
};

// The events by a key property (an integer as decimal text); a second one with the same key as "<key>#2".
inline Events ByKey(CycleResult result, const wchar_t* wszKey)
{
    Events events;
    for (CycleEvent& event : result.events) {
        VARTYPE vt = VT_EMPTY;
        const LONG lKey = GetI4(event.pEvent.Get(), wszKey, &vt);
        const std::wstring wsKey = vt == VT_I4 ? std::to_wstring(lKey) : GetText(event.pEvent.Get(), wszKey);
        events[events.count(wsKey) ? wsKey + L"#2" : wsKey] = std::move(event);
    }
    return events;
}

// Exactly the wanted events, each compared as (status, text id, type, NoPut, arguments).
inline void ExpectEvents(const Events& events, const std::vector<Want>& wants, const std::string& sWhere)
{
    EXPECT_EQ(events.size(), wants.size()) << sWhere;
    for (const Want& w : wants) {
        const auto it = events.find(w.wsKey);
        if (it == events.end()) {
            ADD_FAILURE() << sWhere << " " << Narrow(w.wsKey) << ": missing";
            continue;
        }
        const CycleEvent& e = it->second;
        EXPECT_EQ(std::make_tuple(e.lStatus, e.lTextId, e.lType, e.bNoPut, e.arguments),
                  std::make_tuple(w.lStatus, w.lTextId, w.lType, w.bNoPut, w.arguments))
            << sWhere << " " << Narrow(w.wsKey);
    }
}

// A kind test whose schema and machine come from these fixture files.
class KindScenario : public KindTest {
protected:
    explicit KindScenario(std::vector<std::wstring> fixtures = {}) : m_fixtures(std::move(fixtures)) {}
    void SetUp() override
    {
        KindTest::SetUp();
        for (const std::wstring& wsFixture : m_fixtures)
            ASSERT_NO_FATAL_FAILURE(LoadFixture(wsFixture));
    }
    // One agent cycle whose requests succeed.
    template <class Kind>
    Events Cycle(const wchar_t* wszKey)
    {
        CycleResult result = RunAgentCycle<Kind>();
        EXPECT_EQ(result.hrGet, S_OK) << std::hex << result.hrGet;
        EXPECT_EQ(result.hrDelete, S_OK) << std::hex << result.hrDelete;
        return ByKey(std::move(result), wszKey);
    }

    std::vector<std::wstring> m_fixtures;
};
