// CCAssembly and CCComponentT<CCAssembly> inside the test program: the program's own
// file name and version resource (TestVersion.rc) identify it in the dependency tables.
#include "framework/CCAssembly.h"
#include "framework/CCComponentT.h"

#include "access/ComHolders.h"
#include "access/ErrorText.h"
#include "CommonKeyValues.h"
#include "GlobalTraceLog.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <msxml2.h>
#include <wrl/client.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr char kModuleFile[] = "unit_tests.exe";
constexpr char kFileVersion[] = "2.07.1.5 (test)";  // TestVersion.rc

using Rows = std::vector<std::vector<std::string>>;

// One table with one feature "Feat" 1.0, context "Ctx" and this program as identity.
std::string Table(const std::string& sDependencies, const std::string& sIdentityVersion = "*",
                  const std::string& sFeatureAttributes = "", const std::string& sIdentityName = kModuleFile)
{
    return "<?xml version=\"1.0\"?>\n<features>\n"
           "  <feature name=\"Other\" version=\"1.0\" rootFolder=\"X:\\wrong\">\n"
           "    <context name=\"Ctx\"><assemblyIdentity name=\"unit_tests.exe\" version=\"*\"/></context>\n"
           "  </feature>\n"
           "  <feature name=\"Feat\" version=\"1.0\"" + sFeatureAttributes + ">\n"
           "    <context name=\"Ctx\">\n"
           "      <assemblyIdentity name=\"" + sIdentityName + "\" version=\"" + sIdentityVersion + "\">\n"
           "        <dependencies>\n" + sDependencies + "        </dependencies>\n"
           "      </assemblyIdentity>\n"
           "    </context>\n"
           "  </feature>\n</features>\n";
}

struct ParserReport {
    bool bLoaded = false;
    long lLine = -1;
    long lColumn = -1;
    std::string sReason;
};

// Asks MSXML itself what it makes of a file, without the code under test.
ParserReport ParseFile(const std::wstring& wsPath)
{
    ParserReport report;
    CLSID clsid = {};
    Microsoft::WRL::ComPtr<IXMLDOMDocument> pDocument;
    if (FAILED(CLSIDFromProgID(L"MSXML2.FreeThreadedDOMDocument", &clsid)) ||
        FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                                reinterpret_cast<void**>(pDocument.GetAddressOf()))))
        return report;
    pDocument->put_async(VARIANT_FALSE);
    CCVariant varSource;
    varSource.GetAddress()->bstrVal = SysAllocString(wsPath.c_str());
    varSource.GetAddress()->vt = VT_BSTR;
    VARIANT_BOOL bLoaded = VARIANT_FALSE;
    report.bLoaded = pDocument->load(varSource.Get(), &bLoaded) == S_OK && bLoaded == VARIANT_TRUE;
    Microsoft::WRL::ComPtr<IXMLDOMParseError> pError;
    if (SUCCEEDED(pDocument->get_parseError(pError.GetAddressOf())) && pError) {
        pError->get_line(&report.lLine);
        pError->get_linepos(&report.lColumn);
        CCBstr bstrReason;
        pError->get_reason(bstrReason.GetAddress());
        report.sReason = Narrow(bstrReason.Get() ? bstrReason.Get() : L"");
        while (!report.sReason.empty() && (report.sReason.back() == '\n' || report.sReason.back() == '\r'))
            report.sReason.pop_back();
    }
    return report;
}

class AssemblyTest : public testing::Test {
protected:
    void SetUp() override
    {
        Mark();
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
        m_common.Set("DependencyTables", Narrow(m_dir.Path()));
        m_common.Set("ComponentRoot", "C:\\Components");
    }
    void TearDown() override
    {
        SetEnvironmentVariableA("MORADEL_TEST_DIR", nullptr);
        SetEnvironmentVariableA("MORADEL_LONG", nullptr);
        CoUninitialize();
    }

