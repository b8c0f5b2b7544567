#include "TraceFile.h"

#include "TempDir.h"

#include <fstream>
#include <iterator>

TraceFileContent ReadTraceFile(const std::wstring& wsPath)
{
    TraceFileContent content;
    std::ifstream file(wsPath.c_str(), std::ios::binary);
    const std::string sBytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::wstring wsText;
    for (size_t i = 0; i + 1 < sBytes.size(); i += 2)
        wsText += static_cast<wchar_t>(static_cast<unsigned char>(sBytes[i]) |
                                       (static_cast<unsigned char>(sBytes[i + 1]) << 8));
    if (!wsText.empty() && wsText[0] == 0xFEFF) {
        content.bHasBom = true;
        wsText.erase(0, 1);
    }
    content.bEndsWithLineEnd = wsText.size() >= 2 && wsText.compare(wsText.size() - 2, 2, L"\r\n") == 0;
    size_t iStart = 0;
    while (iStart < wsText.size()) {
        const size_t iEnd = wsText.find(L"\r\n", iStart);
        if (iEnd == std::wstring::npos) {
            content.lines.push_back(wsText.substr(iStart));
            break;
        }
        content.lines.push_back(wsText.substr(iStart, iEnd - iStart));
        iStart = iEnd + 2;
    }
    return content;
}

std::vector<std::string> SplitFields(const std::wstring& wsLine)
{
    std::vector<std::string> fields;
    const std::string sLine = Narrow(wsLine);
    size_t iStart = 0;
    for (;;) {
        const size_t iTab = sLine.find('\t', iStart);
        fields.push_back(sLine.substr(iStart, iTab == std::string::npos ? std::string::npos : iTab - iStart));
        if (iTab == std::string::npos)
            break;
        iStart = iTab + 1;
    }
    return fields;
}
