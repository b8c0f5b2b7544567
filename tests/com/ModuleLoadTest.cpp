// Loading Moradel.dll: start-up tracing, the gg_ptrc export, joining the host's trace.
#include "TraceTestFixture.h"

#include <windows.h>

namespace {

constexpr char kModuleTraceKey[] = "Software\\Tessaline Systems\\Common\\Tracing\\Moradel.dll\\1.06";

// Owns one load of the module.
class LoadedModule {
public:
    LoadedModule() : m_h(LoadLibraryW(L"Moradel.dll")) {}
    ~LoadedModule() { Free(); }
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;
    HMODULE Get() const { return m_h; }
    void Free()
    {
        if (m_h)
            FreeLibrary(m_h);
        m_h = nullptr;
    }

private:
    HMODULE m_h;
};

std::vector<std::vector<std::string>> FieldsOf(const TraceFileContent& content)
{
    std::vector<std::vector<std::string>> rows;
    for (const std::wstring& wsLine : content.lines)
        rows.push_back(SplitFields(wsLine));
    return rows;
}

TEST(ModuleLoad, ExportsTheTracePointer)
{
    LoadedModule module;
    ASSERT_NE(module.Get(), nullptr) << GetLastError();
    auto ppTrace = reinterpret_cast<CCQuillTrace**>(reinterpret_cast<void*>(GetProcAddress(module.Get(), "gg_ptrc")));
    ASSERT_NE(ppTrace, nullptr);
    EXPECT_NE(*ppTrace, nullptr);
    EXPECT_NE(*ppTrace, gg_ptrc);
}

TEST(ModuleLoad, ConstructionAndDestructionAreTraced)
{
    TempDir dir;
    const std::wstring wsFile = dir.File(L"module.trc");
    {
        TestRegistryKey key(kModuleTraceKey);
        key.SetDword("Trace", 1);
        key.SetDword("TraceLevel", 3);
        key.SetString("TraceFile", Narrow(wsFile));
        LoadedModule module;
        ASSERT_NE(module.Get(), nullptr);
    }
    const auto rows = FieldsOf(ReadTraceFile(wsFile));
    ASSERT_EQ(rows.size(), 4u);
    const char* aszExpected[4][4] = {
        {"CMoradeldllModule", "Enter", "An instance of CMoradeldllModule was constructed", ""},
        {"CMoradeldllModule", "Leave", "An instance of CMoradeldllModule was constructed", ""},
        {"~CMoradeldllModule", "Enter", "An instance of CMoradeldllModule was destructed", ""},
        {"~CMoradeldllModule", "Leave", "An instance of CMoradeldllModule was destructed", ""},
    };
    for (size_t i = 0; i < 4; ++i) {
        ASSERT_EQ(rows[i].size(), 9u) << i;
        EXPECT_EQ(rows[i][3], "Info");
        EXPECT_EQ(rows[i][4], "(null)");
        EXPECT_EQ(rows[i][5], "CMoradeldllModule");
        EXPECT_EQ(rows[i][6], aszExpected[i][0]) << i;
        EXPECT_EQ(rows[i][7], aszExpected[i][1]) << i;
        EXPECT_EQ(rows[i][8], aszExpected[i][2]) << i;
    }
}

TEST(ModuleLoad, WithoutTraceKeyNothingIsWritten)
{
    RegDeleteTreeA(HKEY_LOCAL_MACHINE, kModuleTraceKey);
    TempDir dir;
    wchar_t wszSaved[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, wszSaved);
    SetCurrentDirectoryW(dir.Path().c_str());
    {
        LoadedModule module;
        ASSERT_NE(module.Get(), nullptr);
    }
    SetCurrentDirectoryW(wszSaved);
    EXPECT_FALSE(FileExists(dir.File(L"Trace.trc")));
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
        LoadedModule module;
        ASSERT_NE(module.Get(), nullptr);
        host.TraceMsg(TRACE_INFO, "Host::Run", "Internal", "between", "");
    }
    EXPECT_FALSE(FileExists(other.File(L"own.trc")));
    const auto rows = FieldsOf(Read());
    ASSERT_EQ(rows.size(), 5u);
    for (size_t i : {0u, 1u, 3u, 4u}) {
        ASSERT_EQ(rows[i].size(), 10u) << i;
        EXPECT_EQ(rows[i][4], "Moradel.dll");
        EXPECT_EQ(rows[i][6], "CMoradeldllModule");
    }
    EXPECT_EQ(rows[2][4], "com_tests.exe");
    EXPECT_EQ(rows[2][5], "Host");
}

}  // namespace