    void WriteFile(const std::string& sName, const std::string& sContent)
    {
        std::ofstream file(m_dir.File(Widen(sName)).c_str(), std::ios::binary);
        file << sContent;
    }
    void WriteTable(const std::string& sContent) { WriteFile("Feat_1.0.xml", sContent); }
    void Mark() { m_uMark = GlobalTraceLog::Get().Mark(); }

    Rows Lines() const { return GlobalTraceLog::Get().LinesSince(m_uMark); }
    // The first line written since the mark with this message, or nullptr.
    std::optional<std::vector<std::string>> Find(const std::string& sMessage) const
    {
        for (const auto& fields : Lines())
            if (fields.size() >= 9 && fields[7] == sMessage)
                return fields;
        return std::nullopt;
    }
    // Like Find, but the line must exist and have this level; nine empty fields when it is missing.
    std::vector<std::string> Expect(const std::string& sMessage, const char* szLevel = "Error") const
    {
        const auto line = Find(sMessage);
        if (!line) {
            ADD_FAILURE() << "no trace line '" << sMessage << "'";
            return std::vector<std::string>(9);
        }
        EXPECT_EQ((*line)[3], szLevel) << sMessage;
        return *line;
    }
    size_t Count(const std::string& sMessage) const
    {
        size_t uCount = 0;
        for (const auto& fields : Lines())
            uCount += fields.size() >= 9 && fields[7] == sMessage;
        return uCount;
    }
    std::string TablePath() const { return Narrow(m_dir.File(L"Feat_1.0.xml")); }

    TempDir m_dir;
    CommonKeyValues m_common;
    size_t m_uMark = 0;
};

TEST_F(AssemblyTest, IdentifiesTheModuleFromItsFileAndVersionResource)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    char szExe[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, szExe, MAX_PATH);
    EXPECT_STREQ(assembly.GetModulePath(), szExe);
    EXPECT_EQ(std::string(assembly.GetConfigFilePath()), std::string(szExe) + ".config.xml");
    EXPECT_STREQ(assembly.GetModuleFile(), kModuleFile);
    // Only the translation's string table holds this text.
    EXPECT_STREQ(assembly.GetFileVersion(), kFileVersion);
    EXPECT_EQ(assembly.GetModuleHandleRaw(), GetModuleHandleA(nullptr));
    EXPECT_TRUE(assembly.IsInitialized());
}

// The identity node must match feature, version, context and module name exactly; its version may be "*".
TEST_F(AssemblyTest, IdentityNodeMustMatchExactly)
{
    const struct {
        const char* szWhat;
        const char* szVersion;  // the caller's feature version, which also names the file
        const char* szContext;
        const char* szIdentityName;
        const char* szIdentityVersion;
        bool bMatches;
    } aCases[] = {
        {"star version", "1.0", "Ctx", kModuleFile, "*", true},
        {"exact version", "1.0", "Ctx", kModuleFile, "2.07.1.5 (test)", true},
        {"version without suffix", "1.0", "Ctx", kModuleFile, "2.07.1.5", false},
        {"version differs in case", "1.0", "Ctx", kModuleFile, "2.07.1.5 (TEST)", false},
        {"empty version", "1.0", "Ctx", kModuleFile, "", false},
        {"double star", "1.0", "Ctx", kModuleFile, "**", false},
        {"context differs", "1.0", "Other", kModuleFile, "*", false},
        {"context differs in case", "1.0", "ctx", kModuleFile, "*", false},
        {"identity names another module", "1.0", "Ctx", "Moradel.dll", "*", false},
        {"identity name differs in case", "1.0", "Ctx", "Unit_Tests.exe", "*", false},
        {"feature version in the file differs", "1.00", "Ctx", kModuleFile, "*", false},
    };
    for (const auto& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        // The table file is found by the caller's version; the node inside must still match it.
        WriteFile(std::string("Feat_") + row.szVersion + ".xml",
                  Table("", row.szIdentityVersion, "", row.szIdentityName));
        Mark();
        CCAssembly assembly;
        EXPECT_EQ(assembly.Initialize("Feat", row.szVersion, row.szContext), row.bMatches);
        EXPECT_EQ(assembly.IsInitialized(), row.bMatches);
        if (row.bMatches) {
            EXPECT_FALSE(Find("AssemblyIdentity node not found for current assembly.").has_value());
            continue;
        }
        EXPECT_EQ(Expect("AssemblyIdentity node not found for current assembly.")[8],
                  std::string("ContextName: ") + row.szContext + ", AssemblyIdentity: unit_tests.exe, Version: " +
                      kFileVersion);
        EXPECT_EQ(Count("InitializeFeatureList failed"), 1u);
        EXPECT_EQ(Count("InitializeFeature failed"), 1u);
    }
}

