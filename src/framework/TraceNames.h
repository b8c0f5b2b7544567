// Pure helpers of the trace facility: names, tokens and the date key.
#pragma once

#include <windows.h>

#include <string>

namespace TraceNames {

// Splits a trace file name for its history name: ".trace.txt" counts as one
// extension; otherwise the extension starts at the last '.' after the first
// character. Without such a dot stem and extension are both empty.
void SplitFileName(const std::wstring& wsFileName, std::wstring& wsStem, std::wstring& wsExtension);

// stem + "_" + three digits + extension; from 1000 on: stem + "_aaa.trace.txt".
std::wstring HistoryName(const std::wstring& wsStem, const std::wstring& wsExtension, unsigned uNumber);

// Replaces %ModuleName% and %ModuleVersion% (case-insensitive); "%%" gives "%",
// an unknown token gives nothing.
std::string ExpandKeyTokens(const std::string& sTemplate, const std::string& sModuleName,
                            const std::string& sModuleVersion);

// Sum of the eight digits of the date written as day, month, year ("%d%m%Y").
unsigned long DateKey(const SYSTEMTIME& stDate);

// Replaces the first occurrence of wsToken by the number as "%04u".
void ReplaceFirstNumber(std::wstring& wsText, const wchar_t* wszToken, unsigned long ulNumber);

// Name of the semaphore shared by every writer of one trace file in one process.
std::string LockName(const char* szPrefix, unsigned long ulProcessId, const std::wstring& wsFileName);

}  // namespace TraceNames
