// CCAssembly and CCComponentT<CCAssembly> inside the test program: the program's own
// file name and version resource (TestVersion.rc) identify it in the dependency tables.
#include "framework/CCAssembly.h"
#include "framework/CCComponentT.h"
#include "framework/CCEventLogCond.h"

#include "access/ComHolders.h"
#include "access/ErrorText.h"
#include "CommonKeyValues.h"
#include "GlobalTraceLog.h"
#include "TempDir.h"
#include "TestRegistryKey.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <future>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
constexpr char kModuleFile[] = "unit_tests.exe";
constexpr char kFileVersion[] = "2.07.1.5 (test)";  // TestVersion.rc
constexpr char kNoIdentity[] = "AssemblyIdentity node not found for current assembly.";
constexpr char kNoTable[] = "Error loading dependency table";

// Feature "Feat" 1.0, context "Ctx", this program as identity; a decoy feature comes first.
std::string Table(const std::string& sDependencies = "", const std::string& sIdentityVersion = "*",
                  const std::string& sFeatureAttributes = "", const std::string& sIdentityName = kModuleFile)
{
    return "<features><feature name='Other' version='1.0' rootFolder='X:\\wrong'><context name='Ctx'><assemblyIdentity "
           "name='unit_tests.exe' version='*'/></context></feature><feature name='Feat' version='1.0'" +
           sFeatureAttributes + "><context name='Ctx'><assemblyIdentity name='" + sIdentityName + "' version='" +
           sIdentityVersion + "'><dependencies>" + sDependencies +
           "</dependencies></assemblyIdentity></context></feature></features>";
}

std::string Text(CCAssembly& assembly, bool (CCAssembly::*pfnGet)(char*, size_t))
{
    char szText[CCAssembly::kTextChars + 8] = {};
    EXPECT_TRUE((assembly.*pfnGet)(szText, sizeof(szText)));
    return szText;
}

class AssemblyTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        m_common.Set("DependencyTables", Narrow(m_dir.Path()));
        m_common.Set("ComponentRoot", "C:\\Components");
        WriteTable(Table());
        Mark();
    }
    void TearDown() override { CoUninitialize(); }
    void WriteTable(const std::string& sContent, const std::string& sVersion = "1.0")
    {
        std::ofstream(m_dir.File(Widen("Feat_" + sVersion + ".xml")).c_str(), std::ios::binary) << sContent;
    }
    void Mark() { m_uMark = GlobalTraceLog::Get().Mark(); }
    // These fields, joined by '|', of each line since the mark whose message is one of sMessages.
    Texts Fields(const Texts& sMessages, std::initializer_list<size_t> fields = {3, 8}) const
    {
        Texts texts;
        for (const std::vector<std::string>& line : GlobalTraceLog::Get().LinesSince(m_uMark)) {
            if (line.size() < 9 || std::find(sMessages.begin(), sMessages.end(), line[7]) == sMessages.end())
                continue;
            std::string sText;
            for (const size_t i : fields)
                sText += "|" + line[i];
            texts.push_back(sText.substr(1));
        }
        return texts;
    }
    size_t Count(const std::string& sMessage) const { return Fields({sMessage}).size(); }
    // "level|text" of the first line since the mark with this message, "" when there is none.
    std::string Traced(const std::string& sMsg) const { Texts t = Fields({sMsg}); return t.empty() ? "" : t[0]; }

    TempDir m_dir;
    CommonKeyValues m_common;
    size_t m_uMark = 0;
};

