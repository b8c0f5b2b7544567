// Unsigned decimal numbers that the management service hands over as text (its 64-bit integers).
#pragma once

#include <windows.h>

#include <string>

// True when wsText is one or more decimal digits whose value fits 64 bits. Signs, blanks and
// other characters are refused rather than read as a leading part: a value that is not what the
// service delivers for an unsigned integer is bad data, not a small number.
inline bool ParseDecimalU64(const std::wstring& wsText, ULONGLONG* pullValue)
{
    if (wsText.empty())
        return false;
    ULONGLONG ullValue = 0;
    for (const wchar_t wc : wsText) {
        if (wc < L'0' || wc > L'9')
            return false;
        const unsigned uDigit = static_cast<unsigned>(wc - L'0');
        if (ullValue > (~0ULL - uDigit) / 10)
            return false;
        ullValue = ullValue * 10 + uDigit;
    }
    *pullValue = ullValue;
    return true;
}
