#include "GlobalTraceLog.h"

#include "framework/CCQuillTrace.h"
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"

#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

GlobalTraceLog& GlobalTraceLog::Get()
{
    static GlobalTraceLog s_log;
    return s_log;
}

GlobalTraceLog::GlobalTraceLog()
{
    wchar_t wszTemp[MAX_PATH];
    GetTempPathW(MAX_PATH, wszTemp);
    wchar_t wszName[64];
    swprintf(wszName, 64, L"moradel_global_%lu.trc", GetCurrentProcessId());
    m_wsFile = std::wstring(wszTemp) + wszName;
    DeleteFileW(m_wsFile.c_str());
    const std::string sKey = "Software\\Tessaline Systems\\Common\\Tracing\\Tests\\Global" +
                             std::to_string(GetCurrentProcessId());
    TestRegistryKey key(sKey);
    key.SetDword("Trace", 1);
    key.SetDword("TraceLevel", TRACE_VERBOSE_CC);
    key.SetString("TraceFile", Narrow(m_wsFile));
    GetTrace().Enable_By_RegKey(HKEY_LOCAL_MACHINE, sKey.c_str(), TRACE_FLAG_NO_KEY);
}

// A mark is the file's size in bytes, so a check reads only what was written after it: reading
// the whole file each time made long suites quadratic in their trace.
size_t GlobalTraceLog::Mark() const
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!GetFileAttributesExW(m_wsFile.c_str(), GetFileExInfoStandard, &data))
        return 0;
    return static_cast<size_t>(data.nFileSizeLow) | (static_cast<size_t>(data.nFileSizeHigh) << 32);
}

std::vector<std::vector<std::string>> GlobalTraceLog::LinesSince(size_t uMark) const
{
    std::ifstream file(m_wsFile.c_str(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(uMark));
    const std::string sBytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::wstring wsText(sBytes.size() / 2, L'\0');
    for (size_t i = 0; i < wsText.size(); ++i)
        wsText[i] = static_cast<wchar_t>(static_cast<unsigned char>(sBytes[2 * i]) |
                                         (static_cast<unsigned char>(sBytes[2 * i + 1]) << 8));
    if (!wsText.empty() && wsText[0] == 0xFEFF)
        wsText.erase(0, 1);
    std::vector<std::vector<std::string>> rows;
    size_t uStart = 0;
    while (uStart < wsText.size()) {
        size_t uEnd = wsText.find(L"\r\n", uStart);
        if (uEnd == std::wstring::npos)
            uEnd = wsText.size();
        rows.push_back(SplitFields(wsText.substr(uStart, uEnd - uStart)));
        uStart = uEnd + 2;
    }
    return rows;
}

bool GlobalTraceLog::Contains(size_t uMark, const std::string& sMessage, const char* szFormatted) const
{
    for (const std::vector<std::string>& fields : LinesSince(uMark)) {
        if (fields.size() >= 9 && fields[7] == sMessage && (!szFormatted || fields[8] == szFormatted))
            return true;
    }
    return false;
}