// Through the component, as COM hands the names over: no mutex is taken on this path.
TEST_F(AssemblyTest, IdentifiesTheModuleTracesAndCopiesTheTexts)
{
    char szExe[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, szExe, MAX_PATH);
    {
        CCAssembly assembly;
        CCComponentT<CCAssembly> component(assembly);
        ASSERT_TRUE(component.Initialize(CCBstr(L"Feat").Get(), CCBstr(L"1.0").Get(), CCBstr(L"Ctx").Get()));
        EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, assembly.MutexName().c_str()), nullptr);
        EXPECT_STREQ(component->GetModulePath(), szExe);
        EXPECT_EQ(std::string(assembly.GetConfigFilePath()), std::string(szExe) + ".config.xml");
        EXPECT_STREQ(assembly.GetModuleFile(), kModuleFile);
        EXPECT_STREQ(assembly.GetFileVersion(), kFileVersion);  // only the translation's string table holds this
        EXPECT_EQ(assembly.GetModuleHandleRaw(), GetModuleHandleA(nullptr));
        EXPECT_EQ(Text(assembly, &CCAssembly::GetFeatureName) + "|" + Text(assembly, &CCAssembly::GetFeatureVersion) +
                      "|" + Text(assembly, &CCAssembly::GetContextName), "Feat|1.0|Ctx");
        EXPECT_TRUE(GlobalTraceLog::Get().Contains(m_uMark, "", "szFeatureName: Feat"));
        // A small buffer gets a terminated prefix and a false result, and nothing beyond it is touched.
        char szBuffer[8] = "ZZZZZZZ";
        EXPECT_FALSE(assembly.GetContextName(szBuffer, 3));
        EXPECT_EQ(std::string(szBuffer, 4), std::string("Ct\0Z", 4));
        // The conditional event log asks the assembly for the feature name of the activation key.
        TestRegistryKey key("SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Larkspan\\Larkspan\\Activation\\Feat");
        key.SetDword("Active", 1);
        EXPECT_EQ(CCEventLogCond::ReportEventCond(&assembly, 3, "Larkspan", "Larkspan", 1, 7, 0), 0u);
        // Null BSTRs are empty texts: no table "_.xml" exists, so this fails cleanly.
        EXPECT_FALSE(component.Initialize(static_cast<BSTR>(nullptr), nullptr, nullptr));
        EXPECT_EQ(Text(assembly, &CCAssembly::GetFeatureName), "");
    }
    EXPECT_EQ(Fields({"An instance of CCAssembly has been constructed", "Method Initialize has been called",
                      "Method Initialize has been left.", "An instance of CCAssembly has been destructed"},
                     {3, 4, 5, 6, 8}),
              (Texts{"InfoCC|CCAssembly|CCAssembly|Enter|",
                     "InfoCC|CCAssembly|Initialize|Enter|szFeatureName: Feat, szFeatureVersion: 1.0, "
                     "szContextName: Ctx",
                     "InfoCC|CCAssembly|Initialize|Leave|bReturn: 1",
                     "InfoCC|CCAssembly|Initialize|Enter|szFeatureName: , szFeatureVersion: , szContextName: ",
                     "InfoCC|CCAssembly|Initialize|Leave|bReturn: 0", "InfoCC|CCAssembly|~CCAssembly|Leave|"}));
}

// The identity node must match feature, version, context and module name exactly; its version may be "*".
TEST_F(AssemblyTest, IdentityNodeMustMatchExactly)
{
    // The caller's szVersion also names the file.
    const struct { const char *szWhat, *szVersion, *szContext, *szIdentityName, *szIdentityVersion; bool bMatches; }
        rows[] = {{"star version", "1.0", "Ctx", kModuleFile, "*", true},
                  {"exact version", "1.0", "Ctx", kModuleFile, "2.07.1.5 (test)", true},
                  {"version without suffix", "1.0", "Ctx", kModuleFile, "2.07.1.5", false},
                  {"double star", "1.0", "Ctx", kModuleFile, "**", false},
                  {"context differs in case", "1.0", "ctx", kModuleFile, "*", false},
                  {"identity name differs in case", "1.0", "Ctx", "Unit_Tests.exe", "*", false},
                  {"feature version in the file differs", "1.00", "Ctx", kModuleFile, "*", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szWhat);
        WriteTable(Table("", row.szIdentityVersion, "", row.szIdentityName), row.szVersion);
        Mark();
        CCAssembly assembly;
        EXPECT_EQ(assembly.Initialize("Feat", row.szVersion, row.szContext), row.bMatches);
        EXPECT_EQ(assembly.IsInitialized(), row.bMatches);
        EXPECT_EQ(Traced(kNoIdentity), row.bMatches ? "" : std::string("Error|ContextName: ") + row.szContext +
                                           ", AssemblyIdentity: unit_tests.exe, Version: " + kFileVersion);
        for (const char* szMessage : {kNoIdentity, "InitializeFeatureList failed", "InitializeFeature failed"})
            EXPECT_EQ(Count(szMessage), row.bMatches ? 0u : 1u) << szMessage;
    }
}

