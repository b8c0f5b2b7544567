// Reads a UTF-16 LE trace file back as lines and tab-separated fields.
#pragma once

#include <string>
#include <vector>

struct TraceFileContent {
    bool bHasBom = false;
    bool bEndsWithLineEnd = false;
    std::vector<std::wstring> lines;  // split at CR LF, without the line ends
};

// Reads from byte uOffset on; a byte-order mark is looked for only where reading starts.
TraceFileContent ReadTraceFile(const std::wstring& wsPath, size_t uOffset = 0);
std::vector<std::string> SplitFields(const std::wstring& wsLine);