TEST_F(AssemblyTest, UnloadableTableReportsPathAndParserPosition)
{
    const struct {
        const char* szWhat;
        const char* szContent;  // nullptr: no file
    } aCases[] = {
        {"malformed", "<?xml version=\"1.0\"?>\n<features>\n  <feature name=\"Feat\" version=\"1.0\">\n"
                      "    </context>\n</features>\n"},
        {"missing", nullptr},
    };
    for (const auto& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        if (row.szContent)
            WriteTable(row.szContent);
        else
            DeleteFileW(m_dir.File(L"Feat_1.0.xml").c_str());
        Mark();
        CCAssembly assembly;
        EXPECT_FALSE(assembly.Initialize("Feat", "1.0", "Ctx"));
        // The position is whatever the parser reports (Wine's msxml3 reports none; Windows gives line 4).
        const ParserReport expected = ParseFile(m_dir.File(L"Feat_1.0.xml"));
        ASSERT_FALSE(expected.bLoaded);
        EXPECT_FALSE(expected.sReason.empty());
        char szExpected[1024];
        snprintf(szExpected, sizeof(szExpected), "path='%s', Line=%ld, Col=%ld, reason='%s'", TablePath().c_str(),
                 expected.lLine, expected.lColumn, expected.sReason.c_str());
        EXPECT_EQ(Expect("Error loading dependency table")[8], szExpected);
        EXPECT_FALSE(Find("AssemblyIdentity node not found for current assembly.").has_value());
    }
}

// Tables that parse but are absurd: the answer is that the feature is not found, nothing worse.
TEST_F(AssemblyTest, DeepOrHugeTablesOnlyFailToMatch)
{
    std::string sDeep = "<?xml version=\"1.0\"?>\n<features>";
    for (int i = 0; i < 2000; ++i)
        sDeep += "<feature name=\"Feat\" version=\"1.0\">";
    for (int i = 0; i < 2000; ++i)
        sDeep += "</feature>";
    sDeep += "</features>\n";
    std::string sHuge = "<?xml version=\"1.0\"?>\n<features>\n";
    for (int i = 0; i < 10000; ++i)
        sHuge += "  <feature name=\"Other" + std::to_string(i) + "\" version=\"1.0\"><context name=\"Ctx\"/></feature>\n";
    sHuge += "</features>\n";
    for (const std::string& sTable : {sDeep, sHuge}) {
        SCOPED_TRACE(sTable.size());
        WriteTable(sTable);
        Mark();
        CCAssembly assembly;
        EXPECT_FALSE(assembly.Initialize("Feat", "1.0", "Ctx"));
        EXPECT_EQ(Count("InitializeFeatureList failed"), 1u);
    }
}

