// Loading Moradel.dll: start-up tracing, the gg_ptrc export, joining the host's trace; and
// DllInitialize / DllUninitialize, whose lines land in the host's trace the module joins.
#include "CommonKeyValues.h"
#include "MoradelModule.h"
#include "TraceTestFixture.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

namespace {

constexpr char kModuleTraceKey[] = "Software\\Tessaline Systems\\Common\\Tracing\\Moradel.dll\\1.06";

std::vector<std::vector<std::string>> FieldsOf(const TraceFileContent& content, size_t uFrom = 0)
{
    std::vector<std::vector<std::string>> rows;
    for (size_t i = uFrom; i < content.lines.size(); ++i)
        rows.push_back(SplitFields(content.lines[i]));
    return rows;
}

TEST(ModuleLoad, OwnTraceFollowsTheModulesKey)
{
    TempDir dir;
    const std::wstring wsFile = dir.File(L"module.trc");
    {
        TestRegistryKey key(kModuleTraceKey);
        key.SetDword("Trace", 1);
        key.SetDword("TraceLevel", 3);
        key.SetString("TraceFile", Narrow(wsFile));
        MoradelModule module;
        auto ppTrace = static_cast<CCQuillTrace**>(module.Proc("gg_ptrc"));
        EXPECT_TRUE(ppTrace && *ppTrace && *ppTrace != gg_ptrc) << GetLastError();
    }
    const auto rows = FieldsOf(ReadTraceFile(wsFile));
    ASSERT_EQ(rows.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        ASSERT_EQ(rows[i].size(), 9u) << i;
        const std::string sClass = "CMoradeldllModule", sWhen = i < 2 ? "constructed" : "destructed";
        EXPECT_EQ(std::vector<std::string>(rows[i].begin() + 3, rows[i].end()),
                  (std::vector<std::string>{"Info", "(null)", sClass, (i < 2 ? "" : "~") + sClass,
                                            i % 2 ? "Leave" : "Enter", "An instance of " + sClass + " was " + sWhen}))
            << i;
    }
}

using ModuleJoinTest = TraceTest;

TEST_F(ModuleJoinTest, ModuleJoinsTheHostsGlobalTrace)
{
    EnableDefaults(TRACE_INFO);
    m_pKey->SetDword("TraceGlobalEnable", 1);
    CCQuillTrace& host = Configure();
    ASSERT_EQ(gg_ptrc, &host);
    // The module's own key would send its lines elsewhere; joining the host wins.
    TempDir other;
    TestRegistryKey moduleKey(kModuleTraceKey);
    moduleKey.SetDword("Trace", 1);
    moduleKey.SetDword("TraceLevel", 6);
    moduleKey.SetString("TraceFile", Narrow(other.File(L"own.trc")));
    {
        MoradelModule module;
        ASSERT_NE(module.Handle(), nullptr);
        host.TraceMsg(TRACE_INFO, "Host::Run", "Internal", "between", "");
    }
    EXPECT_FALSE(FileExists(other.File(L"own.trc")));
    const auto rows = FieldsOf(Read());
    ASSERT_EQ(rows.size(), 5u);
    for (size_t i = 0; i < 5; ++i) {
        ASSERT_TRUE(i == 2 ? rows[i].size() > 5 : rows[i].size() == 10) << i;
        EXPECT_EQ(rows[i][4] + " " + rows[i][i == 2 ? 5 : 6],
                  i == 2 ? "com_tests.exe Host" : "Moradel.dll CMoradeldllModule") << i;
    }
}

using InitializeFn = bool (*)(const char*, const char*, const char*);

class ComponentExportsTest : public TraceTest {
protected:
    void SetUp() override
    {
        TraceTest::SetUp();
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        EnableDefaults(TRACE_VERBOSE_CC);
        m_pKey->SetDword("TraceGlobalEnable", 1);
        Configure();
        m_common.Set("DependencyTables", Narrow(m_tables.Path()));
        std::ofstream(m_tables.File(L"Notify_2.5.xml").c_str(), std::ios::binary)
            << "<?xml version=\"1.0\"?>\n<features><feature name=\"Notify\" version=\"2.5\"><context name=\"Agent\">\n"
               "<assemblyIdentity name=\"Moradel.dll\" version=\"1.06.0.0\"><dependencies/></assemblyIdentity>\n"
               "</context></feature></features>\n";
        ASSERT_NO_FATAL_FAILURE(Load());
    }
    void TearDown() override
    {
        m_pModule.reset();
        CoUninitialize();
        TraceTest::TearDown();
    }
    // A fresh load: the module's assembly object, and the mutex handle it keeps, start over.
    void Load()
    {
        m_pModule.reset();
        m_pModule = std::make_unique<MoradelModule>();
        m_pfnInitialize = reinterpret_cast<InitializeFn>(m_pModule->Proc("DllInitialize"));
        m_pfnUninitialize = reinterpret_cast<bool (*)()>(m_pModule->Proc("DllUninitialize"));
        ASSERT_TRUE(m_pfnInitialize && m_pfnUninitialize) << GetLastError();
    }
    // "none" (no such mutex), "held" (another thread cannot take it at once) or "free".
    static std::string Mutex()
    {
        char szName[MAX_PATH];
        snprintf(szName, sizeof(szName), "CCAssembly_PID_%8.8lx_Moradel.dll_1.06.0.0", GetCurrentProcessId());
        HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, szName);
        DWORD dwWait = WAIT_FAILED;
        if (hMutex)
            std::thread([&] {
                if ((dwWait = WaitForSingleObject(hMutex, 0)) == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED)
                    ReleaseMutex(hMutex);
            }).join();
        if (hMutex)
            CloseHandle(hMutex);
        return !hMutex ? "none" : dwWait == WAIT_OBJECT_0 ? "free" : "held";
    }
    // The module's lines with this message from trace line uFrom on (global mode: the message is field 8).
    std::vector<std::vector<std::string>> ModuleLines(const std::string& sMessage, size_t uFrom = 0) const
    {
        std::vector<std::vector<std::string>> rows;
        for (auto& fields : FieldsOf(Read(), uFrom))
            if (fields.size() >= 10 && fields[4] == "Moradel.dll" && fields[8] == sMessage)
                rows.push_back(std::move(fields));
        return rows;
    }

