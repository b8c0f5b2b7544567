// DllInitialize / DllUninitialize through the real Moradel.dll. The module joins this
// program's global trace object, so its lines land in the fixture's trace file.
#include "CommonKeyValues.h"
#include "TraceTestFixture.h"

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char kModuleVersion[] = "1.06.0.0";  // Moradel.rc

using InitializeFn = bool (*)(const char*, const char*, const char*);
using UninitializeFn = bool (*)();

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
            << "<?xml version=\"1.0\"?>\n"
               "<features><feature name=\"Notify\" version=\"2.5\"><context name=\"Agent\">\n"
               "  <assemblyIdentity name=\"Moradel.dll\" version=\"1.06.0.0\"><dependencies>\n"
               "    <assemblyIdentity name=\"CimStore\" version=\"1.0\" progID=\"CimStore.Locator.1\"\n"
               "                      versionIndependentProgID=\"CimStore.Locator\"/>\n"
               "    <assemblyIdentity name=\"Quill.dll\" version=\"7.2\"/>\n"
               "  </dependencies></assemblyIdentity>\n"
               "</context></feature></features>\n";
        m_hModule = LoadLibraryW(L"Moradel.dll");
        ASSERT_NE(m_hModule, nullptr) << GetLastError();
        m_pfnInitialize = reinterpret_cast<InitializeFn>(
            reinterpret_cast<void*>(GetProcAddress(m_hModule, "DllInitialize")));
        m_pfnUninitialize = reinterpret_cast<UninitializeFn>(
            reinterpret_cast<void*>(GetProcAddress(m_hModule, "DllUninitialize")));
        ASSERT_NE(m_pfnInitialize, nullptr);
        ASSERT_NE(m_pfnUninitialize, nullptr);
    }
    void TearDown() override
    {
        if (m_hModule)
            FreeLibrary(m_hModule);
        CoUninitialize();
        TraceTest::TearDown();
    }

    static std::string MutexName()
    {
        char szName[MAX_PATH];
        snprintf(szName, sizeof(szName), "CCAssembly_PID_%8.8lx_Moradel.dll_%s", GetCurrentProcessId(),
                 kModuleVersion);
        return szName;
    }
    // The module's lines with this message (global mode: the message is field 8).
    std::vector<std::vector<std::string>> ModuleLines(const std::string& sMessage) const
    {
        std::vector<std::vector<std::string>> rows;
        for (const std::wstring& wsLine : Read().lines) {
            std::vector<std::string> fields = SplitFields(wsLine);
            if (fields.size() >= 10 && fields[4] == "Moradel.dll" && fields[8] == sMessage)
                rows.push_back(std::move(fields));
        }
        return rows;
    }
    // What another thread sees: true when it could take the mutex at once.
    static bool OtherThreadGets(HANDLE hMutex)
    {
        DWORD dwWait = WAIT_FAILED;
        std::thread other([&] {
            dwWait = WaitForSingleObject(hMutex, 0);
            if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED)
                ReleaseMutex(hMutex);
        });
        other.join();
        return dwWait == WAIT_OBJECT_0;
    }

    TempDir m_tables;
    CommonKeyValues m_common;
    HMODULE m_hModule = nullptr;
    InitializeFn m_pfnInitialize = nullptr;
    UninitializeFn m_pfnUninitialize = nullptr;
};

TEST_F(ComponentExportsTest, InitializeTakesTheMutexAndReadsTheTable)
{
    EXPECT_TRUE(m_pfnInitialize("Notify", "2.5", "Agent"));
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, MutexName().c_str());
    ASSERT_NE(hMutex, nullptr) << GetLastError();
    EXPECT_FALSE(OtherThreadGets(hMutex));

    const auto com = ModuleLines("Com entry found");
    ASSERT_EQ(com.size(), 1u);
    EXPECT_EQ(com[0][9], "caller Moradel.dll V1.06.0.0: name CimStore, version 1.0, progId CimStore.Locator.1, "
                         "viProgId CimStore.Locator");
    const auto library = ModuleLines("Win32 dll entry found");
    ASSERT_EQ(library.size(), 1u);
    EXPECT_EQ(library[0][9], "caller Moradel.dll V1.06.0.0: name Quill.dll, version 7.2");
    const auto leave = ModuleLines("Method DllInitialize has been left.");
    ASSERT_EQ(leave.size(), 1u);
    EXPECT_EQ(leave[0][9], "bReturn: 1");
    EXPECT_TRUE(ModuleLines("Error creating mutex").empty());

    EXPECT_TRUE(m_pfnUninitialize());
    EXPECT_TRUE(OtherThreadGets(hMutex));
    CloseHandle(hMutex);
}

