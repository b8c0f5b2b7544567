#include "GlobalTraceLog.h"

#include "framework/CCQuillTrace.h"
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"

#include <windows.h>

GlobalTraceLog& GlobalTraceLog::Get()
{
    static GlobalTraceLog s_log;
    return s_log;
}

GlobalTraceLog::GlobalTraceLog()
{
    wchar_t wszTemp[MAX_PATH];
    GetTempPathW(MAX_PATH, wszTemp);
    const std::string sPid = std::to_string(GetCurrentProcessId());
    m_wsFile = wszTemp + Widen("moradel_global_" + sPid + ".trc");
    DeleteFileW(m_wsFile.c_str());
    TestRegistryKey key("Software\\Tessaline Systems\\Common\\Tracing\\Tests\\Global" + sPid);
    key.SetDword("Trace", 1);
    key.SetDword("TraceLevel", TRACE_VERBOSE_CC);
    key.SetString("TraceFile", Narrow(m_wsFile));
    GetTrace().Enable_By_RegKey(HKEY_LOCAL_MACHINE, key.Path().c_str(), TRACE_FLAG_NO_KEY);
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
    std::vector<std::vector<std::string>> rows;
    for (const std::wstring& wsLine : ReadTraceFile(m_wsFile, uMark).lines)
        rows.push_back(SplitFields(wsLine));
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