    TempDir m_tables;
    CommonKeyValues m_common;
    std::unique_ptr<MoradelModule> m_pModule;
    InitializeFn m_pfnInitialize = nullptr;
    bool (*m_pfnUninitialize)() = nullptr;
};

// The second call finds the mutex (reported at Error, yet used) and takes it once more.
TEST_F(ComponentExportsTest, InitializeHoldsTheMutexUntilEveryUninitialize)
{
    EXPECT_TRUE(m_pfnInitialize("Notify", "2.5", "Agent"));
    EXPECT_EQ(Mutex(), "held");
    EXPECT_TRUE(ModuleLines("Error creating mutex").empty());
    EXPECT_TRUE(m_pfnInitialize("Notify", "2.5", "Agent"));
    const auto errors = ModuleLines("Error creating mutex");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0][3], "Error");
    EXPECT_EQ(errors[0][9].rfind("GetLastError: ", 0), 0u) << errors[0][9];
    EXPECT_TRUE(m_pfnUninitialize());
    EXPECT_EQ(Mutex(), "held");
    EXPECT_TRUE(m_pfnUninitialize());
    EXPECT_EQ(Mutex(), "free");
}

// The common step comes before the mutex, the feature after it.
TEST_F(ComponentExportsTest, FailedInitializeIsTracedAndHoldsTheMutexOnlyPastTheCommonStep)
{
    // szVersion null: all three names null; szText null: the message's formatted text is not checked;
    // uFeatureFailed: lines "Initialize Feature failed".
    const struct { const char *szCase, *szVersion; bool bNoTablesPath; const char *szMutex, *szMessage, *szText;
                   size_t uFeatureFailed; } rows[] = {
        {"no tables path", "2.5", true, "none", "Error accessing registry for getting deptables path", nullptr, 0},
        {"unknown feature", "2.6", false, "held", "Error loading dependency table", nullptr, 1},
        {"null names", nullptr, false, "held", "Method DllInitialize has been called",
         "szFeatureName: , szFeatureVersion: , szContextName: ", 1},
    };
    for (const auto& row : rows) {
        ASSERT_NO_FATAL_FAILURE(Load());
        if (row.bNoTablesPath)
            m_common.Remove("DependencyTables");
        const size_t uFrom = Read().lines.size();
        const bool bNames = row.szVersion != nullptr;
        EXPECT_FALSE(m_pfnInitialize(bNames ? "Notify" : nullptr, row.szVersion, bNames ? "Agent" : nullptr))
            << row.szCase;
        EXPECT_EQ(Mutex(), row.szMutex) << row.szCase;
        EXPECT_TRUE(m_pfnUninitialize()) << row.szCase;
        const auto lines = ModuleLines(row.szMessage, uFrom);
        ASSERT_EQ(lines.size(), 1u) << row.szCase;
        EXPECT_EQ(lines[0][9], row.szText ? row.szText : lines[0][9]) << row.szCase;
        EXPECT_EQ(ModuleLines("Initialize Feature failed", uFrom).size(), row.uFeatureFailed) << row.szCase;
        m_common.Set("DependencyTables", Narrow(m_tables.Path()));
    }
}

}  // namespace