// A table that does not load is reported with the parser's position (Wine's msxml3 gives none) and reason, whose
// line break is cut.
TEST_F(AssemblyTest, BadTableFailsCleanly)
{
    WriteTable("<?xml version=\"1.0\"?>\n<features><feature name=\"Feat\" version=\"1.0\">\n</context>\n</features>\n");
    CCAssembly assembly;
    EXPECT_FALSE(assembly.Initialize("Feat", "1.0", "Ctx"));
    EXPECT_EQ(Count("InitializeFeatureList failed"), 1u);
    const std::string sText = Traced(kNoTable), sHead = "Error|path='" + Narrow(m_dir.Path()) + "\\Feat_1.0.xml', ";
    const std::regex position("Line=-?\\d+, Col=-?\\d+, reason='[^\\r\\n]+'");
    EXPECT_TRUE(sText.starts_with(sHead) && std::regex_match(sText.substr(sHead.size()), position)) << sText;
    EXPECT_EQ(Traced(kNoIdentity), "");
}

TEST_F(AssemblyTest, TablesPathIsExpandedOrFailsTheCommonStep)
{
    const std::string sDir = Narrow(m_dir.Path());
    SetEnvironmentVariableA("MORADEL_TEST_DIR", sDir.c_str());
    SetEnvironmentVariableA("MORADEL_LONG", std::string(200, 'e').c_str());
    // 259 characters and the terminator fill the buffer; whatever the platform's count says fits must be taken.
    const std::string sFull = "C:\\" + std::string(256, 'x');
    char szProbe[CCAssembly::kTextChars];
    const bool bFits = ExpandEnvironmentStringsA(sFull.c_str(), szProbe, sizeof(szProbe)) <= sizeof(szProbe);
    const struct { const char* szWhat; std::optional<std::string> sValue; DWORD dwType; bool bInitialized;
                   std::string sExpanded; long lError; } rows[] = {
        // A trailing backslash is neither added nor removed; the value's type is not checked.
        {"expand string", "%MORADEL_TEST_DIR%\\", REG_EXPAND_SZ, true, sDir + "\\", 0},
        {"plain string is expanded too", "%MORADEL_TEST_DIR%", REG_SZ, true, sDir, 0},
        {"exactly 259 characters", sFull, REG_SZ, false, bFits ? sFull : "", bFits ? 0L : ERROR_INSUFFICIENT_BUFFER},
        {"value missing", std::nullopt, REG_SZ, false, "", ERROR_FILE_NOT_FOUND},
        {"value over 260 bytes", "C:\\" + std::string(300, 'r'), REG_SZ, false, "", ERROR_MORE_DATA},
        {"expansion over 260 characters", "%MORADEL_LONG%\\%MORADEL_LONG%", REG_SZ, false, "", 122}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szWhat);
        row.sValue ? m_common.Set("DependencyTables", *row.sValue, row.dwType) : m_common.Remove("DependencyTables");
        Mark();
        CCAssembly assembly;
        EXPECT_EQ(assembly.Initialize("Feat", "1.0", "Ctx"), row.bInitialized);
        EXPECT_EQ(std::string(assembly.GetDependencyTablesPath()), row.sExpanded);
        EXPECT_EQ(Traced("Error accessing registry for getting deptables path"),
                  row.lError ? "Error|Error: " + std::to_string(row.lError) : "");
        // A failed path fails the common step once, and the feature step never runs.
        for (const char* szMessage : {"InitializeDependencyTablesPath failed", "InitializeCommon failed"})
            EXPECT_EQ(Count(szMessage), row.lError ? 1u : 0u) << szMessage;
        EXPECT_EQ(Count("Method InitializeFeature has been called"), row.lError ? 0u : 1u);
    }
    SetEnvironmentVariableA("MORADEL_TEST_DIR", nullptr);
    SetEnvironmentVariableA("MORADEL_LONG", nullptr);
}

