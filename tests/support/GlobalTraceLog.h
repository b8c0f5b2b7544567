// Switches the module's global trace on (all levels) once per test process and reads back its lines.
#pragma once

#include <string>
#include <vector>

class GlobalTraceLog {
public:
    static GlobalTraceLog& Get();

    // Where the trace stands now; pass it to LinesSince to see what a step wrote.
    size_t Mark() const;
    std::vector<std::vector<std::string>> LinesSince(size_t uMark) const;
    // True when a line written since uMark has this message field (and, if given, formatted text).
    bool Contains(size_t uMark, const std::string& sMessage, const char* szFormatted = nullptr) const;

private:
    GlobalTraceLog();
    std::wstring m_wsFile;
};
