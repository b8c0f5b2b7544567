// Two processes append to one trace file: every line arrives whole.
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <set>
#include <string>

namespace {

HANDLE StartProbe(const std::string& sArguments)
{
    char szExe[MAX_PATH];
    GetModuleFileNameA(nullptr, szExe, MAX_PATH);
    const std::string sProbe = std::string(szExe, strrchr(szExe, '\\') + 1) + "trace_probe.exe";
    std::string sCommand = "\"" + sProbe + "\" " + sArguments;
    STARTUPINFOA si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessA(sProbe.c_str(), sCommand.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi))
        return nullptr;
    CloseHandle(pi.hThread);
    return pi.hProcess;
}

TEST(TraceProcesses, TwoProcessesWriteOneFileWithoutTornLines)
{
    TempDir dir;
    const std::wstring wsFile = dir.File(L"shared.trc");
    TestRegistryKey key("Software\\Tessaline Systems\\Common\\Tracing\\Tests\\TwoProcesses" +
                        std::to_string(GetCurrentProcessId()));
    key.SetDword("Trace", 1);
    key.SetDword("TraceLevel", 3);
    key.SetString("TraceFile", Narrow(wsFile));
    constexpr int kLines = 500;
    const std::string sArgs = "write \"" + key.Path() + "\" " + std::to_string(kLines) + " ";
    HANDLE ahProcesses[2] = {StartProbe(sArgs + "first"), StartProbe(sArgs + "second")};
    ASSERT_NE(ahProcesses[0], nullptr);
    ASSERT_NE(ahProcesses[1], nullptr);
    EXPECT_EQ(WaitForMultipleObjects(2, ahProcesses, TRUE, 60000), WAIT_OBJECT_0);
    for (HANDLE h : ahProcesses) {
        DWORD dwExit = 1;
        GetExitCodeProcess(h, &dwExit);
        EXPECT_EQ(dwExit, 0u);
        CloseHandle(h);
    }
    const TraceFileContent content = ReadTraceFile(wsFile);
    ASSERT_EQ(content.lines.size(), 2u * kLines);
    std::set<std::string> seen;
    const std::regex text(R"(line \d+ of (first|second))");
    for (const std::wstring& wsLine : content.lines) {
        const std::vector<std::string> fields = SplitFields(wsLine);
        ASSERT_EQ(fields.size(), 9u) << Narrow(wsLine);
        std::smatch match;
        ASSERT_TRUE(std::regex_match(fields[8], match, text)) << fields[8];
        EXPECT_EQ(fields[7], match[1].str());
        seen.insert(fields[8]);
    }
    EXPECT_EQ(seen.size(), 2u * kLines);  // no line lost or written twice
}

}  // namespace
