#include "TraceFile.h"

#include "TempDir.h"

#include <algorithm>
#include <fstream>
#include <iterator>

TraceFileContent ReadTraceFile(const std::wstring& wsPath, size_t uOffset)
{
    std::ifstream file(wsPath.c_str(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(uOffset));
    const std::string sBytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::wstring wsText(sBytes.size() / 2, L'\0');
    for (size_t i = 0; i < wsText.size(); ++i)
        wsText[i] = static_cast<wchar_t>(static_cast<unsigned char>(sBytes[2 * i]) |
                                         (static_cast<unsigned char>(sBytes[2 * i + 1]) << 8));
    TraceFileContent content;
    content.bHasBom = !wsText.empty() && wsText[0] == 0xFEFF;
    if (content.bHasBom)
        wsText.erase(0, 1);
    content.bEndsWithLineEnd = wsText.ends_with(L"\r\n");
    for (size_t uStart = 0; uStart < wsText.size();) {
        const size_t uEnd = std::min(wsText.find(L"\r\n", uStart), wsText.size());
        content.lines.push_back(wsText.substr(uStart, uEnd - uStart));
        uStart = uEnd + 2;
    }
    return content;
}

std::vector<std::string> SplitFields(const std::wstring& wsLine)
{
    std::vector<std::string> fields(1);
    for (char c : Narrow(wsLine)) {
        if (c == '\t')
            fields.emplace_back();
        else
            fields.back() += c;
    }
    return fields;
}