TEST_F(AssemblyTest, TablesPathIsExpandedOrFailsTheCommonStep)
{
    WriteTable(Table(""));
    const std::string sDir = Narrow(m_dir.Path());
    const struct {
        const char* szWhat;
        std::optional<std::string> sValue;  // nullopt: value missing
        DWORD dwType;
        const char* szExpanded;  // nullptr: the path fails with lError
        long lError;
    } aCases[] = {
        // A trailing backslash is neither added nor removed; the value's type is not checked.
        {"expand string", "%MORADEL_TEST_DIR%\\", REG_EXPAND_SZ, "\\", 0},
        {"plain string is expanded too", "%MORADEL_TEST_DIR%", REG_SZ, "", 0},
        {"value missing", std::nullopt, REG_SZ, nullptr, ERROR_FILE_NOT_FOUND},
        {"value over 260 bytes", "C:\\" + std::string(300, 'r'), REG_SZ, nullptr, ERROR_MORE_DATA},
        {"expansion over 260 characters", "%MORADEL_LONG%\\%MORADEL_LONG%", REG_SZ, nullptr,
         ERROR_INSUFFICIENT_BUFFER},
    };
    SetEnvironmentVariableA("MORADEL_TEST_DIR", sDir.c_str());
    SetEnvironmentVariableA("MORADEL_LONG", std::string(200, 'e').c_str());
    for (const auto& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        if (row.sValue)
            m_common.Set("DependencyTables", *row.sValue, row.dwType);
        else
            m_common.Remove("DependencyTables");
        Mark();
        CCAssembly assembly;
        EXPECT_EQ(assembly.Initialize("Feat", "1.0", "Ctx"), row.szExpanded != nullptr);
        EXPECT_EQ(std::string(assembly.GetDependencyTablesPath()), row.szExpanded ? sDir + row.szExpanded : "");
        if (row.szExpanded) {
            EXPECT_FALSE(Find("Error accessing registry for getting deptables path").has_value());
            continue;
        }
        EXPECT_FALSE(assembly.IsInitialized());
        EXPECT_EQ(Expect("Error accessing registry for getting deptables path")[8],
                  "Error: " + std::to_string(row.lError));
        EXPECT_EQ(Count("InitializeDependencyTablesPath failed"), 1u);
        EXPECT_EQ(Count("InitializeCommon failed"), 1u);
        // The feature step never ran.
        EXPECT_EQ(Count("Method InitializeFeature has been called"), 0u);
    }
}

TEST_F(AssemblyTest, ComponentRootComesFromRegistryOrFeatureAttribute)
{
    const std::string sLong(300, 'r');
    const struct {
        const char* szWhat;
        std::optional<std::string> sRegistry;  // nullopt: value missing
        std::string sAttributes, sExpectedRoot;
        long lWarning;  // 0: none
        std::string sName, sVersion;
    } aCases[] = {
        {"registry", "C:\\Components", "", "C:\\Components", 0, "Lib", "3.1"},
        {"missing value is only a warning", std::nullopt, "", "", ERROR_FILE_NOT_FOUND, "Lib", "3.1"},
        {"attribute wins", "C:\\Components", " rootFolder=\"D:\\Feature\"", "D:\\Feature", 0, "Lib", "3.1"},
        {"attribute without registry", std::nullopt, " rootFolder=\"D:\\Feature\"", "D:\\Feature",
         ERROR_FILE_NOT_FOUND, "Lib", "3.1"},
        {"empty attribute keeps registry", "C:\\Components", " rootFolder=\"\"", "C:\\Components", 0, "Lib", "3.1"},
        // A value over 260 bytes cannot be read; the long attribute and dependency texts are cut to 259.
        {"long texts", "C:\\" + sLong, " rootFolder=\"" + sLong + "\"", sLong.substr(0, 259), ERROR_MORE_DATA,
         sLong, sLong},
    };
    for (const auto& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        WriteTable(Table("<assemblyIdentity name=\"" + row.sName + "\" version=\"" + row.sVersion + "\"/>\n", "*",
                         row.sAttributes));
        if (row.sRegistry)
            m_common.Set("ComponentRoot", *row.sRegistry);
        else
            m_common.Remove("ComponentRoot");
        Mark();
        CCAssembly assembly;
        EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
        EXPECT_EQ(std::string(assembly.GetComponentRoot()), row.sExpectedRoot);
        const auto& libraries = assembly.GetLibraryEntries();
        ASSERT_EQ(libraries.size(), 1u);
        EXPECT_EQ(libraries.begin()->first, row.sName.substr(0, 259));
        const std::string sFolder = row.sExpectedRoot + "\\" + row.sName + "\\" + row.sVersion + "\\" + row.sName;
        EXPECT_EQ(std::string(libraries.begin()->second.szFolder), sFolder.substr(0, 259));
        if (row.lWarning) {
            EXPECT_EQ(Expect("Error accessing registry for getting GAC root", "Warning")[8],
                      "Error: " + std::to_string(row.lWarning));
        } else {
            EXPECT_FALSE(Find("Error accessing registry for getting GAC root").has_value());
        }
    }
}

