#include "access/CCStringConversion.h"

#include "framework/CCQuillTrace.h"

#include <windows.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace {
constexpr char kClass[] = "CCStringConversion::CCStringConversion";
}

CCStringConversion::CCStringConversion(const wchar_t* wszText)
{
    m_bWide = true;
    if (!wszText)
        return;
    const size_t cch = wcslen(wszText) + 1;
    auto* pwsz = static_cast<wchar_t*>(malloc(cch * sizeof(wchar_t)));
    if (!pwsz) {
        GetTrace().TraceMsg(TRACE_ERROR, kClass, "Internal", "Memory allocation error", "nSize=%d",
                            static_cast<int>(cch));
        return;
    }
    if (wcscpy_s(pwsz, cch, wszText) != 0) {
        free(pwsz);
        return;
    }
    m_pBuffer = pwsz;
}

CCStringConversion::CCStringConversion(const char* szText)
{
    m_bWide = false;
    if (!szText)
        return;
    const size_t cch = strlen(szText) + 1;
    auto* psz = static_cast<char*>(malloc(cch));
    if (!psz) {
        GetTrace().TraceMsg(TRACE_ERROR, kClass, "Internal", "Memory allocation error", "nSize=%d",
                            static_cast<int>(cch));
        return;
    }
    if (strcpy_s(psz, cch, szText) != 0) {
        free(psz);
        return;
    }
    m_pBuffer = psz;
}

CCStringConversion::~CCStringConversion()
{
    free(m_pBuffer);
}

const char* CCStringConversion::Convert2A()
{
    if (!m_pBuffer || !m_bWide)
        return static_cast<const char*>(m_pBuffer);
    const auto* pwszWide = static_cast<const wchar_t*>(m_pBuffer);
    // Sized by the wide character count: a text that needs more bytes is truncated and fails.
    const size_t cbNarrow = wcslen(pwszWide) + 1;
    auto* pszNarrow = static_cast<char*>(malloc(cbNarrow));
    if (!pszNarrow) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCStringConversion::Convert2A", "Internal", "Memory allocation failed!", "");
        return nullptr;
    }
    size_t cchConverted = 0;
    errno_t err = wcstombs_s(&cchConverted, pszNarrow, cbNarrow, pwszWide, _TRUNCATE);
    if (err == 0) {
        // Not every runtime reports a truncating conversion; measure the full narrow form.
        size_t cbNeeded = 0;
        if (wcstombs_s(&cbNeeded, nullptr, 0, pwszWide, 0) == 0 && cbNeeded > cbNarrow)
            err = STRUNCATE;
    }
    if (err == EILSEQ) {
        GetTrace().TraceMsg(TRACE_VERBOSE_CC, "CCStringConversion::Convert2A", "Internal",
                            "Could not convert unicode to ansi string because of unrecognized character, using "
                            "different api",
                            "");
        if (WideCharToMultiByte(CP_ACP, 0, pwszWide, -1, pszNarrow, static_cast<int>(cbNarrow), nullptr, nullptr) ==
            0) {
            GetTrace().TraceMsg(TRACE_ERROR, "CCStringConversion::Convert2A", "Internal",
                                "Error converting WCHARs to CHARs, even with WideCharToMultiByte API",
                                "GetLastError: %d", static_cast<int>(GetLastError()));
            free(pszNarrow);
            return nullptr;
        }
    } else if (err != 0) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCStringConversion::Convert2A", "Internal", "Error converting WCHARs to CHARs ",
                            "");
        free(pszNarrow);
        return nullptr;
    }
    free(m_pBuffer);
    m_pBuffer = pszNarrow;
    m_bWide = false;
    return pszNarrow;
}

const wchar_t* CCStringConversion::Convert2W()
{
    if (!m_pBuffer || m_bWide)
        return static_cast<const wchar_t*>(m_pBuffer);
    const auto* pszNarrow = static_cast<const char*>(m_pBuffer);
    const size_t cchWide = strlen(pszNarrow) + 1;
    auto* pwszWide = static_cast<wchar_t*>(malloc(cchWide * sizeof(wchar_t)));
    if (!pwszWide) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCStringConversion::Convert2W", "Internal", "Memory allocation failed", "");
        return nullptr;
    }
    size_t cchConverted = 0;
    if (mbstowcs_s(&cchConverted, pwszWide, cchWide, pszNarrow, _TRUNCATE) != 0) {
        GetTrace().TraceMsg(TRACE_ERROR, "CCStringConversion::Convert2W", "Internal",
                            "Failure converting CHARs to WCHARs", "");
        free(pwszWide);
        return nullptr;
    }
    free(m_pBuffer);
    m_pBuffer = pwszWide;
    m_bWide = true;
    return pwszWide;
}
