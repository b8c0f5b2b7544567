// Two processes append to one trace file: every line arrives whole.
#include "TempDir.h"
#include "TestRegistryKey.h"
#include "TraceFile.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>

namespace {

HANDLE StartProbe(const std::string& sArguments)
{
    char szExe[MAX_PATH];
    GetModuleFileNameA(nullptr, szExe, MAX_PATH);
    std::string sProbe = szExe;
    sProbe = sProbe.substr(0, sProbe.rfind('\\') + 1) + "trace_probe.exe";
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
    const std::string sArgs = "\"" + key.Path() + "\" " + std::to_string(kLines) + " ";
    HANDLE ahProcesses[2] = {StartProbe("write " + sArgs + "first"), StartProbe("write " + sArgs + "second")};
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
    std::map<std::string, std::map<int, int>> seen;
    std::map<std::string, std::string> pidOf;
    const std::regex text(R"(line (\d+) of (first|second))");
    for (const std::wstring& wsLine : content.lines) {
        const std::vector<std::string> fields = SplitFields(wsLine);
        ASSERT_EQ(fields.size(), 9u) << Narrow(wsLine);
        std::smatch match;
        ASSERT_TRUE(std::regex_match(fields[8], match, text)) << fields[8];
        EXPECT_EQ(fields[7], match[2].str());
        ++seen[match[2].str()][std::stoi(match[1].str())];
        // Each writer's lines carry its own process id.
        auto [it, bInserted] = pidOf.emplace(match[2].str(), fields[1]);
        EXPECT_EQ(it->second, fields[1]);
    }
    for (const char* szTag : {"first", "second"}) {
        ASSERT_EQ(seen[szTag].size(), static_cast<size_t>(kLines)) << szTag;
        for (const auto& [iLine, iCount] : seen[szTag])
            EXPECT_EQ(iCount, 1) << szTag << " line " << iLine;
    }
    EXPECT_NE(pidOf["first"], pidOf["second"]);
}

}  // namespace