TEST_F(AssemblyTest, ComAndLibraryEntriesAreSortedIntoTheirMaps)
{
    WriteTable(Table("<assemblyIdentity name=\"Store\" version=\"1.2\" progID=\"Tess.Store.1\" "
                     "versionIndependentProgID=\"Tess.Store\"/>\n"
                     "<assemblyIdentity name=\"Helper.dll\" version=\"4.0\"/>\n"
                     "<assemblyIdentity name=\"HalfCom\" version=\"5\" progID=\"Tess.Half.1\"/>\n"
                     "<assemblyIdentity name=\"HalfCom2\" versionIndependentProgID=\"Tess.Half2\"/>\n"
                     "<assemblyIdentity name=\"Store2\" version=\"1.3\" progID=\"Tess.Store.2\" "
                     "versionIndependentProgID=\"Tess.Store\"/>\n"
                     "<assemblyIdentity name=\"Helper.dll\" version=\"4.1\"/>\n"));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));

    const auto& com = assembly.GetComEntries();
    ASSERT_EQ(com.size(), 1u);
    ASSERT_EQ(com.count("Tess.Store"), 1u);
    // The later entry with the same key replaced the earlier one.
    const CCDependencyRecord& store = com.at("Tess.Store");
    EXPECT_STREQ(store.szName, "Store2");
    EXPECT_STREQ(store.szVersion, "1.3");
    EXPECT_STREQ(store.szProgID, "Tess.Store.2");
    EXPECT_STREQ(store.szVersionIndependentProgID, "Tess.Store");
    EXPECT_STREQ(store.szFolder, "C:\\Components\\Store2\\1.3\\Store2");

    const auto& libraries = assembly.GetLibraryEntries();
    std::vector<std::string> keys;
    for (const auto& entry : libraries)
        keys.push_back(entry.first);
    EXPECT_EQ(keys, (std::vector<std::string>{"HalfCom", "HalfCom2", "Helper.dll"}));
    EXPECT_STREQ(libraries.at("Helper.dll").szVersion, "4.1");
    EXPECT_STREQ(libraries.at("HalfCom").szProgID, "Tess.Half.1");
    EXPECT_STREQ(libraries.at("HalfCom2").szVersion, "");
    EXPECT_STREQ(libraries.at("HalfCom2").szFolder, "C:\\Components\\HalfCom2\\\\HalfCom2");

    // Every entry is traced in table order, COM entries with both ProgIDs.
    std::vector<std::string> comTexts;
    std::vector<std::string> libraryTexts;
    for (const auto& fields : Lines()) {
        const bool bCom = fields.size() >= 9 && fields[7] == "Com entry found";
        if (!bCom && (fields.size() < 9 || fields[7] != "Win32 dll entry found"))
            continue;
        EXPECT_EQ(fields[3], "VerboseCC");
        EXPECT_EQ(fields[6], "Internal");
        (bCom ? comTexts : libraryTexts).push_back(fields[8]);
    }
    const std::string sCaller = std::string("caller unit_tests.exe V") + kFileVersion + ": ";
    EXPECT_EQ(comTexts, (std::vector<std::string>{
                            sCaller + "name Store, version 1.2, progId Tess.Store.1, viProgId Tess.Store",
                            sCaller + "name Store2, version 1.3, progId Tess.Store.2, viProgId Tess.Store"}));
    EXPECT_EQ(libraryTexts, (std::vector<std::string>{sCaller + "name Helper.dll, version 4.0",
                                                      sCaller + "name HalfCom, version 5",
                                                      sCaller + "name HalfCom2, version ",
                                                      sCaller + "name Helper.dll, version 4.1"}));
}

