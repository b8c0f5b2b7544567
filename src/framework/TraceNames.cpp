#include "framework/TraceNames.h"

#include <cstdio>
#include <cwchar>

namespace TraceNames {

namespace {

constexpr wchar_t kTraceTxt[] = L".trace.txt";
constexpr size_t kTraceTxtLength = sizeof(kTraceTxt) / sizeof(kTraceTxt[0]) - 1;
constexpr size_t kMaxLockName = 259;

bool EndsWithNoCase(const std::wstring& wsText, const wchar_t* wszSuffix, size_t cchSuffix)
{
    return wsText.size() >= cchSuffix && _wcsicmp(wsText.c_str() + wsText.size() - cchSuffix, wszSuffix) == 0;
}

}  // namespace

void SplitFileName(const std::wstring& wsFileName, std::wstring& wsStem, std::wstring& wsExtension)
{
    wsStem.clear();
    wsExtension.clear();
    size_t cchStem = 0;
    if (EndsWithNoCase(wsFileName, kTraceTxt, kTraceTxtLength)) {
        cchStem = wsFileName.size() - kTraceTxtLength;
    } else {
        size_t i = wsFileName.size();
        while (i > 1 && wsFileName[i - 1] != L'.')
            --i;
        if (i <= 1)
            return;
        cchStem = i - 1;
    }
    wsStem = wsFileName.substr(0, cchStem);
    wsExtension = wsFileName.substr(cchStem);
}

std::wstring HistoryName(const std::wstring& wsStem, const std::wstring& wsExtension, unsigned uNumber)
{
    if (uNumber >= 1000)
        return wsStem + L"_aaa" + kTraceTxt;
    wchar_t wszNumber[8];
    swprintf(wszNumber, sizeof(wszNumber) / sizeof(wszNumber[0]), L"_%3.3u", uNumber);
    return wsStem + wszNumber + wsExtension;
}

std::string ExpandKeyTokens(const std::string& sTemplate, const std::string& sModuleName,
                            const std::string& sModuleVersion)
{
    std::string sResult;
    size_t i = 0;
    while (i < sTemplate.size()) {
        if (sTemplate[i] != '%') {
            sResult += sTemplate[i++];
            continue;
        }
        const size_t iClose = sTemplate.find('%', i + 1);
        if (iClose == std::string::npos) {
            sResult.append(sTemplate, i, std::string::npos);
            break;
        }
        const std::string sToken = sTemplate.substr(i + 1, iClose - i - 1);
        if (sToken.empty())
            sResult += '%';
        else if (_stricmp(sToken.c_str(), "ModuleName") == 0)
            sResult += sModuleName;
        else if (_stricmp(sToken.c_str(), "ModuleVersion") == 0)
            sResult += sModuleVersion;
        i = iClose + 1;
    }
    return sResult;
}

unsigned long DateKey(const SYSTEMTIME& stDate)
{
    char szDate[32];
    snprintf(szDate, sizeof(szDate), "%02u%02u%04u", static_cast<unsigned>(stDate.wDay),
             static_cast<unsigned>(stDate.wMonth), static_cast<unsigned>(stDate.wYear));
    unsigned long ulSum = 0;
    for (const char* p = szDate; *p; ++p)
        ulSum += static_cast<unsigned long>(*p - '0');
    return ulSum;
}

void ReplaceFirstNumber(std::wstring& wsText, const wchar_t* wszToken, unsigned long ulNumber)
{
    const size_t iPos = wsText.find(wszToken);
    if (iPos == std::wstring::npos)
        return;
    wchar_t wszNumber[16];
    swprintf(wszNumber, sizeof(wszNumber) / sizeof(wszNumber[0]), L"%04lu", ulNumber);
    wsText.replace(iPos, wcslen(wszToken), wszNumber);
}

std::string LockName(const char* szPrefix, unsigned long ulProcessId, const std::wstring& wsFileName)
{
    char szHead[64];
    snprintf(szHead, sizeof(szHead), "%s%8.8lx_", szPrefix, ulProcessId);
    std::wstring wsKept;
    for (wchar_t wc : wsFileName) {
        if (!wcschr(L"<>:\"/\\|", wc))
            wsKept += wc;
    }
    std::string sName = szHead;
    if (!wsKept.empty()) {
        const int cb = WideCharToMultiByte(CP_ACP, 0, wsKept.c_str(), static_cast<int>(wsKept.size()), nullptr,
                                           0, nullptr, nullptr);
        if (cb > 0) {
            std::string sNarrow(static_cast<size_t>(cb), '\0');
            WideCharToMultiByte(CP_ACP, 0, wsKept.c_str(), static_cast<int>(wsKept.size()), sNarrow.data(), cb,
                                nullptr, nullptr);
            sName += sNarrow;
        }
    }
    if (sName.size() > kMaxLockName)
        sName.resize(kMaxLockName);
    return sName;
}

}  // namespace TraceNames
