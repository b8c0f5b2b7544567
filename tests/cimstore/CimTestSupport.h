// Helpers shared by the repository tests: fixture paths, a loaded repository, result summaries.
#pragma once

#include "cimstore/CimRepository.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace cimtest {

inline std::wstring Fixture(const wchar_t* wszName) { return cimstore::Widen(CIMSTORE_FIXTURES) + L"/" + wszName; }

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kServer[] = L"TESTSRV";

// Compiles data.mof (which includes schema.mof).
inline cimstore::MofResult LoadFixture(cimstore::CimRepository& repository)
{
    return repository.CompileFile(Fixture(L"data.mof"));
}

inline std::vector<std::wstring> Sorted(std::vector<std::wstring> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

// Values of one string property of every result, sorted.
inline std::vector<std::wstring> Column(const std::vector<cimstore::CimInstance>& results, const wchar_t* wszProperty)
{
    std::vector<std::wstring> out;
    for (const cimstore::CimInstance& instance : results) {
        cimstore::CimValue value;
        const bool bNull = FAILED(instance.Get(wszProperty, value)) || value.IsNull();
        out.push_back(bNull ? L"<null>" : cimstore::ScalarText(value.Scalar(), CIM_STRING));
    }
    return Sorted(std::move(out));
}

// A repository holding data.mof.
class LoadedRepository : public testing::Test {
protected:
    void SetUp() override
    {
        const cimstore::MofResult result = LoadFixture(m_repository);
        ASSERT_EQ(result.hr, S_OK) << cimstore::Narrow(result.message);
    }
    cimstore::CimInstance Get(std::wstring_view wsPath, std::wstring_view wsNs = kCimv2) const
    {
        cimstore::CimInstance instance;
        EXPECT_EQ(m_repository.GetInstance(wsNs, wsPath, instance), S_OK) << cimstore::Narrow(wsPath);
        return instance;
    }
    cimstore::CimValue Value(std::wstring_view wsPath, const wchar_t* wszProp, std::wstring_view wsNs = kCimv2) const
    {
        cimstore::CimValue value;
        const cimstore::CimInstance instance = Get(wsPath, wsNs);
        if (instance.IsValid()) {
            EXPECT_EQ(instance.Get(wszProp, value), S_OK) << cimstore::Narrow(wszProp);
        }
        return value;
    }
    cimstore::CimRepository m_repository{kServer};
};

}  // namespace cimtest