TEST_F(AssemblyTest, GettersCopyTheStoredTextsAndCutToTheBuffer)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    ASSERT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    const struct {
        bool (CCAssembly::*pfnGet)(char*, size_t);
        const char* szExpected;
    } aCases[] = {{&CCAssembly::GetFeatureName, "Feat"},
                  {&CCAssembly::GetFeatureVersion, "1.0"},
                  {&CCAssembly::GetContextName, "Ctx"}};
    for (const auto& row : aCases) {
        SCOPED_TRACE(row.szExpected);
        char szBuffer[CCAssembly::kTextChars];
        EXPECT_TRUE((assembly.*row.pfnGet)(szBuffer, sizeof(szBuffer)));
        EXPECT_STREQ(szBuffer, row.szExpected);
        // A small buffer gets a terminated prefix and a false result, and nothing beyond it is touched.
        memset(szBuffer, 'Z', sizeof(szBuffer));
        EXPECT_FALSE((assembly.*row.pfnGet)(szBuffer, 3));
        EXPECT_EQ(std::string(szBuffer), std::string(row.szExpected, 2));
        EXPECT_EQ(szBuffer[3], 'Z');
    }
    // One representative: the getter traces the value it hands out.
    Mark();
    char szBuffer[CCAssembly::kTextChars];
    assembly.GetFeatureName(szBuffer);
    EXPECT_TRUE(GlobalTraceLog::Get().Contains(m_uMark, "", "szFeatureName: Feat"));
}

TEST_F(AssemblyTest, LongNamesAreCutWithoutOverrun)
{
    WriteTable(Table(""));
    const std::string sLong(300, 'n');
    // Short enough to be stored whole, too long for the 260-character table path.
    const std::string sMedium(230, 'f');
    ASSERT_GT(m_dir.Path().size() + sMedium.size() + 8, CCAssembly::kTextChars);
    const struct {
        const char* szWhat;
        std::string sFeature, sVersion, sContext;
        bool bPathTooLong;  // else the table is read and the context is not found
    } aCases[] = {
        {"feature", sLong, "1.0", "Ctx", true},
        {"version", "Feat", sLong, "Ctx", true},
        {"context", "Feat", "1.0", sLong, false},
        // The table path is not opened cut, which could name an unrelated file.
        {"table path only", sMedium, "1.0", "Ctx", true},
    };
    for (const auto& row : aCases) {
        SCOPED_TRACE(row.szWhat);
        Mark();
        CCAssembly assembly;
        EXPECT_FALSE(assembly.Initialize(row.sFeature.c_str(), row.sVersion.c_str(), row.sContext.c_str()));
        const auto line = Find("Error loading dependency table");
        EXPECT_EQ(line.has_value(), row.bPathTooLong);
        const std::string sText = line ? (*line)[8] : "";
        EXPECT_EQ(sText.find("reason='path too long'") != std::string::npos, row.bPathTooLong) << sText;
        char szText[CCAssembly::kTextChars + 8];
        // Stored texts are cut to 259 characters; the neighbouring fields are intact.
        EXPECT_TRUE(assembly.GetFeatureName(szText, sizeof(szText)));
        EXPECT_EQ(std::string(szText), row.sFeature.substr(0, 259));
        assembly.GetFeatureVersion(szText, sizeof(szText));
        EXPECT_EQ(std::string(szText), row.sVersion.substr(0, 259));
        assembly.GetContextName(szText, sizeof(szText));
        EXPECT_EQ(std::string(szText), row.sContext.substr(0, 259));
        EXPECT_STREQ(assembly.GetModuleFile(), kModuleFile);
        EXPECT_STREQ(assembly.GetFileVersion(), kFileVersion);
        EXPECT_STREQ(assembly.GetComponentRoot(), row.bPathTooLong ? "" : "C:\\Components");
    }
}