TEST_F(AssemblyTest, ComponentRootComesFromRegistryOrFeatureAttribute)
{
    const std::string sLong(300, 'r'), sAttribute = " rootFolder=\"D:\\Feature\"";
    const struct { const char* szWhat; std::optional<std::string> sRegistry; std::string sAttributes, sRoot;
                   long lWarning; std::string sName, sVersion; } rows[] = {
        {"registry", "C:\\Components", "", "C:\\Components", 0, "Lib", "3.1"},
        {"missing value is only a warning", std::nullopt, "", "", ERROR_FILE_NOT_FOUND, "Lib", "3.1"},
        {"attribute wins", "C:\\Components", sAttribute, "D:\\Feature", 0, "Lib", "3.1"},
        {"empty attribute keeps registry", "C:\\Components", " rootFolder=\"\"", "C:\\Components", 0, "Lib", "3.1"},
        // A value over 260 bytes cannot be read; the long attribute and dependency texts are cut to 259.
        {"long texts", "C:\\" + sLong, " rootFolder=\"" + sLong + "\"", sLong.substr(0, 259), ERROR_MORE_DATA,
         sLong, sLong}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szWhat);
        WriteTable(Table("<assemblyIdentity name=\"" + row.sName + "\" version=\"" + row.sVersion + "\"/>", "*",
                         row.sAttributes));
        row.sRegistry ? m_common.Set("ComponentRoot", *row.sRegistry) : m_common.Remove("ComponentRoot");
        Mark();
        CCAssembly assembly;
        EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
        EXPECT_EQ(std::string(assembly.GetComponentRoot()), row.sRoot);
        ASSERT_EQ(assembly.GetLibraryEntries().size(), 1u);
        const auto& [sKey, library] = *assembly.GetLibraryEntries().begin();
        const std::string sFolder = row.sRoot + "\\" + row.sName + "\\" + row.sVersion + "\\" + row.sName;
        EXPECT_EQ(sKey + "|" + library.szFolder, row.sName.substr(0, 259) + "|" + sFolder.substr(0, 259));
        EXPECT_EQ(Traced("Error accessing registry for getting GAC root"),
                  row.lWarning ? "Warning|Error: " + std::to_string(row.lWarning) : "");
    }
}

TEST_F(AssemblyTest, ComAndLibraryEntriesAreSortedIntoTheirMaps)
{
    WriteTable(Table("<assemblyIdentity name='Store' version='1.2' progID='Tess.Store.1' "
                     "versionIndependentProgID='Tess.Store'/><assemblyIdentity name='Helper.dll' version='4.0'/>"
                     "<assemblyIdentity name='HalfCom' version='5' progID='Tess.Half.1'/>"
                     "<assemblyIdentity name='HalfCom2' versionIndependentProgID='Tess.Half2'/>"
                     "<assemblyIdentity name='Store2' version='1.3' progID='Tess.Store.2' "
                     "versionIndependentProgID='Tess.Store'/><assemblyIdentity name='Helper.dll' version='4.1'/>"));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    // Keyed by versionIndependentProgID and by name; a later entry with the same key replaces the earlier one.
    Texts entries;
    for (const auto* pMap : {&assembly.GetComEntries(), &assembly.GetLibraryEntries()})
        for (const auto& [sKey, r] : *pMap)
            entries.push_back(sKey + ": " + r.szName + "|" + r.szVersion + "|" + r.szProgID + "|" +
                              r.szVersionIndependentProgID + "|" + r.szFolder);
    EXPECT_EQ(entries, (Texts{"Tess.Store: Store2|1.3|Tess.Store.2|Tess.Store|C:\\Components\\Store2\\1.3\\Store2",
                              "HalfCom: HalfCom|5|Tess.Half.1||C:\\Components\\HalfCom\\5\\HalfCom",
                              "HalfCom2: HalfCom2|||Tess.Half2|C:\\Components\\HalfCom2\\\\HalfCom2",
                              "Helper.dll: Helper.dll|4.1|||C:\\Components\\Helper.dll\\4.1\\Helper.dll"}));
    // Every entry is traced in table order, COM entries with both ProgIDs.
    const std::string sCaller = std::string("|caller unit_tests.exe V") + kFileVersion + ": name ";
    const std::string sCom = "VerboseCC|Internal|Com entry found" + sCaller;
    const std::string sDll = "VerboseCC|Internal|Win32 dll entry found" + sCaller;
    EXPECT_EQ(Fields({"Com entry found", "Win32 dll entry found"}, {3, 6, 7, 8}),
              (Texts{sCom + "Store, version 1.2, progId Tess.Store.1, viProgId Tess.Store",
                     sDll + "Helper.dll, version 4.0", sDll + "HalfCom, version 5", sDll + "HalfCom2, version ",
                     sCom + "Store2, version 1.3, progId Tess.Store.2, viProgId Tess.Store",
                     sDll + "Helper.dll, version 4.1"}));
}

