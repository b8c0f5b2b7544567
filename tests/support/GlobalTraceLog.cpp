#include "GlobalTraceLog.h"

#include "framework/CCQuillTrace.h"
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"

#include <windows.h>

#include <cstdlib>

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

size_t GlobalTraceLog::Mark() const
{
    return ReadTraceFile(m_wsFile).lines.size();
}

std::vector<std::vector<std::string>> GlobalTraceLog::LinesSince(size_t uMark) const
{
    const TraceFileContent content = ReadTraceFile(m_wsFile);
    std::vector<std::vector<std::string>> rows;
    for (size_t i = uMark; i < content.lines.size(); ++i)
        rows.push_back(SplitFields(content.lines[i]));
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
