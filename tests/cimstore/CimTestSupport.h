// Helpers shared by the repository tests: fixture paths and result summaries.
#pragma once

#include "cimstore/CimRepository.h"

#include <algorithm>
#include <string>
#include <vector>

namespace cimtest {

inline std::wstring Fixture(const wchar_t* wszName)
{
    return cimstore::Widen(CIMSTORE_FIXTURES) + L"/" + wszName;
}

constexpr wchar_t kCimv2[] = L"root\\cimv2";
constexpr wchar_t kServer[] = L"TESTSRV";

// Compiles data.mof (which includes schema.mof) and expects success.
inline cimstore::MofResult LoadFixture(cimstore::CimRepository& repository)
{
    return repository.CompileFile(Fixture(L"data.mof"));
}

// Values of one string property of every result, sorted.
inline std::vector<std::wstring> Column(const std::vector<cimstore::CimInstance>& results, const wchar_t* wszProperty)
{
    std::vector<std::wstring> out;
    for (const cimstore::CimInstance& instance : results) {
        cimstore::CimValue value;
        if (FAILED(instance.Get(wszProperty, value)) || value.IsNull())
            out.push_back(L"<null>");
        else
            out.push_back(cimstore::ScalarText(value.Scalar(), CIM_STRING));
    }
    std::sort(out.begin(), out.end());
    return out;
}

inline std::vector<std::wstring> Sorted(std::vector<std::wstring> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

}  // namespace cimtest