TEST_F(AssemblyTest, LongNamesAreCutWithoutOverrun)
{
    // sMedium is stored whole but is too long for the 260-character table path.
    const std::string sLong(300, 'n'), sMedium(230, 'f');
    ASSERT_GT(m_dir.Path().size() + sMedium.size() + 8, CCAssembly::kTextChars);
    // Without bPathTooLong the table is read and the context is not found.
    const struct { const char* szWhat; std::string sFeature, sVersion, sContext; bool bPathTooLong; } rows[] = {
        {"feature", sLong, "1.0", "Ctx", true}, {"version", "Feat", sLong, "Ctx", true},
        {"context", "Feat", "1.0", sLong, false},
        {"table path only", sMedium, "1.0", "Ctx", true}};  // not opened cut, which could name an unrelated file
    for (const auto& row : rows) {
        SCOPED_TRACE(row.szWhat);
        Mark();
        CCAssembly assembly;
        EXPECT_FALSE(assembly.Initialize(row.sFeature.c_str(), row.sVersion.c_str(), row.sContext.c_str()));
        const std::string sPath = Narrow(m_dir.Path()) + "\\" + row.sFeature + "_" + row.sVersion + ".xml";
        EXPECT_EQ(Traced(kNoTable), row.bPathTooLong ? "Error|path='" + sPath.substr(0, 259) +
                                                           "', Line=0, Col=0, reason='path too long'" : "");
        // Stored texts are cut to 259 characters; the neighbouring fields are intact.
        EXPECT_EQ(Text(assembly, &CCAssembly::GetFeatureName) + "|" + Text(assembly, &CCAssembly::GetFeatureVersion) +
                      "|" + Text(assembly, &CCAssembly::GetContextName) + "|" + assembly.GetModuleFile() + "|" +
                      assembly.GetFileVersion() + "|" + assembly.GetComponentRoot(),
                  row.sFeature.substr(0, 259) + "|" + row.sVersion.substr(0, 259) + "|" + row.sContext.substr(0, 259) +
                      "|" + kModuleFile + "|" + kFileVersion + "|" + (row.bPathTooLong ? "" : "C:\\Components"));
    }
}

TEST_F(AssemblyTest, WithoutComTheDocumentCannotBeCreated)
{
    bool bResult = true;
    // A fresh thread has no COM apartment; the component must not set one up itself.
    std::thread([&] { bResult = CCAssembly().Initialize("Feat", "1.0", "Ctx"); }).join();
    const std::string sText = Traced("Failed to create MSXML2.Dom object to parse XML.");
    unsigned hr = 0;
    ASSERT_TRUE(!bResult && sscanf(sText.c_str(), "Error|hr: 0x%08X", &hr) == 1) << sText;
    char szExpected[512];
    snprintf(szExpected, sizeof(szExpected), "Error|hr: 0x%08X, '%s'", hr, GetErrorText(hr));
    EXPECT_TRUE(FAILED(static_cast<HRESULT>(hr)) && sText == szExpected) << sText;
}

TEST_F(AssemblyTest, DllInitializeHoldsTheNamedMutexUntilUninitialize)
{
    char szName[MAX_PATH];
    snprintf(szName, sizeof(szName), "CCAssembly_PID_%8.8lx_unit_tests.exe_%s", GetCurrentProcessId(), kFileVersion);
    CCAssembly assembly;
    ASSERT_EQ(assembly.DllInitialize("Feat", "1.0", "Ctx"), 1);
    EXPECT_EQ(assembly.MutexName(), szName);
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, szName);
    ASSERT_NE(hMutex, nullptr) << GetLastError();
    EXPECT_EQ(std::async(std::launch::async, WaitForSingleObject, hMutex, 0).get(), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(assembly.DllUninitialize());
    EXPECT_EQ(std::async(std::launch::async, WaitForSingleObject, hMutex, 0).get(), WAIT_OBJECT_0);
    CloseHandle(hMutex);
}

}  // namespace
