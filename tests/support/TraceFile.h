// Reads a UTF-16 LE trace file back as lines and tab-separated fields.
#pragma once

#include <string>
#include <vector>

struct TraceFileContent {
    bool bHasBom = false;
    bool bEndsWithLineEnd = false;
    std::vector<std::wstring> lines;  // split at CR LF, without the line ends
};

TraceFileContent ReadTraceFile(const std::wstring& wsPath);
std::vector<std::string> SplitFields(const std::wstring& wsLine);
