#include "core/ThresholdState.h"

#include "access/CCWMIAccess.h"
#include "access/ComHolders.h"
#include "framework/CCQuillTrace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace {

constexpr char kName[] = "CNotfyBase::GetThresholdState";
constexpr char kQueryTemplate[] = "select * from KM_Filter where Id = %d";

// A limit takes part only when the store holds it as a string.
std::optional<LONGLONG> ReadLimit(CCWMIAccess& access, const char* szProperty)
{
    CCVariant value;
    if (FAILED(access.GetProperty(szProperty, value.GetAddress(), false, 0)) || value.Type() != VT_BSTR)
        return std::nullopt;
    return ParseThresholdLimit(V_BSTR(&value.Get()));
}

unsigned long Leave(unsigned long ulState)
{
    GetTrace().TraceMsg(TRACE_INFO, kName, "Leave", "Method GetThresholdState has been left.", "State: %d",
                        static_cast<int>(ulState));
    return ulState;
}

void Store(LONGLONG* pllTarget, const std::optional<LONGLONG>& llLimit)
{
    if (pllTarget && llLimit)
        *pllTarget = *llLimit;
}

}  // namespace

unsigned long ClassifyThreshold(ULONGLONG ullCurrent, const CThresholdLimits& limits)
{
    unsigned long ulState = THRESHOLD_NORMAL;
    if (limits.llLowWarning && ullCurrent <= static_cast<ULONGLONG>(*limits.llLowWarning))
        ulState = THRESHOLD_WARNING;
    if (limits.llLowCritical && ullCurrent <= static_cast<ULONGLONG>(*limits.llLowCritical))
        ulState = THRESHOLD_CRITICAL;
    if (limits.llHighWarning && ullCurrent >= static_cast<ULONGLONG>(*limits.llHighWarning))
        ulState = THRESHOLD_WARNING;
    if (limits.llHighCritical && ullCurrent >= static_cast<ULONGLONG>(*limits.llHighCritical))
        ulState = THRESHOLD_CRITICAL;
    return ulState;
}

LONGLONG ParseThresholdLimit(const wchar_t* wszText)
{
    return wszText ? _wcstoi64(wszText, nullptr, 10) : 0;
}

unsigned long GetThresholdState(IWbemServices* pNamespace, IWbemContext* pContext,
                                unsigned long ulNotfyId, ULONGLONG ullCurrent, LONGLONG* pllLowWarning,
                                LONGLONG* pllLowCritical, LONGLONG* pllHighWarning, LONGLONG* pllHighCritical)
{
    CCQuillTrace& trace = GetTrace();
    trace.TraceMsg(TRACE_INFO, kName, "Enter", "Method GetThresholdState has been entered.", "current: %llu",
                   static_cast<unsigned long long>(ullCurrent));
    try {
        CCWMIAccess access;
        access = pNamespace;
        access.ShareContext(pContext);

        std::vector<char> query;
        try {
            query.resize(sizeof(kQueryTemplate) + 10);
        } catch (const std::bad_alloc&) {
            trace.TraceMsg(TRACE_ERROR, kName, "Internal", "Memory allocation failed.", "");
            return Leave(THRESHOLD_NO_LIMITS);
        }
        snprintf(query.data(), query.size(), kQueryTemplate, static_cast<int>(ulNotfyId));
        const HRESULT hr = access.ExecuteQuery(query.data(), 0);
        if (FAILED(hr)) {
            trace.TraceMsg(TRACE_WARNING, kName, "Internal", "Could not get thresholds.", "hr 0x%X",
                           static_cast<unsigned>(hr));
            return Leave(THRESHOLD_NO_LIMITS);
        }

        CThresholdLimits limits;
        limits.llLowWarning = ReadLimit(access, "LowWarning");
        limits.llLowCritical = ReadLimit(access, "LowCritical");
        limits.llHighWarning = ReadLimit(access, "HighWarning");
        limits.llHighCritical = ReadLimit(access, "HighCritical");
        Store(pllLowWarning, limits.llLowWarning);
        Store(pllLowCritical, limits.llLowCritical);
        Store(pllHighWarning, limits.llHighWarning);
        Store(pllHighCritical, limits.llHighCritical);
        return Leave(ClassifyThreshold(ullCurrent, limits));
    } catch (const std::bad_alloc&) {
        // The classification never fails as such: no memory means no limits.
        trace.TraceMsg(TRACE_ERROR, kName, "Internal", "Memory allocation failed.", "");
        return Leave(THRESHOLD_NO_LIMITS);
    }
}