TEST_F(AssemblyTest, EntryAndExitAreTracedAtInfoCC)
{
    WriteTable(Table(""));
    {
        CCAssembly assembly;
        EXPECT_TRUE(assembly.Initialize("Feat", "1.0", "Ctx"));
    }
    const auto enter = Expect("Method Initialize has been called", "InfoCC");
    const auto leave = Expect("Method Initialize has been left.", "InfoCC");
    for (const auto& fields : {Expect("An instance of CCAssembly has been constructed", "InfoCC"), enter, leave,
                               Expect("An instance of CCAssembly has been destructed", "InfoCC")})
        EXPECT_EQ(fields[4], "CCAssembly") << fields[7];
    EXPECT_EQ(enter[5], "Initialize");
    EXPECT_EQ(enter[6], "Enter");
    EXPECT_EQ(enter[8], "szFeatureName: Feat, szFeatureVersion: 1.0, szContextName: Ctx");
    EXPECT_EQ(leave[6], "Leave");
    EXPECT_EQ(leave[8], "bReturn: 1");
}

TEST_F(AssemblyTest, WithoutComTheDocumentCannotBeCreated)
{
    WriteTable(Table(""));
    bool bResult = true;
    // A fresh thread has no COM apartment; the component must not set one up itself.
    std::thread([&] {
        CCAssembly assembly;
        bResult = assembly.Initialize("Feat", "1.0", "Ctx");
    }).join();
    EXPECT_FALSE(bResult);
    const std::string sText = Expect("Failed to create MSXML2.Dom object to parse XML.")[8];
    unsigned hr = 0;
    ASSERT_EQ(sscanf(sText.c_str(), "hr: 0x%08X", &hr), 1) << sText;
    EXPECT_TRUE(FAILED(static_cast<HRESULT>(hr))) << std::hex << hr;
    char szExpected[512];
    snprintf(szExpected, sizeof(szExpected), "hr: 0x%08X, '%s'", hr, GetErrorText(hr));
    EXPECT_EQ(sText, szExpected);
}

TEST_F(AssemblyTest, DllInitializeHoldsTheNamedMutexUntilUninitialize)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    ASSERT_EQ(assembly.DllInitialize("Feat", "1.0", "Ctx"), 1);
    char szName[MAX_PATH];
    snprintf(szName, sizeof(szName), "CCAssembly_PID_%8.8lx_unit_tests.exe_%s", GetCurrentProcessId(), kFileVersion);
    EXPECT_EQ(assembly.MutexName(), szName);
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, szName);
    ASSERT_NE(hMutex, nullptr) << GetLastError();
    auto OtherThreadGets = [hMutex] {
        DWORD dwWait = WAIT_FAILED;
        std::thread([&] {
            dwWait = WaitForSingleObject(hMutex, 0);
            if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_ABANDONED)
                ReleaseMutex(hMutex);
        }).join();
        return dwWait == WAIT_OBJECT_0;
    };
    EXPECT_FALSE(OtherThreadGets());
    EXPECT_TRUE(assembly.DllUninitialize());
    EXPECT_TRUE(OtherThreadGets());
    CloseHandle(hMutex);
}

TEST_F(AssemblyTest, ComponentForwardsBstrsToTheAssembly)
{
    WriteTable(Table(""));
    CCAssembly assembly;
    CCComponentT<CCAssembly> component(assembly);
    EXPECT_EQ(component.Get(), &assembly);
    CCBstr bstrFeature(L"Feat");
    CCBstr bstrVersion(L"1.0");
    CCBstr bstrContext(L"Ctx");
    EXPECT_TRUE(component.Initialize(bstrFeature.Get(), bstrVersion.Get(), bstrContext.Get()));
    char szText[CCAssembly::kTextChars] = {};
    EXPECT_TRUE(component->GetContextName(szText));
    EXPECT_STREQ(szText, "Ctx");
    // No mutex on this path.
    HANDLE hMutex = OpenMutexA(SYNCHRONIZE, FALSE, assembly.MutexName().c_str());
    EXPECT_EQ(hMutex, nullptr);
    if (hMutex)
        CloseHandle(hMutex);

    // Null BSTRs are empty texts: no table "_.xml" exists, so this fails cleanly.
    EXPECT_FALSE(component.Initialize(static_cast<BSTR>(nullptr), nullptr, nullptr));
    component->GetFeatureName(szText);
    EXPECT_STREQ(szText, "");
}

}  // namespace