TEST_F(ComponentExportsTest, SecondInitializeReportsTheExistingMutexAndWorks)
{
    ASSERT_TRUE(m_pfnInitialize("Notify", "2.5", "Agent"));
    EXPECT_TRUE(m_pfnInitialize("Notify", "2.5", "Agent"));
    const auto errors = ModuleLines("Error creating mutex");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0][3], "Error");
    EXPECT_EQ(errors[0][9].rfind("GetLastError: ", 0), 0u) << errors[0][9];
    EXPECT_EQ(ModuleLines("Method DllInitialize has been left.").back()[9], "bReturn: 1");

    // Taken twice by this thread, so it takes two releases before another thread gets it.
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, MutexName().c_str());
    ASSERT_NE(hMutex, nullptr);
    EXPECT_TRUE(m_pfnUninitialize());
    EXPECT_FALSE(OtherThreadGets(hMutex));
    EXPECT_TRUE(m_pfnUninitialize());
    EXPECT_TRUE(OtherThreadGets(hMutex));
    CloseHandle(hMutex);
}

TEST_F(ComponentExportsTest, UnknownFeatureFailsButTheMutexIsHeld)
{
    EXPECT_FALSE(m_pfnInitialize("Notify", "2.6", "Agent"));
    EXPECT_EQ(ModuleLines("Initialize Feature failed").size(), 1u);
    EXPECT_EQ(ModuleLines("Error loading dependency table").size(), 1u);
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, MutexName().c_str());
    ASSERT_NE(hMutex, nullptr);
    EXPECT_FALSE(OtherThreadGets(hMutex));
    EXPECT_TRUE(m_pfnUninitialize());
    CloseHandle(hMutex);
}

TEST_F(ComponentExportsTest, WithoutTablesPathNoMutexIsCreated)
{
    m_common.Remove("DependencyTables");
    EXPECT_FALSE(m_pfnInitialize("Notify", "2.5", "Agent"));
    EXPECT_EQ(ModuleLines("Error accessing registry for getting deptables path").size(), 1u);
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, MutexName().c_str());
    EXPECT_EQ(hMutex, nullptr);
    if (hMutex)
        CloseHandle(hMutex);
    EXPECT_TRUE(ModuleLines("Initialize Feature failed").empty());
    EXPECT_TRUE(m_pfnUninitialize());
}

TEST_F(ComponentExportsTest, ThreadWithoutComCannotParse)
{
    bool bResult = true;
    bool bUninitialized = false;
    std::thread worker([&] {
        bResult = m_pfnInitialize("Notify", "2.5", "Agent");
        bUninitialized = m_pfnUninitialize();
    });
    worker.join();
    EXPECT_FALSE(bResult);
    EXPECT_TRUE(bUninitialized);
    const auto lines = ModuleLines("Failed to create MSXML2.Dom object to parse XML.");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0][9].rfind("hr: 0x8", 0), 0u) << lines[0][9];
    EXPECT_EQ(ModuleLines("Initialize Feature failed").size(), 1u);
}

TEST_F(ComponentExportsTest, NullArgumentsFailCleanly)
{
    EXPECT_FALSE(m_pfnInitialize(nullptr, nullptr, nullptr));
    EXPECT_TRUE(m_pfnUninitialize());
    const auto enter = ModuleLines("Method DllInitialize has been called");
    ASSERT_EQ(enter.size(), 1u);
    EXPECT_EQ(enter[0][9], "szFeatureName: , szFeatureVersion: , szContextName: ");
}

}  // namespace
