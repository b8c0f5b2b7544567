// Classification of a measured value against the limits stored per notification in KM_Filter.
#pragma once

#include "access/WbemGuids.h"

#include <map>
#include <optional>
#include <string>

enum ThresholdStateValue : unsigned long {
    THRESHOLD_NO_LIMITS = 0,
    THRESHOLD_NORMAL = 1,
    THRESHOLD_WARNING = 2,
    THRESHOLD_CRITICAL = 3,
};

// The limits found; an absent one takes no part in the classification.
struct CThresholdLimits {
    std::optional<LONGLONG> llLowWarning;
    std::optional<LONGLONG> llLowCritical;
    std::optional<LONGLONG> llHighWarning;
    std::optional<LONGLONG> llHighCritical;
};

// Later tests overwrite earlier ones (low warning, low critical, high warning, high critical),
// compared as unsigned, so a negative limit counts as a very large one.
unsigned long ClassifyThreshold(ULONGLONG ullCurrent, const CThresholdLimits& limits);

// A limit text as a signed 64-bit decimal integer (leading part only, 0 when there is none).
LONGLONG ParseThresholdLimit(const wchar_t* wszText);

// Reads the KM_Filter instance of ulNotfyId through pNamespace, with pContext (optional), and
// classifies ullCurrent; the out pointers (optional) receive the limits that were present.
unsigned long GetThresholdState(IWbemServices* pNamespace, IWbemContext* pContext,
                                unsigned long ulNotfyId, ULONGLONG ullCurrent, LONGLONG* pllLowWarning,
                                LONGLONG* pllLowCritical, LONGLONG* pllHighWarning, LONGLONG* pllHighCritical);
